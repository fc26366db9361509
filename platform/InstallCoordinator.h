// The install coordinator: durable coordinators that install one app each, from promises of what they need.
//
// A coordinator belongs to the client that created it and survives its process. It installs the placeholder once that
// is configured, and the app once the app asset promise is complete; one for a demoted app ends with its placeholder.
// An app has one coordinator at a time. One that has ended, with or without success or by a cancel, is not found any
// more and takes nothing more. A failure or a cancel takes the placeholder away and leaves an installed version. A
// restored app whose file a client is responsible for may wait on for a better one after a failure.
//
// Class operations, factories included, stand in the `…Class` interfaces. Every operation may be called on any thread
// at any time; one that fails returns false or null and puts the reason into `error` unless that is null.
#pragma once

#include "platform/InstallationService.h"
#include "values/Error.h"
#include "values/FileURL.h"
#include "values/PropertyList.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

/// Who acts on a coordinator.
using KXClientIdentifier = std::uint64_t;
inline constexpr KXClientIdentifier KXClientCorbin = 1;   // the store client
inline constexpr KXClientIdentifier KXClientSyncHost = 3; // this plug-in

/// A promise of something that an install needs.
class KXPromise {
  public:
    virtual ~KXPromise() = default;
    [[nodiscard]] virtual bool isComplete() noexcept = 0;
    virtual void setPercentComplete(double fraction) noexcept = 0; // 0 to 1; makes nothing complete by itself
    virtual void setComplete(bool complete) noexcept = 0;
    virtual bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                              ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual std::string description() noexcept = 0;
};

/// A promise that a file will stand at a path.
class KXPromisedTransferToPath : public KXPromise {
  public:
    virtual void setTransferPath(const std::optional<FileURL>& path) noexcept = 0;
};
using KXPromisedTransferToPathPtr = std::shared_ptr<KXPromisedTransferToPath>;

/// A promise of something that reaches its place by other means.
class KXPromisedOutOfBandTransfer : public KXPromise {};
using KXPromisedOutOfBandTransferPtr = std::shared_ptr<KXPromisedOutOfBandTransfer>;

/// Facts of a placeholder, from the app's Info dictionary if there is one.
struct KXPlaceholderAttributes {
    std::optional<Dictionary> infoPlist;
    bool launchProhibited = false;
    std::optional<std::string> bundleVersion;

    [[nodiscard]] static KXPlaceholderAttributes init() { return {}; }
    [[nodiscard]] static KXPlaceholderAttributes initWithInfoPlistDictionary(std::optional<Dictionary> dictionary) {
        KXPlaceholderAttributes attributes;
        attributes.infoPlist = std::move(dictionary);
        return attributes;
    }
    void setLaunchProhibited(bool prohibited) { launchProhibited = prohibited; }
    void setBundleVersion(std::optional<std::string> version) { bundleVersion = std::move(version); }
    [[nodiscard]] std::string description() const {
        std::string out = "<launchProhibited=";
        out += launchProhibited ? '1' : '0';
        out += " bundleVersion=" + bundleVersion.value_or("(null)") + " infoPlist=";
        return out + (infoPlist ? Value(*infoPlist) : Value()).description() + ">";
    }
};

/// The promise of a placeholder: installed by its coordinator when its configuration is complete.
class KXPlaceholder {
  public:
    virtual ~KXPlaceholder() = default;
    virtual bool setPlaceholderAttributes_error(const KXPlaceholderAttributes& attributes,
                                                ErrorPtr* error) noexcept = 0;
    virtual bool setMetadata_error(const std::optional<TVStoreMetadata>& metadata, ErrorPtr* error) noexcept = 0;
    virtual bool setSinfData_error(const Data& sinf, ErrorPtr* error) noexcept = 0;
    virtual bool setIconPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept = 0;
    virtual bool setConfigurationCompleteWithError(ErrorPtr* error) noexcept = 0;
    virtual bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                              ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual std::string description() noexcept = 0;
};
using KXPlaceholderPtr = std::shared_ptr<KXPlaceholder>;

class KXAppInstallObserverDelegate;

