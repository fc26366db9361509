// What is done with an app beyond its install: it is launched or demoted, comes back, and gets its data.
#include "archive/AppInArchive.h"
#include "archive/InstallerError.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/processes/ProcessTable.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/screen/AppBundles.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "device/services/DemotedApps.h"
#include "platform/PropertyListSerialization.h"

namespace appsync::device {

namespace {

Result<PlaceholderRequest> placeholderOf(DeviceFileSystem& files, const Application& app, bool isAutomatic) {
    auto metadata = files.readIfThere(app.containerPath + "/" + std::string(metadataFileName));
    auto sinf = files.readIfThere(app.containerPath + "/" + std::string(sinfFileName));
    if (!metadata || !sinf) { // they go with the app
        return makeInstallerError(InstallerError::failed, "cannot demote " + app.identifier + ": " +
                                                              errorText(metadata ? sinf.error() : metadata.error()));
    }
    PlaceholderRequest request;
    request.identifier = app.identifier;
    request.info.set("BXBundleDisplayName", app.name);
    if (app.version) {
        request.info.set("BXBundleVersion", *app.version);
    }
    request.iconPath = app.iconPath;
    request.installType = isAutomatic ? PDInstallTypeDowngrade : PDInstallTypeIntentionalDowngrade;
    request.metadata = std::move(*metadata);
    request.sinf = std::move(*sinf);
    request.isSystem = app.isSystem;
    request.replacesApp = true;
    return request;
}

/// Puts the lists right: of the expected apps, those that are demoted or were until they began to come back, and no
/// installed one.
void settle(DemotionLists& lists, const std::set<std::string>& expected, const std::vector<Application>& apps) {
    for (std::set<std::string>* list : {&lists.automatic, &lists.intentional}) {
        std::erase_if(*list, [&](const std::string& identifier) { return !expected.contains(identifier); });
    }
    for (const Application& app : apps) {
        const auto demotion = app.isDemoted() ? app.installType : app.demotion;
        if (app.isInstalled) {
            lists.take(app.identifier);
        } else if (demotion && !lists.contains(app.identifier)) {
            lists.put(app.identifier, *demotion == PDInstallTypeDowngrade);
        }
    }
}

} // namespace

Result<pid_t> Device::launch(std::string_view identifier, bool busy) {
    const auto refuse = [&](ProcessError code, const std::string& reason) {
        return makeProcessError(code, identifier, reason);
    };
    const auto app = _registry->application(identifier);
    if (!app || !app->isInstalled) {
        return refuse(ProcessError::notInstalled, "the device has no such app");
    }
    AppBundle bundle(files(), *_propertyLists, app->bundlePath);
    if (const auto prohibited = bundle.objectForInfoDictionaryKey("PDApplicationLaunchProhibited");
        prohibited && prohibited->truth().value_or(false)) {
        return refuse(ProcessError::prohibited, "its Info.plist prohibits that");
    }
    const auto executable = bundle.executableName();
    if (!executable) {
        return refuse(ProcessError::noExecutable, "its Info.plist names no executable");
    }
    ErrorPtr error;
    if (!files().createDirectory(app->dataContainerPath, true, std::nullopt, &error)) {
        return error;
    }
    const auto program = _root->realPath(app->bundlePath + "/" + *executable);
    const auto data = _root->realPath(app->dataContainerPath);
    if (!program || !data) {
        return refuse(ProcessError::cannotBeStarted, errorText(program ? data.error() : program.error()));
    }
    return _processes->launch(
        {.identifier = app->identifier, .executable = *program, .dataFolder = *data, .busy = busy});
}

Result<void> Device::demote(const std::string& identifier, bool isAutomatic) {
    const auto app = registry().application(identifier);
    if (!app || (!app->isDemoted() && (!app->isInstalled || app->isPlaceholder))) {
        const std::string reason = !app ? "the device has no such app" : "it is on its way; wait until it is installed";
        return makeInstallerError(InstallerError::invalidRequest, "cannot demote " + identifier + ": " + reason);
    }
    std::uint8_t outcome = SKSTerminationAssertionGranted;
    const auto held = homeScreen().SKSApplicationTerminationAssertionCreateWithError(identifier, 0, &outcome);
    if (outcome == SKSTerminationAssertionDenied) {
        return makeError(processErrorDomain, static_cast<std::int64_t>(ProcessError::inUse),
                         identifier + " is in use and cannot be ended now; close it and try again");
    }
    const auto placeholder = placeholderOf(files(), *app, isAutomatic);
    if (!placeholder) {
        return placeholder.error();
    }
    // First the list: one that names an installed app is put right when the device is opened.
    if (auto listed = demotedApps().change([&](DemotionLists& lists) { lists.put(identifier, isAutomatic); });
        !listed) {
        return listed;
    }
    auto demoted = registry().installPlaceholder(*placeholder);
    if (!demoted && app->isInstalled) {
        _passOver(demotedApps().change([&](DemotionLists& lists) { lists.take(identifier); }));
    }
    return demoted;
}

void Device::letReturn(const std::string& identifier) {
    _workspace->letReturn(identifier);
}

/// A failure after which the operation goes on: what was not done is done when the device is next opened.
void Device::_passOver(const Result<void>& done) {
    if (!done) {
        _log->write(QRLogCategoryFramework, LogLevel::error, "%{public}@", errorText(done.error()));
    }
}

/// What is kept for an app goes with it.
void Device::_followRegistry() {
    const auto isNotDemoted = [this](std::string_view identifier) {
        _passOver(_demotedApps->change([&](DemotionLists& lists) { lists.take(std::string(identifier)); }));
    };
    _registry->follow(
        {.demotion =
             [this](std::string_view identifier) { return _demotedApps->installTypeOf(std::string(identifier)); },
         .wasInstalled = isNotDemoted,
         .isGone =
             [this, isNotDemoted](std::string_view identifier) {
                 isNotDemoted(identifier);
                 _giveUpData(identifier);
             }});
}

/// Of the data that waits for an app, if any does.
void Device::_giveUpData(std::string_view identifier) {
    const auto cancelled = _backup->cancelRestore(identifier);
    if (!isError(cancelled.error(), backupErrorDomain, BackupError::nothingToCancel)) {
        _passOver(cancelled);
    }
}

/// The process may have ended when an app came, went or was demoted, before its data was put in place or given up and
/// the list of demoted apps was written; that list may have been damaged, too.
void Device::_settleApps() {
    std::set<std::string> onTheirWay;
    for (const OpenCoordinator& open : _coordinator->openCoordinators()) {
        onTheirWay.insert(open.bundleID);
    }
    const auto apps = _registry->applications();
    std::set<std::string> expected = onTheirWay;
    for (const Application& app : apps) {
        expected.insert(app.identifier);
    }
    _passOver(_demotedApps->change([&](DemotionLists& lists) { settle(lists, expected, apps); }));
    const auto waiting = _backup->restoreData();
    if (!waiting) {
        _passOver(waiting.error());
    }
    for (const RestoreData& data : waiting ? *waiting : std::vector<RestoreData>()) {
        if (!expected.contains(data.bundleID)) {
            _giveUpData(data.bundleID);
            continue;
        }
        const auto app = _registry->application(data.bundleID);
        const bool isThere = app && ((app->isInstalled && !app->isPlaceholder) || app->isDemoted());
        if (isThere && !onTheirWay.contains(data.bundleID) && !_processes->isRunning(data.bundleID)) {
            _passOver(_backup->restoreApplicationData(data.bundleID));
        }
    }
}

} // namespace appsync::device
