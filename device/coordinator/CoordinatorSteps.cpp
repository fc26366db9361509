// What the steps of an install do outside of the coordinator's own state: registry, files, home screen.
#include "archive/InstallerError.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "device/root/DeviceFileSystem.h"
#include "device/root/Paths.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace appsync::device {

namespace {

constexpr std::int64_t progressUnits = 1000;

bool isBelow(std::string_view path, std::string_view folder) {
    return path.starts_with(folder) && path.substr(folder.size()).starts_with('/') &&
           path.find("/../") == std::string_view::npos && !path.ends_with("/..");
}

/// Whether a file that came to a coordinator belongs to it: it stands where files are received or made for one.
bool isOwned(const std::string& path) {
    return isBelow(path, "/var/mobile") || isBelow(path, temporaryFolder);
}

/// What a path names (S_IFREG and so on), a link as such; zero when nothing is there.
mode_t kindOf(DeviceFileSystem& files, const std::string& path) {
    const auto item = files.open(path, O_PATH | O_NOFOLLOW);
    struct stat information {};
    return item && ::fstat(item->get(), &information) == 0 ? information.st_mode & S_IFMT : 0;
}

/// Removes a file that belongs to a coordinator; a folder is never a transferred file.
void removeOwnedFile(DeviceFileSystem& files, const std::string& path) {
    const mode_t kind = isOwned(path) ? kindOf(files, path) : 0;
    if (kind != 0 && kind != S_IFDIR) {
        files.removeItem(path, nullptr);
    }
}

/// The Info dictionary of a placeholder's bundle.
Dictionary placeholderInfo(const std::string& bundleName, const PlaceholderFacts& facts) {
    Dictionary info = facts.infoPlist.value_or(Dictionary{});
    info.set("BXBundleDisplayName", bundleName);
    if (facts.bundleVersion) {
        info.set("BXBundleVersion", *facts.bundleVersion);
    }
    if (facts.icon) {
        info.set("BXBundleIconFile", "Icon.png");
    } else {
        info.erase("BXBundleIconFile"); // it names a file of the app that the placeholder does not have
    }
    info.set("PDApplicationLaunchProhibited", facts.launchProhibited);
    return info;
}

} // namespace

Result<void> InstallCoordinator::_installPlaceholder(const PlaceholderState& placeholder,
                                                     const PlaceholderFacts& facts) {
    const auto known = _services.registry.application(placeholder.bundleID);
    PlaceholderRequest request;
    request.identifier = placeholder.bundleID;
    request.info = placeholderInfo(placeholder.bundleName, facts);
    if (facts.icon) {
        request.iconPath = facts.icon->record().path;
        request.sharesIcon =
            request.iconPath && isOwned(*request.iconPath) && kindOf(_services.files, *request.iconPath) == S_IFREG;
    }
    request.installType = placeholder.installType;
    request.metadata = facts.metadata;
    request.sinf = facts.sinf;
    request.isSystem = known && known->isSystem;
    return _services.registry.installPlaceholder(request);
}

Result<void> InstallCoordinator::_installApp(const CoordinatorState& state, const InstallOptionsRecord& options,
                                             const PromiseRecord& asset) {
    if (!asset.path || !_services.files.fileExists(*asset.path)) {
        return makeCoordinatorError(CoordinatorError::fileMissing,
                                    "the file that was to be installed for " + state.bundleID +
                                        " is not there; transfer the app again",
                                    asset.path.value_or(""));
    }
    ArchiveRequest request;
    request.archivePath = *asset.path;
    request.identifier = state.bundleID;
    request.installType = options.registryInstallType;
    request.metadata = options.metadata;
    request.sinf = options.sinf;
    request.cancel = state.stop.get_token(); // the registry itself shows how far the install is
    return _services.registry.installArchive(request);
}

/// Whether a restored app whose file is gone is there: an earlier process installed it, and could not write that down.
bool InstallCoordinator::_hasComeEarlier(const CoordinatorState& state, const ErrorPtr& error) const {
    return isError(error, coordinatorErrorDomain, CoordinatorError::fileMissing) && isRestoring(state.kind) &&
           _services.registry.isInstalled(state.bundleID);
}

Result<void> InstallCoordinator::_restoreUserData(const CoordinatorState& state) {
    return isRestoring(state.kind) ? _services.restoreUserData(state.bundleID) : Result<void>();
}

