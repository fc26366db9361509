#include "device/registry/ApplicationWorkspace.h"

#include "archive/InstallerError.h"

namespace appsync::device {

namespace {

constexpr std::string_view restoreListPrefix = "restore.";

std::optional<std::uint64_t> installTypeIn(const Dictionary& options) {
    const Value* type = options.find(PDInstallTypeKey);
    return type ? type->unsignedInteger() : std::nullopt;
}

} // namespace

void ApplicationWorkspace::letReturn(std::string_view bundleIdentifier) {
    const Lock lock(_mutex);
    _returning.emplace(bundleIdentifier);
}

bool ApplicationWorkspace::_isListed(const RegistryRecord& record) {
    const Lock lock(_mutex);
    return !record.isDemoted() || !_returning.contains(record.identifier);
}

void ApplicationWorkspace::_begin(std::string_view bundleIdentifier) {
    const Lock lock(_mutex);
    _underWay.emplace(bundleIdentifier);
}

/// The app's install is not under way any more; whether it was.
bool ApplicationWorkspace::_end(std::string_view bundleIdentifier) {
    const Lock lock(_mutex);
    return _underWay.erase(std::string(bundleIdentifier)) > 0;
}

void ApplicationWorkspace::addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _registry.announcer().addObserver(observer);
}

void ApplicationWorkspace::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _registry.announcer().removeObserver(observer);
}

bool ApplicationWorkspace::applicationIsInstalled(std::string_view bundleIdentifier) noexcept {
    return _registry.table().find(bundleIdentifier).isKnown();
}

bool ApplicationWorkspace::installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                                ErrorPtr* error) noexcept {
    const auto package = options.string(PDPackageTypeKey);
    const std::string identifier(options.string(PDBundleIdentifierKey).value_or(""));
    _begin(identifier);
    if (package == PDPackageTypePlaceholder) {
        PlaceholderRequest request;
        request.identifier = identifier;
        request.bundlePath = url.path();
        request.installType = installTypeIn(options).value_or(PDInstallTypeNone);
        request.metadata = options.data(PDTamblinMetadataKey);
        request.sinf = options.data(PDApplicationSINFKey);
        return hasSucceeded(_registry.installPlaceholder(request), error);
    }
    if (package == PDPackageTypeCustomer) {
        ArchiveRequest request;
        request.archivePath = url.path();
        request.identifier = identifier;
        request.installType = installTypeIn(options);
        request.metadata = options.data(PDTamblinMetadataKey);
        request.sinf = options.data(PDApplicationSINFKey);
        const auto installed = _registry.installArchive(request);
        if (installed) {
            _end(identifier);
        }
        return hasSucceeded(installed, error);
    }
    return hasSucceeded(Result<void>(makeInstallerError(
                            InstallerError::invalidRequest,
                            "cannot install " + url.path() + ": the options name no known package type", url.path())),
                        error);
}

bool ApplicationWorkspace::installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept {
    return installApplication_withOptions_error(url, options, nullptr);
}

bool ApplicationWorkspace::uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                                            const Dictionary* options) noexcept {
    const bool isTakenBack = _end(bundleIdentifier);
    const bool placeholdersOnly = isTakenBack || (options && options->truth(PDUninstallPlaceholdersOnlyKey));
    const auto removed =
        _registry.uninstall(bundleIdentifier, RemovalReason::sync,
                            placeholdersOnly ? RemovalScope::placeholderOnly : RemovalScope::placeholderElseApp);
    if (!removed && _log && !isError(removed.error(), TVInstallerErrorDomain, InstallerError::nothingToRemove)) {
        _log->write(QRLogCategoryFramework, LogLevel::error, "%{public}@", errorText(removed.error()));
    }
    return bool(removed);
}

FNProgressPtr ApplicationWorkspace::installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                            std::uint64_t phase) noexcept {
    if (!application) {
        return nullptr;
    }
    const std::string identifier = application->bundleIdentifier();
    _begin(identifier);
    return _registry.progress(identifier, phase);
}

void ApplicationWorkspace::installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept {
    _registry.phaseFinished(progress);
}

void ApplicationWorkspace::enumerateBundlesOfType_block(
    std::uint64_t type, const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept {
    if (type != PDBundleTypeAll && type != PDBundleTypeInstalled && type != PDBundleTypeSystem) {
        return;
    }
    bool stop = false;
    for (const RegistryTable::App& app : _registry.table().all()) {
        const bool isSystem = app.main()->isSystem;
        if ((type == PDBundleTypeInstalled && isSystem) || (type == PDBundleTypeSystem && !isSystem)) {
            continue;
        }
        // On the home screen an app has one icon, whether or not an update is under way; everywhere else its
        // placeholder counts by itself.
        const bool hasOneIcon = type == PDBundleTypeInstalled && app.installed;
        for (const RegistryRecordPtr& record : {app.installed, hasOneIcon ? nullptr : app.placeholder}) {
            if (record && !stop && _isListed(*record)) {
                const bool isListedApart =
                    !_coordinationIsEnabled && record->isPlaceholder && record->installType == PDInstallTypeRestore;
                block(_registry.proxy(record, isListedApart ? restoreListPrefix : ""), stop);
            }
        }
    }
}

PDApplicationProxyPtr ApplicationWorkspace::applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                                      bool placeholder) noexcept {
    const auto app = _registry.table().find(bundleIdentifier);
    const RegistryRecordPtr& record = placeholder && app.placeholder ? app.placeholder : app.installed;
    return record ? _registry.proxy(record) : nullptr;
}

} // namespace appsync::device
