// Readying a coordinator for an app that is to come: install options, promises, and a placeholder with its icon.
#include "plugin/client/AppsClient.h"

#include "platform/FileSystem.h"
#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"
#include "plugin/coordination/Coordination.h"
#include "plugin/placeholders/PlaceholderBundle.h"

namespace appsync {

namespace {

/// One coordinated install: what it is prepared from, and what its preparation has obtained so far.
class InstallPreparation {
  public:
    InstallPreparation(AppsClient& client, const Platform& platform, const PlugInLog& log, const QRAsset& asset)
        : _client(client), _platform(platform), _log(log), _bundleIdentifier(asset.identifier),
          _displayName(asset.prettyName), _version(asset.version()),
          _iconPath(asset.icon ? std::optional(asset.icon->path()) : std::nullopt),
          _infoPlist(readDictionary(platform, asset.infoPlist)),
          _launchProhibited(_infoPlist && _infoPlist->truth("PDApplicationLaunchProhibited")),
          _storePlist(readDictionary(platform, asset.storePlist)) {}
    bool run(bool existingApp);

  private:
    bool _prepareCoordinator(bool existingApp);
    bool _setInstallOptions();
    bool _setInitialODRAssetPromises();
    bool _setPlaceholderPromise();
    std::uint64_t _copyIcon(const std::string& destination);
    void _configurePlaceholder();
    void _cancel();

    AppsClient& _client;
    const Platform& _platform;
    const PlugInLog& _log;
    const std::string _bundleIdentifier;
    const std::optional<std::string> _displayName;
    const std::optional<std::string> _version;
    const std::optional<std::string> _iconPath;
    const std::optional<Dictionary> _infoPlist;
    const bool _launchProhibited;
    const std::optional<Dictionary> _storePlist;