class KXAppInstallCoordinator {
  public:
    virtual ~KXAppInstallCoordinator() = default;
    [[nodiscard]] virtual std::optional<std::string> bundleID() noexcept = 0;
    /// Why the coordinator has failed or was cancelled, or could not install the last file; null while it has not.
    [[nodiscard]] virtual ErrorPtr error() noexcept = 0;
    [[nodiscard]] virtual KXClientIdentifier creatorIdentifier() noexcept = 0;
    /// Names the object that follows this coordinator; it must outlive the coordinator's work in this process. Its
    /// calls come through the process's `KXAppInstallObserver`.
    virtual void setObserver(KXAppInstallObserverDelegate* observer) noexcept = 0;

    [[nodiscard]] virtual bool hasInstallOptions() noexcept = 0;
    virtual bool setInstallOptions_error(const TVInstallOptions& options, ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual bool hasInitialODRAssetPromises() noexcept = 0;
    virtual bool setInitialODRAssetPromises_error(const std::vector<KXPromisedTransferToPathPtr>& promises,
                                                  ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual bool hasAppAssetPromise() noexcept = 0;
    [[nodiscard]] virtual KXPromisedTransferToPathPtr appAssetPromiseWithError(ErrorPtr* error) noexcept = 0;
    /// Takes one promise; null and a second one are refused.
    virtual bool setAppAssetPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual bool hasPlaceholderPromise() noexcept = 0;
    /// Whether a null placeholder is taken is the service's to decide; there is none afterwards.
    virtual bool setPlaceholderPromise_error(const KXPlaceholderPtr& placeholder, ErrorPtr* error) noexcept = 0;
    virtual bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                              ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual std::string description() noexcept = 0;
};
using KXAppInstallCoordinatorPtr = std::shared_ptr<KXAppInstallCoordinator>;

/// Installs an app that is not there yet.
class KXInitiatingAppInstallCoordinator : public KXAppInstallCoordinator {};

/// Replaces an installed app.
class KXUpdatingAppInstallCoordinator : public KXAppInstallCoordinator {};

/// Brings an offloaded app's placeholder back after a restore.
class KXRestoringDemotedAppInstallCoordinator : public KXAppInstallCoordinator {
  public:
    [[nodiscard]] virtual bool hasUserDataPromise() noexcept = 0;
    virtual bool setUserDataPromise_error(const KXPromisedOutOfBandTransferPtr& promise, ErrorPtr* error) noexcept = 0;
};

/// Brings an app back after a restore.
class KXRestoringAppInstallCoordinator : public KXAppInstallCoordinator {
  public:
    [[nodiscard]] virtual bool hasUserDataPromise() noexcept = 0;
    virtual bool setUserDataPromise_error(const KXPromisedOutOfBandTransferPtr& promise, ErrorPtr* error) noexcept = 0;
    /// The client that is to satisfy the app asset promise; 0 when none is named.
    [[nodiscard]] virtual KXClientIdentifier appAssetPromiseResponsibleClientWithError(ErrorPtr* error) noexcept = 0;
    virtual bool setAppAssetPromiseResponsibleClient_error(KXClientIdentifier client, ErrorPtr* error) noexcept = 0;
};

/// Called on threads of the coordinator's service: about one app one call at a time, in the order of what happened to
/// it, about several at once. Every operation is optional.
class KXAppInstallObserverDelegate {
  public:
    virtual ~KXAppInstallObserverDelegate() = default;
    virtual void coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    virtual void coordinatorShouldResume(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    virtual void coordinatorShouldPause(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    virtual void coordinator_configuredPromiseDidBeginFulfillment(const KXAppInstallCoordinatorPtr& /*coordinator*/,
                                                                  std::uint64_t /*promise*/) noexcept {}
    virtual void coordinatorShouldBeginRestoringUserData(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    virtual void coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    /// The coordinator has ended; its `error` says how.
    virtual void coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& /*coordinator*/) noexcept {}
    /// Somebody else than the client that created the coordinator has cancelled it.
    virtual void coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& /*coordinator*/,
                                                       const ErrorPtr& /*reason*/,
                                                       KXClientIdentifier /*client*/) noexcept {}
    virtual void shouldPrioritizeAppWithBundleID(std::string_view /*bundleID*/) noexcept {}
    virtual void promiseDidBeginFulfillmentWithIdentifier(std::uint64_t /*promise*/) noexcept {}
};

/// A connection to the coordinator's observer service. Dropping it closes the connection: it returns after a running
/// call of the delegate has ended, and none follows.
class KXAppInstallObserver {
  public:
    virtual ~KXAppInstallObserver() = default;
};

/// The service that reports on coordinators.
inline constexpr std::string_view observerServiceName = "com.zuvex.qrd.kpc.icappobserverdelegate";

class KXAppInstallObserverClass {
  public:
    virtual ~KXAppInstallObserverClass() = default;
    /// Reports on the coordinators that the named clients created. The delegate must outlive the connection; null when
    /// there is none.
    [[nodiscard]] virtual std::shared_ptr<KXAppInstallObserver>
    initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                const std::set<KXClientIdentifier>& clients,
                                                KXAppInstallObserverDelegate* delegate) noexcept = 0;
};

/// The class operations that every kind of coordinator has.
template <class Coordinator> class KXCoordinatorClass {
  public:
    virtual ~KXCoordinatorClass() = default;
    /// The app's coordinator of this kind, whoever created it; with `createIfNotExisting` a new one of `client` when
    /// the app has none (`*created` tells, unless null), and an error when it has one of another kind. Without, null
    /// and no error when there is none of this kind.
    [[nodiscard]] virtual std::shared_ptr<Coordinator>
    coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(std::string_view bundleID,
                                                                                 KXClientIdentifier client,
                                                                                 bool createIfNotExisting,
                                                                                 bool* created,
                                                                                 ErrorPtr* error) noexcept = 0;
};
using KXInitiatingAppInstallCoordinatorClass = KXCoordinatorClass<KXInitiatingAppInstallCoordinator>;
using KXUpdatingAppInstallCoordinatorClass = KXCoordinatorClass<KXUpdatingAppInstallCoordinator>;
using KXRestoringAppInstallCoordinatorClass = KXCoordinatorClass<KXRestoringAppInstallCoordinator>;
using KXRestoringDemotedAppInstallCoordinatorClass = KXCoordinatorClass<KXRestoringDemotedAppInstallCoordinator>;

/// Looks up coordinators of any kind; asked to create one, it fails.
class KXAppInstallCoordinatorClass : public KXCoordinatorClass<KXAppInstallCoordinator> {
  public:
    /// Whether installs on this device go through coordinators.
    [[nodiscard]] virtual bool coordinationIsEnabled() noexcept = 0;
    /// Takes an install back and waits for it: ends the app's coordinator and removes its placeholder. An installed
    /// version stays. False, with an error, when the app has neither.
    virtual bool uninstallAppWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept = 0;
    /// Uninstalls an app with its placeholder and coordinator. Returns at once; `completion` runs once, on a thread of
    /// the service, with an error (also when nothing was there) or null.
    virtual void uninstallAppWithBundleID_requestUserConfirmation_completion(
        std::string_view bundleID, bool requestUserConfirmation,
        std::function<void(const ErrorPtr& error)> completion) noexcept = 0;
};

// Factories; each returns null when it fails. Disk space is in bytes.

class KXPlaceholderClass {
  public:
    virtual ~KXPlaceholderClass() = default;
    [[nodiscard]] virtual KXPlaceholderPtr
    initAppPlaceholderWithBundleName_bundleID_installType_client(std::string_view bundleName, std::string_view bundleID,
                                                                 std::uint64_t installType,
                                                                 KXClientIdentifier client) noexcept = 0;
};

class KXPromisedTransferToPathClass {
  public:
    virtual ~KXPromisedTransferToPathClass() = default;
    [[nodiscard]] virtual KXPromisedTransferToPathPtr
    initWithName_client_transferPath_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                     const FileURL& transferPath,
                                                     std::uint64_t diskSpaceNeeded) noexcept = 0;
    [[nodiscard]] virtual KXPromisedTransferToPathPtr
    initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                        std::uint64_t diskSpaceNeeded) noexcept = 0;
};

class KXPromisedOutOfBandTransferClass {
  public:
    virtual ~KXPromisedOutOfBandTransferClass() = default;
    [[nodiscard]] virtual KXPromisedOutOfBandTransferPtr
    initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                        std::uint64_t diskSpaceNeeded) noexcept = 0;
};

} // namespace appsync
