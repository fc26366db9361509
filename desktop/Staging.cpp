#include "desktop/Staging.h"

#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Places.h"

#include <algorithm>
#include <set>

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

/// One app after the other, so that only one app's files are in memory.
Result<void> putApps(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list) {
    std::vector<const AppArchive*> staged;
    for (const AppArchive* app : list.installs) {
        const auto description = readAppDescription(*app, propertyLists);
        if (!description) {
            list.failed.push_back({app, errorText(description.error())});
            continue;
        }
        if (const auto done = putApp(device, app->identifier, *description); !done) {
            return done;
        }
        staged.push_back(app);
    }
    list.installs = std::move(staged);
    return {};
}

/// Writes the area aside.
Result<void> putAll(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list,
                    const std::vector<std::string>& onDevice) {
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

} // namespace

Array iconLayout(const std::vector<std::string>& onDevice, const SyncList& list) {
    const std::set<std::string> removed(list.removals.begin(), list.removals.end());
    std::set<std::string> placed;
    Array pages;
    Array page;
    const auto place = [&](const std::string& identifier) {
        if (removed.contains(identifier) || !placed.insert(identifier).second) {
            return;
        }
        page.emplace_back(identifier);
        if (page.size() == iconsPerPage) {
            pages.emplace_back(std::move(page));
            page = {};
        }
    };
    std::ranges::for_each(onDevice, place);
    for (const AppArchive* app : list.installs) {
        place(app->identifier);
    }
    if (!page.empty()) {
        pages.emplace_back(std::move(page));
    }
    return pages;
}

Result<void> writeStagingArea(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list,
                              const std::vector<std::string>& onDevice) {
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
