// The plug-in's own installs, at most ten at once: each holds the home screen off its app while it is replaced, and
// comes back later when the home screen refuses.
#include "plugin/client/AppsClient.h"

#include "platform/HomeScreen.h"
#include "platform/TransactionLog.h"

#include <cerrno>

namespace appsync {

namespace {

constexpr std::chrono::seconds retryDelay{30};

void logAssetInstall(const Platform& platform, bool success, std::string_view identifier,
                     std::string_view description) {
    platform.transactionLog.logScenario_step_success_forBundleID_description("Asset install", TransactionStep::none,
                                                                             success, identifier, description);
}

} // namespace

void AppsClient::_enqueueAssetInstall(const QRAssetPtr& asset) {
    _installGroup.enter();
    auto install = [this, asset] {
        _log.message("Performing install for %{public}@", asset->identifier);
        _performAssetInstall(asset);
        _log.message("Finished install for %{public}@", asset->identifier);
        cleanRestoreStateForIdentifier(asset->identifier);
        _installGroup.leave();
    };
    _log.message("Enqueue install request for %{public}@", asset->identifier);
    if (!_installOperationQueue->addOperation(std::move(install))) {
        _installGroup.leave(); // the client is being torn down
    }
}

void AppsClient::_performAssetInstall(const QRAssetPtr& asset) {
    const std::string& identifier = asset->identifier;
    _log.message("Grabbing assertion for %{public}@", identifier);
    std::uint8_t outcome = SKSTerminationAssertionGranted;
    auto assertion = _platform.homeScreen.SKSApplicationTerminationAssertionCreateWithError(identifier, 0, &outcome);
    switch (outcome) {
    case SKSTerminationAssertionNotFound:
        _log.message("Assertion not found for %{public}@, installing anyway...", identifier);
        logAssetInstall(_platform, true, identifier, "assertion not found");
        break;
    case SKSTerminationAssertionGranted:
        _log.message("Assertion succeeded for %{public}@", identifier);
        logAssetInstall(_platform, true, identifier, "assertion succeeded");
        break;
    case SKSTerminationAssertionDenied:
        _log.error("Assertion denied for %{public}@", identifier);
        logAssetInstall(_platform, true, identifier, "assertion denied");
        assertion = nullptr;
        _log.error("Will retry installation of %{public}@ in %d seconds", identifier,
                   static_cast<int>(retryDelay.count()));
        logAssetInstall(_platform, true, identifier, "retrying asset install");
        // Entered before the present operation leaves, so that the group never counts zero between two attempts.
        _installGroup.enter();
        _pendingRetries.runAfter(retryDelay, [this, asset] {
            _log.error("Re-enqueue installation request for %{public}@", asset->identifier);
            _enqueueAssetInstall(asset);
            _installGroup.leave();
        });
        return;
    default:
        _log.error("Unknown error %d getting assertion for %{public}@", outcome, identifier);
        logAssetInstall(_platform, false, identifier, "unknown error grabbing assertion");
        assetInstallFailed_withError(asset, Error::make(posixErrorDomain, EINVAL));
        assertion = nullptr;
        _platform.files.removeItem(*asset->path, nullptr);
        return;
    }
    const Dictionary options{{PDPackageTypeKey, PDPackageTypeCustomer}, {PDBundleIdentifierKey, identifier}};
    ErrorPtr error;
    const auto url = FileURL::fileURLWithPath(*asset->path, false);
    if (url && _platform.workspaces.defaultWorkspace().installApplication_withOptions_error(*url, options, &error)) {
        assetInstallSucceeded(asset);
    } else {
        assetInstallFailed_withError(asset, error);
    }
    ++_numAppInstallsAttempted;
    assertion = nullptr;
    _platform.files.removeItem(*asset->path, nullptr);
}

} // namespace appsync