/// Shows how much of the app's file has arrived; does nothing as long as the app has no placeholder.
void InstallCoordinator::_showTransfer(const CoordinatorState& state, double fraction) {
    if (state.kind == CoordinatorKind::restoringDemoted) {
        return;
    }
    const FNProgressPtr progress = _services.registry.progress(state.bundleID, PDInstallPhaseLoading);
    if (!progress || progress->installPhase() != PDInstallPhaseLoading) {
        return;
    }
    progress->setInstallState(fraction > 0 ? PDInstallStateActive : PDInstallStateWaiting);
    if (progress->totalUnitCount() != progressUnits) {
        progress->setTotalUnitCount(progressUnits);
    }
    progress->setCompletedUnitCount(static_cast<std::int64_t>(fraction * progressUnits));
}

/// Removes what a coordinator whose outcome is fixed leaves behind.
void InstallCoordinator::_clearAway(const CoordinatorState& state) {
    CoordinatorFacts facts;
    PromisePtr asset;
    PromisePtr icon;
    {
        const StatesLock lock(_mutex);
        facts = state.facts;
        asset = state.asset;
        icon = state.placeholder ? state.placeholder->facts.icon : nullptr;
    }
    const bool hasFailed = facts.error != nullptr;
    if (facts.cancelledBy == KXClientPerson) {
        _services.registry.cancelInstall(state.bundleID);
    } else if (hasFailed && facts.isPlaceholderInstalled) {
        const auto removed =
            _services.registry.uninstall(state.bundleID, RemovalReason::sync, RemovalScope::placeholderOnly);
        if (!isError(removed.error(), TVInstallerErrorDomain, InstallerError::nothingToRemove)) {
            _passOver(state, removed); // a person may have removed it meanwhile
        }
    }
    if (hasFailed && isRestoring(state.kind) && !_services.registry.application(state.bundleID)) {
        _services.giveUpUserData(state.bundleID);
    }
    if (asset) {
        _removeAsset(asset);
    }
    _removeIcon(icon);
}

void InstallCoordinator::_removeAsset(const PromisePtr& asset) {
    if (asset->isComplete()) {
        removeOwnedFile(_services.files, asset->record().path.value_or(""));
    }
}

/// Removes the icon file, and in the temporary directory the folder that held nothing else.
void InstallCoordinator::_removeIcon(const PromisePtr& icon) {
    if (!icon || !icon->isComplete()) {
        return;
    }
    const std::string path = icon->record().path.value_or("");
    removeOwnedFile(_services.files, path);
    const std::string folder = path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
    if (!isBelow(folder, temporaryFolder)) {
        return;
    }
    const auto left = _services.files.list(folder);
    if (left && left->empty()) {
        _services.files.removeItem(folder, nullptr);
    }
}

/// Fails when a coordinator of an earlier process cannot go on, unless its next step will say why.
Result<void> InstallCoordinator::_checkAfterRestart(const CoordinatorState& state) const {
    const bool needsPlaceholder = state.facts.isPlaceholderInstalled && !(state.asset && state.asset->isComplete());
    if (!needsPlaceholder || _services.registry.hasPlaceholder(state.bundleID)) {
        return {};
    }
    return makeCoordinatorError(CoordinatorError::placeholderMissing,
                                "the placeholder of " + state.bundleID +
                                    " has disappeared while the device was off; begin its install again");
}

/// That there was a coordinator to end is enough: it need not have come as far as its placeholder.
Result<void> InstallCoordinator::remove(std::string_view bundleID, RemovalReason reason, RemovalScope scope) {
    const auto state = find(bundleID);
    Result<void> ended;
    if (state) {
        const auto error = makeCoordinatorError(CoordinatorError::uninstalled,
                                                state->bundleID + " was uninstalled while it was being installed");
        ended = cancel(state, error, reason == RemovalReason::person ? KXClientPerson : state->creator);
    }
    auto removed = _services.registry.uninstall(bundleID, reason, scope);
    const bool wasNothing = isError(removed.error(), TVInstallerErrorDomain, InstallerError::nothingToRemove);
    return state && wasNothing ? ended : removed;
}

void InstallCoordinator::uninstallInBackground(std::string_view bundleID,
                                               std::function<void(const ErrorPtr&)> completion) {
    _busy.enter();
    _workers.addOperation([this, identifier = std::string(bundleID), completion = std::move(completion)] {
        const auto removed = remove(identifier, RemovalReason::sync, RemovalScope::everything);
        _observers.run(identifier, [completion, error = removed.error()] { completion(error); });
        _busy.leave();
    });
}

} // namespace appsync::device
