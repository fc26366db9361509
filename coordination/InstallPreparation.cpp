// Readying a coordinator for an app that is to come: install options, promises, and a placeholder with its icon.
#include "coordination/InstallPreparation.h"

#include "client/AppsClient.h"
#include "client/Paths.h"
#include "coordination/Coordination.h"
#include "platform/TransactionLog.h"

namespace appsync {

namespace {

constexpr std::uint32_t installTargetType = 1;
const FileAttributes mobileAttributes{"mobile", "mobile"};

} // namespace

bool AppsClient::prepareAppForInstallUsingCoordination_existingApp(const QRAssetPtr& asset, bool existingApp) {
    InstallPreparation app(*asset);
    app.infoPlist = _dictionaryAtPath(asset->infoPlist);
    app.launchProhibited = app.infoPlist && app.infoPlist->truth("PDApplicationLaunchProhibited");
    app.storePlist = _dictionaryAtPath(asset->storePlist);
    _log.oversize("processing app install for bundle '%{public}@', title %{public}@ assetplist %{public}@, version "
                  "%{public}@ with install coordination",
                  app.bundleIdentifier, app.displayName, app.infoPlist, app.version);
    _logStep(TransactionStep::installOrUpdate, TransactionPhase::start, true, app.bundleIdentifier,
             existingApp ? "Update app" : "Install App");

    const bool prepared = _prepareCoordinator(app, existingApp);

    _log.message("processing app install for bundle %{public}@ finished with status %d error %{public}@",
                 app.bundleIdentifier, prepared, app.error);
    _logStep(TransactionStep::installOrUpdate, TransactionPhase::end, prepared, app.bundleIdentifier, "Install app");
    if (!prepared) {
        _cancelPreparation(app);
    }
    return prepared;
}

bool AppsClient::_prepareCoordinator(InstallPreparation& app, bool existingApp) {
    if (app.displayName.value_or("").empty() && app.bundleIdentifier.empty()) {
        return false;
    }
    app.coordinator =
        _initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
            app.bundleIdentifier, existingApp, true, &app.error);
    if (app.coordinator == nullptr) {
        return false;
    }
    app.coordinator->setObserver(this);
    if (!_setInstallOptions(app) || !_setInitialODRAssetPromises(app)) {
        return false;
    }
    if (app.coordinator->hasAppAssetPromise()) {
        _log.message("coordinator for %{public}@ has an app asset promise", app.bundleIdentifier);
    } else {
        _createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(app.bundleIdentifier, std::nullopt,
                                                                                 app.coordinator);
    }
    if (app.coordinator->hasPlaceholderPromise()) {
        _log.message("coordinator for %{public}@ has a placeholder promise", app.bundleIdentifier);
        return true;
    }
    return _setPlaceholderPromise(app);
}

bool AppsClient::_setInstallOptions(InstallPreparation& app) {
    if (app.coordinator->hasInstallOptions()) {
        _log.message("coordinator for %{public}@ has install options", app.bundleIdentifier);
        return true;
    }
    if (app.storePlist) {
        app.storeMetadata = TVStoreMetadata{*app.storePlist};
    }
    TVInstallOptions options;
    options.setTamblinMetadata(app.storeMetadata);
    options.setRegistryInstallType(PDInstallTypeSync);
    options.setInstallTargetType(installTargetType);
    if (!app.coordinator->setInstallOptions_error(options, &app.error)) {
        _log.error("Error %{public}@ setting install options on coordinator for '%{public}@'", app.error,
                   app.bundleIdentifier);
        return false;
    }
    _log.message("set install options on coordinator for %{public}@", app.bundleIdentifier);
    return true;
}

bool AppsClient::_setInitialODRAssetPromises(InstallPreparation& app) {
    if (app.coordinator->hasInitialODRAssetPromises()) {
        _log.message("coordinator for %{public}@ has an ODR app asset promise", app.bundleIdentifier);
        return true;
    }
    if (!app.coordinator->setInitialODRAssetPromises_error({}, &app.error)) {
        _log.error("Error %{public}@ setting ODR asset promise for '%{public}@'", app.error, app.bundleIdentifier);
        return false;
    }
    _log.message("set ODR asset promise to install coordinator for %{public}@", app.bundleIdentifier);
    return true;
}

