#include "host/session/DeletedApps.h"

#include "device/Device.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Places.h"

#include <algorithm>

namespace appsync::host {

std::vector<std::string> deletedApps(const Dictionary& installedAssets) {
    std::vector<std::string> identifiers;
    const Value* deleted = installedAssets.find("_Deleted");
    for (const Value& app : deleted && deleted->array() ? *deleted->array() : Array{}) {
        if (app.dictionary()) {
            identifiers.emplace_back(app.dictionary()->string("BXBundleIdentifier").value_or(""));
        }
    }
    std::ranges::sort(identifiers);
    return identifiers;
}

Result<void> writeLastSyncApps(device::Device& device) {
    Array identifiers;
    for (const device::Application& app : device.registry().applications()) {
        if (app.isInstalled) {
            identifiers.emplace_back(app.identifier);
        }
    }
    ErrorPtr error;
    const auto bytes = device.propertyLists().dataWithPropertyList(identifiers, PropertyListFormat::binary, &error);
    if (bytes) {
        device.files().writeFileAtomically(paths::lastSyncAppState, bytes->bytes(), &error);
    }
    return error;
}

} // namespace appsync::host
