#include "desktop/Staging.h"

#include "concurrency/AllCores.h"
#include "platform/FileSystem.h"
#include "platform/HomeScreen.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Places.h"

#include <algorithm>
#include <atomic>
#include <set>
#include <string_view>
#include <utility>

namespace appsync::desktop {

namespace {

// Written aside and moved into place whole, so that a sync never finds half of it.
const std::string unfinished = std::string(paths::publicStaging) + "/.ApplicationSync.unfinished";

Result<void> makeFolder(FileSystem& device, const std::string& path, bool withParents) {
    ErrorPtr error;
    return device.createDirectory(path, withParents, std::nullopt, &error) ? Result<void>() : error;
}

Result<void> putFile(FileSystem& device, const std::string& path, const Data& bytes) {
    if (device.createFile(path, bytes.bytes(), {})) {
        return {};
    }
    return desktopError("The device does not take '" + path + "'. Is its disk full?", path);
}

Result<void> putList(FileSystem& device, PropertyListSerialization& propertyLists, const std::string& path,
                     const Array& list) {
    ErrorPtr error;
    const auto bytes = propertyLists.dataWithPropertyList(list, PropertyListFormat::binary, &error);
    return bytes ? putFile(device, path, *bytes) : error;
}

Result<void> putApp(FileSystem& device, const std::string& identifier, const AppDescription& app) {
    const std::string folder = unfinished + "/" + identifier;
    if (const auto made = makeFolder(device, folder, false); !made) {
        return made;
    }
    const std::optional<Data> info = app.infoPlist;
    const std::string icon = app.iconName.value_or("");
    for (const auto& [name, content] :
         {std::pair("Info.plist", &info), std::pair("TamblinMetadata.plist", &app.metadata),
          std::pair("TamblinArtwork", &app.artwork), std::pair(icon.c_str(), &app.icon)}) {
        if (!content->has_value()) {
            continue;
        }
        if (const auto done = putFile(device, folder + "/" + name, **content); !done) {
            return done;
        }
    }
    return {};
}

/// As many apps at a time as there are cores, so that only the files of these are in memory.
Result<void> putApps(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list) {
    std::vector<ErrorPtr> unreadable(list.installs.size());
    std::vector<Result<void>> staged(list.installs.size());
    std::atomic<bool> hasFailed = false;
    forEachNumber(list.installs.size(), [&](std::size_t number) {
        if (hasFailed) {
            return;
        }
        const AppArchive& app = *list.installs[number];
        const auto description = readAppDescription(app, propertyLists);
        if (!description) {
            unreadable[number] = description.error();
        } else if (staged[number] = putApp(device, app.identifier, *description); !staged[number]) {
            hasFailed = true;
        }
    });
    if (const auto failure = std::ranges::find_if(staged, [](const auto& done) { return !done; });
        failure != staged.end()) {
        return *failure;
    }
    std::vector<const AppArchive*> installs;
    for (std::size_t number = 0; number < list.installs.size(); ++number) {
        if (unreadable[number]) {
            list.failed.push_back({list.installs[number], errorText(unreadable[number])});
        } else {
            installs.push_back(list.installs[number]);
        }
    }
    list.installs = std::move(installs);
    return {};
}

/// Writes the area aside.
Result<void> putAll(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list,
                    const Array& onDevice) {
    if (const auto made = makeFolder(device, unfinished, true); !made) {
        return made;
    }
    if (const auto done = putApps(device, propertyLists, list); !done) {
        return done;
    }
    if (const auto done = putList(device, propertyLists, unfinished + "/ApplicationsSync.plist", toDoRecords(list));
        !done) {
        return done;
    }
    return putList(device, propertyLists, unfinished + "/SkellanIconState.plist", iconLayout(onDevice, list));
}

/// Fills pages with icons, each app's where it comes first.
class Arrangement {
  public:
    explicit Arrangement(const std::vector<std::string>& removed) : _gone(removed.begin(), removed.end()) {}

    /// A page of the device without the apps that go; what has no room on it begins another.
    void addPage(const Value& page) {
        Array places = _remainder(page);
        if (!places.empty()) {
            _endPage();
        }
        for (Value& place : places) {
            _add(std::move(place));
        }
    }
    /// On the last page, unless the app has its place.
    void add(const std::string& identifier) {
        if (_gone.insert(identifier).second) {
            _add(identifier);
        }
    }
    [[nodiscard]] Array pages() && {
        _endPage();
        return std::move(_pages);
    }

  private:
    /// The icons and folders that stay on a page; a folder that nothing is left of goes.
    Array _remainder(const Value& page) {
        Array places;
        for (const Value& place : page.array() ? *page.array() : Array{}) {
            if (const auto identifier = place.string(); identifier && _gone.emplace(*identifier).second) {
                places.emplace_back(place);
            } else if (place.dictionary()) {
                _addFolder(*place.dictionary(), places);
            }
        }
        return places;
    }
    void _addFolder(Dictionary folder, Array& places) {
        Array pages;
        for (const Value& page : folder.array(iconFolderPages) ? *folder.array(iconFolderPages) : Array{}) {
            if (Array icons = _remainder(page); !icons.empty()) {
                pages.emplace_back(std::move(icons));
            }
        }
        if (!pages.empty()) {
            folder.set(iconFolderPages, std::move(pages));
            places.emplace_back(std::move(folder));
        }
    }
    void _add(Value place) {
        if (_page.size() == iconsPerPage) {
            _endPage();
        }
        _page.emplace_back(std::move(place));
    }
    void _endPage() {
        if (!_page.empty()) {
            _pages.emplace_back(std::exchange(_page, {}));
        }
    }

    std::set<std::string> _gone; // the apps that are removed, and those that have their place
    Array _pages;
    Array _page; // the last one
};

} // namespace

Array iconLayout(const Array& onDevice, const SyncList& list) {
    Arrangement arrangement(list.removals);
    for (const Value& page : onDevice) {
        arrangement.addPage(page);
    }
    for (const AppArchive* app : list.installs) {
        arrangement.add(app->identifier);
    }
    return std::move(arrangement).pages();
}

Result<void> writeStagingArea(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list,
                              const Array& onDevice) {
    device.removeItem(unfinished, nullptr);
    if (const auto done = putAll(device, propertyLists, list, onDevice); !done) {
        device.removeItem(unfinished, nullptr);
        return done;
    }
    device.removeItem(paths::stagingArea, nullptr);
    ErrorPtr error;
    return device.moveItem(unfinished, paths::stagingArea, &error) ? Result<void>() : error;
}

} // namespace appsync::desktop
