#include "host/session/Leftovers.h"

#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/root/Paths.h"
#include "device/services/StoreClient.h"
#include "host/transfer/Transfer.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Places.h"

#include <set>
#include <string>

namespace appsync::host {

namespace {

std::string joined(std::string_view folder, std::string_view name) {
    return std::string(folder).append("/").append(name);
}

/// Whether the app is still to be restored; the plug-in may not have come to forget one that is there.
bool isAwaited(device::Device& device, std::string_view identifier) {
    const auto app = device.registry().application(identifier);
    return app && app->isPlaceholder;
}

/// The paths that the plug-in will ask for again: root[identifier][version]["path"].
std::set<std::string> rememberedPaths(device::Device& device) {
    std::set<std::string> remembered;
    const auto bytes = device.files().readFile(paths::restoreState, nullptr);
    const auto root = bytes ? device.propertyLists().propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
    if (!root || !root->dictionary()) {
        return remembered;
    }
    for (const auto& [identifier, versions] : *root->dictionary()) {
        if (!versions.dictionary() || !isAwaited(device, identifier)) {
            continue;
        }
        for (const auto& [version, properties] : *versions.dictionary()) {
            if (properties.dictionary()) {
                remembered.emplace(properties.dictionary()->string("path").value_or(""));
            }
        }
    }
    return remembered;
}

/// The report of the sync will point at the log.
void logFailure(device::Device& device, const Result<void>& done) {
    if (!done) {
        device.log().write(QRLogCategoryFramework, LogLevel::error, "%{public}@", errorText(done.error()));
    }
}

/// The plug-in never asks again for an app that has a placeholder of its own making.
void clearPlaceholders(device::Device& device, const Apps& waiting) {
    for (const device::Application& app : device.registry().applications()) {
        if (app.isPlaceholder && app.installType == PDInstallTypeSync && !waiting.contains(app.identifier)) {
            logFailure(device, device.registry().uninstall(app.identifier, device::RemovalReason::sync,
                                                           device::RemovalScope::placeholderOnly));
        }
    }
}

void takeBack(device::Device& device, const Apps& apps) {
    for (const std::string& app : apps) {
        ErrorPtr error;
        device.coordinator().classes().coordinators.uninstallAppWithBundleID_error(app, &error);
        logFailure(device, error);
    }
}

} // namespace

void clearPlaceholderBundles(device::Device& device) {
    std::set<std::string> inUse;
    for (const device::OpenCoordinator& coordinator : device.coordinator().openCoordinators()) {
        inUse.insert(coordinator.bundleID + ".app");
    }
    const std::string folder = joined(device::temporaryFolder, paths::placeholdersFolderName);
    const auto names = device.files().list(folder);
    for (const std::string& name : names ? *names : std::vector<std::string>()) {
        if (!inUse.contains(name)) {
            device.files().removeItem(joined(folder, name), nullptr);
        }
    }
}

void clearReceivedFiles(device::Device& device, const GoingOn& goingOn) {
    const auto remembered = rememberedPaths(device);
    const std::string folder = receivedFolder();
    const auto names = device.files().list(folder);
    for (const std::string& name : names ? *names : std::vector<std::string>()) {
        if (const std::string path = joined(folder, name);
            !remembered.contains(path) && !goingOn.archives.contains(name)) {
            device.files().removeItem(path, nullptr);
        }
    }
}

void clearLeftovers(device::Device& device, const GoingOn& goingOn, const Apps& takenBack) {
    clearReceivedFiles(device, goingOn);
    if (device.coordinationIsEnabled()) {
        takeBack(device, takenBack);
    }
    clearPlaceholderBundles(device);
    if (!device.coordinationIsEnabled()) {
        clearPlaceholders(device, goingOn.waiting);
        (void)device.store().refreshReceipts(); // the plug-in asks for it at the end of a sync that has installed
    }
}

} // namespace appsync::host