bool AppsClient::_setPlaceholderPromise(InstallPreparation& app) {
    const std::string& bundleIdentifier = app.bundleIdentifier;
    const std::string directory = placeholderAppPathForBundleIdentifier(bundleIdentifier);
    const std::string iconPath = paths::join(directory, "Icon.png");
    std::uint64_t iconSize = 0;
    if (createPlaceHolderPath_forBundleIdentifier_withAttributes(directory, bundleIdentifier, mobileAttributes) &&
        app.iconPath) {
        iconSize = _copyIcon(app, iconPath);
    }
    app.placeholder = _placeHolderForBundleIdentifier_name_installType(
        bundleIdentifier, app.displayName.value_or(bundleIdentifier), PDInstallTypeSync);
    const bool iconIsPromised =
        app.placeholder != nullptr && iconSize > 0 &&
        _createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
            bundleIdentifier, iconPath, iconSize, app.placeholder, true) != nullptr;
    if (app.placeholder != nullptr && (iconSize == 0 || iconIsPromised)) {
        _configurePlaceholder(app);
    }
    if (!app.coordinator->setPlaceholderPromise_error(app.placeholder, &app.error)) {
        _log.error("Error %{public}@ adding placeholder promise to coordinator for '%{public}@'", app.error,
                   bundleIdentifier);
        return false;
    }
    _log.message("added placeholder promise to coordinator for %{public}@", bundleIdentifier);
    return true;
}

/// Copies the icon into the placeholder's directory; the size of the copy in bytes, 0 when there is none.
std::uint64_t AppsClient::_copyIcon(InstallPreparation& app, const std::string& destination) {
    const std::string& bundleIdentifier = app.bundleIdentifier;
    _logStep(TransactionStep::iconCopy, TransactionPhase::start, true, bundleIdentifier, "Copying icon");
    std::uint64_t size = 0;
    ErrorPtr error;
    if (_platform.files.copyItem(*app.iconPath, destination, &error)) {
        const auto copy = _platform.files.attributesOfItem(destination, &error);
        size = copy ? copy->size : 0;
        _log.message("icon for %{public}@ at %{public}@ has a size of %llu", bundleIdentifier, destination, size);
    }
    if (error != nullptr) {
        app.error = error;
    }
    _log.message("Copied icon from %{public}@ to %{public}@ with error %{public}@ for '%{public}@', sizeOnDisk:%llu",
                 *app.iconPath, destination, error, bundleIdentifier, size);
    _logStep(TransactionStep::iconCopy, TransactionPhase::end, true, bundleIdentifier, "Copying icon");
    return size;
}

/// Sets attributes, store metadata and completion, up to the first that fails.
void AppsClient::_configurePlaceholder(InstallPreparation& app) {
    auto attributes = KXPlaceholderAttributes::initWithInfoPlistDictionary(app.infoPlist);
    attributes.setLaunchProhibited(app.launchProhibited);
    attributes.setBundleVersion(app.version);
    if (!app.placeholder->setPlaceholderAttributes_error(attributes, &app.error)) {
        _log.error("Error %{public}@ setting attributes on placeholder for '%{public}@'", app.error,
                   app.bundleIdentifier);
        return;
    }
    _log.message("set %{public}@ attributes on placeholder for %{public}@", attributes, app.bundleIdentifier);
    if (!app.placeholder->setMetadata_error(app.storeMetadata, &app.error)) {
        _log.error("Error %{public}@ setting store metadata on placeholder for '%{public}@'", app.error,
                   app.bundleIdentifier);
        return;
    }
    _log.message("set store metadata on placeholder for %{public}@", app.bundleIdentifier);
    if (!app.placeholder->setConfigurationCompleteWithError(&app.error)) {
        _log.error("Error %{public}@ setting placeholder configuration as complete for '%{public}@'", app.error,
                   app.bundleIdentifier);
        return;
    }
    _log.message("set placeholder configuration as complete for %{public}@", app.bundleIdentifier);
}

void AppsClient::_cancelPreparation(const InstallPreparation& app) {
    const ErrorPtr reason = coordination::cancellation(QRErrorCode::installPreparationFailed);
    if (app.placeholder != nullptr) {
        _log.message("Cancelling placeholder for appBundleIdentifier:%{public}@", app.bundleIdentifier);
        app.placeholder->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
    if (app.coordinator != nullptr) {
        _log.message("Cancelling coordinator for appBundleIdentifier:%{public}@", app.bundleIdentifier);
        app.coordinator->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
}

} // namespace appsync
