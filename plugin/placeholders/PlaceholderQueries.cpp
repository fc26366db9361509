// Which placeholders the application registry holds.
#include "plugin/client/AppsClient.h"

namespace appsync {

bool AppsClient::_placeholderExistsForApplication(std::string_view bundleIdentifier) {
    if (_useInstallCoordinator) {
        return false;
    }
    bool found = false;
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeInstalled, [&](const PDApplicationProxyPtr& application, bool& stop) {
            if (application->bundleIdentifier() == bundleIdentifier) {
                found = true;
                _log.message("Found placeholder for bundle %{public}@", bundleIdentifier);
                stop = true;
            }
        });
    return found;
}

void AppsClient::_enumeratePlaceholdersWithBlock(
    const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) {
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeAll, [&](const PDApplicationProxyPtr& application, bool& stop) {
            if (application->appState().isPlaceholder) {
                block(application, stop);
            }
        });
}

std::set<std::string> AppsClient::_getSystemAppPlaceholders() {
    std::set<std::string> placeholders;
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeSystem, [&](const PDApplicationProxyPtr& application, bool& /*stop*/) {
            if (application->appState().isPlaceholder) {
                placeholders.insert(application->bundleIdentifier());
            }
        });
    _log.message("SystemAppPlaceholders %{public}@", placeholders);
    return placeholders;
}

} // namespace appsync
