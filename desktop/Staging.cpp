#include "desktop/Staging.h"

#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"

#include <algorithm>
#include <set>

namespace appsync::desktop {

namespace {

const std::string stagingArea = "/var/mobile/Media/PublicStaging/ApplicationSync";
// Written aside and moved into place whole, so that a sync never finds half of it.
const std::string unfinished = "/var/mobile/Media/PublicStaging/.ApplicationSync.unfinished";

bool put(FileSystem& device, const std::string& path, const Data& bytes, ErrorPtr* error) {
    if (device.createFile(path, bytes.bytes(), {})) {
        return true;
    }
    *error = desktopError("The device does not take '" + path + "'. Is its disk full?", path);
    return false;
}

bool putList(FileSystem& device, PropertyListSerialization& propertyLists, const std::string& path, const Array& list,
             ErrorPtr* error) {
    const auto bytes = propertyLists.dataWithPropertyList(list, PropertyListFormat::binary, error);
    return bytes && put(device, path, *bytes, error);
}

bool putApp(FileSystem& device, const std::string& identifier, const AppDescription& app, ErrorPtr* error) {
    const std::string folder = unfinished + "/" + identifier + "/";
    if (!device.createDirectory(folder.substr(0, folder.size() - 1), false, std::nullopt, error) ||
        !put(device, folder + "Info.plist", app.infoPlist, error)) {
        return false;
    }
    return (!app.metadata || put(device, folder + "TamblinMetadata.plist", *app.metadata, error)) &&
           (!app.artwork || put(device, folder + "TamblinArtwork", *app.artwork, error)) &&
           (!app.icon || put(device, folder + *app.iconName, *app.icon, error));
}

/// One app after the other, so that only one app's files are in memory.
bool putApps(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list, ErrorPtr* error) {
    std::vector<const AppArchive*> staged;
    for (const AppArchive* app : list.installs) {
        const auto description = readAppDescription(*app, propertyLists);
        if (!description) {
            list.failed.push_back({app, errorText(description.error())});
        } else if (putApp(device, app->identifier, *description, error)) {
            staged.push_back(app);
        } else {
            return false;
        }
    }
    list.installs = std::move(staged);
    return true;
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
        if (page.size() == IconsPerPage) {
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

bool writeStagingArea(FileSystem& device, PropertyListSerialization& propertyLists, SyncList& list,
                      const std::vector<std::string>& onDevice, ErrorPtr* error) {
    device.removeItem(unfinished, nullptr);
    const auto write = [&] {
        return device.createDirectory(unfinished, true, std::nullopt, error) &&
               putApps(device, propertyLists, list, error) &&
               putList(device, propertyLists, unfinished + "/ApplicationsSync.plist", toDoRecords(list), error) &&
               putList(device, propertyLists, unfinished + "/SkellanIconState.plist", iconLayout(onDevice, list),
                       error);
    };
    if (!write()) {
        device.removeItem(unfinished, nullptr);
        return false;
    }
    device.removeItem(stagingArea, nullptr);
    return device.moveItem(unfinished, stagingArea, error);
}

} // namespace appsync::desktop