    KXAppInstallCoordinatorPtr _coordinator;
    KXPlaceholderPtr _placeholder;
    std::optional<TVStoreMetadata> _storeMetadata; // made only when the coordinator needs install options
    ErrorPtr _error;                               // the last one that a service reported
};

bool InstallPreparation::run(bool existingApp) {
    _log.oversize("processing app install for bundle '%{public}@', title %{public}@ assetplist %{public}@, version "
                  "%{public}@ with install coordination",
                  _bundleIdentifier, _displayName, _infoPlist, _version);
    coordination::logStep(_platform.transactionLog, TransactionStep::installOrUpdate, TransactionPhase::start, true,
                          _bundleIdentifier, existingApp ? "Update app" : "Install App");

    const bool prepared = _prepareCoordinator(existingApp);

    _log.message("processing app install for bundle %{public}@ finished with status %d error %{public}@",
                 _bundleIdentifier, prepared, _error);
    coordination::logStep(_platform.transactionLog, TransactionStep::installOrUpdate, TransactionPhase::end, prepared,
                          _bundleIdentifier, "Install app");
    if (!prepared) {
        _cancel();
    }
    return prepared;
}

bool InstallPreparation::_prepareCoordinator(bool existingApp) {
    if (_displayName.value_or("").empty() && _bundleIdentifier.empty()) {
        return false;
    }
    _coordinator =
        _client._initiatingOrUpdatingAppInstallCoordinatorForBundleIdentifier_existingApp_createIfNotExisting_error(
            _bundleIdentifier, existingApp, true, &_error);
    if (!_coordinator) {
        return false;
    }
    _coordinator->setObserver(&_client);
    if (!_setInstallOptions() || !_setInitialODRAssetPromises()) {
        return false;
    }
    if (_coordinator->hasAppAssetPromise()) {
        _log.message("coordinator for %{public}@ has an app asset promise", _bundleIdentifier);
    } else {
        _client._createAppAssetPromiseForBundleIdentifier_atPath_andAddToCoordinatinator(_bundleIdentifier,
                                                                                         std::nullopt, _coordinator);
    }
    if (_coordinator->hasPlaceholderPromise()) {
        _log.message("coordinator for %{public}@ has a placeholder promise", _bundleIdentifier);
        return true;
    }
    return _setPlaceholderPromise();
}

bool InstallPreparation::_setInstallOptions() {
    if (_coordinator->hasInstallOptions()) {
        _log.message("coordinator for %{public}@ has install options", _bundleIdentifier);
        return true;
    }
    if (_storePlist) {
        _storeMetadata = TVStoreMetadata{*_storePlist};
    }
    TVInstallOptions options;
    options.setTamblinMetadata(_storeMetadata);
    options.setRegistryInstallType(PDInstallTypeSync);
    options.setInstallTargetType(coordination::installTargetType);
    if (!_coordinator->setInstallOptions_error(options, &_error)) {
        _log.error("Error %{public}@ setting install options on coordinator for '%{public}@'", _error,
                   _bundleIdentifier);
        return false;
    }
    _log.message("set install options on coordinator for %{public}@", _bundleIdentifier);
    return true;
}

bool InstallPreparation::_setInitialODRAssetPromises() {
    if (_coordinator->hasInitialODRAssetPromises()) {
        _log.message("coordinator for %{public}@ has an ODR app asset promise", _bundleIdentifier);
        return true;
    }
    if (!_coordinator->setInitialODRAssetPromises_error({}, &_error)) {
        _log.error("Error %{public}@ setting ODR asset promise for '%{public}@'", _error, _bundleIdentifier);
        return false;
    }
    _log.message("set ODR asset promise to install coordinator for %{public}@", _bundleIdentifier);
    return true;
}

bool InstallPreparation::_setPlaceholderPromise() {
    const std::string directory = _client.placeholderAppPathForBundleIdentifier(_bundleIdentifier);
    const std::string iconPath = paths::join(directory, "Icon.png");
    std::uint64_t iconSize = 0;
    if (_client.createPlaceHolderPath_forBundleIdentifier_withAttributes(directory, _bundleIdentifier,
                                                                         placeholderBundle::attributes) &&
        _iconPath) {
        iconSize = _copyIcon(iconPath);
    }
    _placeholder = _client._placeHolderForBundleIdentifier_name_installType(
        _bundleIdentifier, _displayName.value_or(_bundleIdentifier), PDInstallTypeSync);
    const bool iconIsPromised =
        _placeholder && iconSize > 0 &&
        _client._createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
            _bundleIdentifier, iconPath, iconSize, _placeholder, true);
    if (_placeholder && (iconSize == 0 || iconIsPromised)) {
        _configurePlaceholder();
    }
    if (!_coordinator->setPlaceholderPromise_error(_placeholder, &_error)) {
        _log.error("Error %{public}@ adding placeholder promise to coordinator for '%{public}@'", _error,
                   _bundleIdentifier);
        return false;
    }
    _log.message("added placeholder promise to coordinator for %{public}@", _bundleIdentifier);
    return true;
}

/// Copies the icon into the placeholder's directory; the size of the copy in bytes, 0 when there is none.
std::uint64_t InstallPreparation::_copyIcon(const std::string& destination) {
    coordination::logStep(_platform.transactionLog, TransactionStep::iconCopy, TransactionPhase::start, true,
                          _bundleIdentifier, "Copying icon");
    std::uint64_t size = 0;
    ErrorPtr error;
    if (_platform.files.copyItem(*_iconPath, destination, &error)) {
        const auto copy = _platform.files.attributesOfItem(destination, &error);
        size = copy ? copy->size : 0;
        _log.message("icon for %{public}@ at %{public}@ has a size of %llu", _bundleIdentifier, destination, size);
    }
    if (error) {
        _error = error;
    }
    _log.message("Copied icon from %{public}@ to %{public}@ with error %{public}@ for '%{public}@', sizeOnDisk:%llu",
                 *_iconPath, destination, error, _bundleIdentifier, size);
    coordination::logStep(_platform.transactionLog, TransactionStep::iconCopy, TransactionPhase::end, true,
                          _bundleIdentifier, "Copying icon");
    return size;
}

/// Sets attributes, store metadata and completion, up to the first that fails.
void InstallPreparation::_configurePlaceholder() {
    auto attributes = KXPlaceholderAttributes::initWithInfoPlistDictionary(_infoPlist);
    attributes.setLaunchProhibited(_launchProhibited);
    attributes.setBundleVersion(_version);
    if (!_placeholder->setPlaceholderAttributes_error(attributes, &_error)) {
        _log.error("Error %{public}@ setting attributes on placeholder for '%{public}@'", _error, _bundleIdentifier);
        return;
    }
    _log.message("set %{public}@ attributes on placeholder for %{public}@", attributes, _bundleIdentifier);
    if (!_placeholder->setMetadata_error(_storeMetadata, &_error)) {
        _log.error("Error %{public}@ setting store metadata on placeholder for '%{public}@'", _error,
                   _bundleIdentifier);
        return;
    }
    _log.message("set store metadata on placeholder for %{public}@", _bundleIdentifier);
    if (!_placeholder->setConfigurationCompleteWithError(&_error)) {
        _log.error("Error %{public}@ setting placeholder configuration as complete for '%{public}@'", _error,
                   _bundleIdentifier);
        return;
    }
    _log.message("set placeholder configuration as complete for %{public}@", _bundleIdentifier);
}

void InstallPreparation::_cancel() {
    const ErrorPtr reason = coordination::cancellation(QRErrorCode::installPreparationFailed);
    if (_placeholder) {
        _log.message("Cancelling placeholder for appBundleIdentifier:%{public}@", _bundleIdentifier);
        _placeholder->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
    if (_coordinator) {
        _log.message("Cancelling coordinator for appBundleIdentifier:%{public}@", _bundleIdentifier);
        _coordinator->cancelForReason_client_error(reason, KXClientSyncHost, nullptr);
    }
}

} // namespace

bool AppsClient::prepareAppForInstallUsingCoordination_existingApp(const QRAssetPtr& asset, bool existingApp) {
    return InstallPreparation(*this, _platform, _log, *asset).run(existingApp);
}

} // namespace appsync
