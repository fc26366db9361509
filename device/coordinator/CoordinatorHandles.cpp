// What the clients of the install coordinator hold, and the services that hand it out. Each handle stands for a
// coordinator, placeholder or promise; several may stand for the same one.
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"

namespace appsync::device {

namespace {

/// What all promise handles have beside their interface.
class PromiseHolder {
  public:
    PromiseHolder(InstallCoordinator& coordinator, PromisePtr promise)
        : _coordinator(coordinator), _promise(std::move(promise)) {}
    virtual ~PromiseHolder() = default;
    [[nodiscard]] const PromisePtr& promise() const noexcept { return _promise; }

  protected:
    InstallCoordinator& _coordinator;
    const PromisePtr _promise;
};

template <class Interface> class PromiseHandle : public Interface, public PromiseHolder {
  public:
    using PromiseHolder::PromiseHolder;

    bool isComplete() noexcept override { return _promise->isComplete(); }
    void setPercentComplete(double fraction) noexcept override { _coordinator.setFraction(*_promise, fraction); }
    void setComplete(bool complete) noexcept override {
        if (complete) {
            _coordinator.complete(*_promise);
        }
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.cancel(*_promise, reason, client), error);
    }
    std::string description() noexcept override {
        return "<promise " + std::to_string(_promise->record().id) + " " + _promise->name() + ">";
    }
};

class TransferPromiseHandle final : public PromiseHandle<KXPromisedTransferToPath> {
  public:
    using PromiseHandle::PromiseHandle;

    void setTransferPath(const std::optional<FileURL>& path) noexcept override {
        _promise->setPath(path ? std::optional(path->path()) : std::nullopt);
    }
};

/// Null for null, and for an object that this device did not make.
PromisePtr promiseBehind(const std::shared_ptr<KXPromise>& handle) {
    const auto holder = std::dynamic_pointer_cast<PromiseHolder>(handle);
    return holder ? holder->promise() : nullptr;
}

class PlaceholderHandle final : public KXPlaceholder {
  public:
    PlaceholderHandle(InstallCoordinator& coordinator, PlaceholderPtr placeholder)
        : _coordinator(coordinator), _placeholder(std::move(placeholder)) {}

    bool setPlaceholderAttributes_error(const KXPlaceholderAttributes& attributes, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) {
            facts.infoPlist = attributes.infoPlist;
            facts.launchProhibited = attributes.launchProhibited;
            facts.bundleVersion = attributes.bundleVersion;
            return Result<void>();
        });
    }
    bool setMetadata_error(const std::optional<TVStoreMetadata>& metadata, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) -> Result<void> {
            auto bytes = _coordinator.metadataBytes(metadata);
            if (!bytes) {
                return bytes.error();
            }
            facts.metadata = std::move(*bytes);
            return {};
        });
    }
    bool setSinfData_error(const Data& sinf, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) {
            facts.sinf = sinf;
            return Result<void>();
        });
    }
    bool setIconPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        const PromisePtr icon = promiseBehind(promise);
        return _change(error, [&](PlaceholderFacts& facts) -> Result<void> {
            if (!icon || facts.icon || !icon->take(PromiseRole::icon)) {
                return makeCoordinatorError(CoordinatorError::alreadySet,
                                            "the icon promise for " + _placeholder->bundleID +
                                                " is null or in use already, or there is one already");
            }
            facts.icon = icon;
            return {};
        });
    }
    bool setConfigurationCompleteWithError(ErrorPtr* error) noexcept override {
        return _change(error, [](PlaceholderFacts& facts) {
            facts.isConfigured = true;
            return Result<void>();
        });
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.cancel(_placeholder, reason, client), error);
    }
    std::string description() noexcept override {
        return "<placeholder \"" + _placeholder->bundleName + "\" for " + _placeholder->bundleID + ">";
    }
    [[nodiscard]] const PlaceholderPtr& placeholder() const noexcept { return _placeholder; }

  private:
    bool _change(ErrorPtr* error, const std::function<Result<void>(PlaceholderFacts&)>& change) {
        return hasSucceeded(_coordinator.changePlaceholder(_placeholder, change), error);
    }

    InstallCoordinator& _coordinator;
    const PlaceholderPtr _placeholder;
};

/// Likewise.
PlaceholderPtr placeholderBehind(const KXPlaceholderPtr& handle) {
    const auto known = std::dynamic_pointer_cast<PlaceholderHandle>(handle);
    return known ? known->placeholder() : nullptr;
}

/// The operations that every kind of coordinator has.
template <class Interface> class CoordinatorHandle : public Interface {
  public:
    CoordinatorHandle(InstallCoordinator& coordinator, CoordinatorStatePtr state)
        : _coordinator(coordinator), _state(std::move(state)) {}

    std::optional<std::string> bundleID() noexcept override { return _state->bundleID; }
    ErrorPtr error() noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) {
            return _state->cancelReason ? _state->cancelReason : _state->facts.error;
        });
    }
    KXClientIdentifier creatorIdentifier() noexcept override { return _state->creator; }
    void setObserver(KXAppInstallObserverDelegate* observer) noexcept override { _state->observer = observer; }

    bool hasInstallOptions() noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->facts.options.has_value(); });
    }
    bool setInstallOptions_error(const TVInstallOptions& options, ErrorPtr* error) noexcept override {
        return _change(error, [&](CoordinatorFacts& facts) -> Result<void> {
            auto metadata = _coordinator.metadataBytes(options.tamblinMetadata);
            if (!metadata) {
                return metadata.error();
            }
            facts.options = InstallOptionsRecord{options.registryInstallType, options.installTargetType,
                                                 std::move(*metadata), options.sinfData};
            return {};
        });
    }
    bool hasInitialODRAssetPromises() noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->facts.hasODRPromises; });
    }
    bool setInitialODRAssetPromises_error(const std::vector<KXPromisedTransferToPathPtr>& promises,
                                          ErrorPtr* error) noexcept override {
        return _change(error, [&](CoordinatorFacts& facts) -> Result<void> {
            facts.hasODRPromises = true;
            return promises.empty() ? ErrorPtr()
                                    : makeCoordinatorError(CoordinatorError::unsupported,
                                                           "this device has no on-demand resources; give none for " +
                                                               _state->bundleID);
        });
    }
    bool hasAppAssetPromise() noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->asset != nullptr; });
    }
    KXPromisedTransferToPathPtr appAssetPromiseWithError(ErrorPtr* /*error*/) noexcept override {
        const PromisePtr promise = _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->asset; });
        return promise ? std::make_shared<TransferPromiseHandle>(_coordinator, promise) : nullptr;
    }
    bool setAppAssetPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.attachPromise(_state, promiseBehind(promise), PromiseRole::appAsset), error);
    }
    bool hasPlaceholderPromise() noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->placeholder != nullptr; });
    }
    bool setPlaceholderPromise_error(const KXPlaceholderPtr& placeholder, ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.attachPlaceholder(_state, placeholderBehind(placeholder)), error);
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.cancel(_state, reason, client), error);
    }
    std::string description() noexcept override {
        return "<" + std::string(nameOf(_state->kind)) + " coordinator for " + _state->bundleID + ", client " +
               std::to_string(_state->creator) + ">";
    }

  protected:
    bool _change(ErrorPtr* error, const std::function<Result<void>(CoordinatorFacts&)>& change) {
        return hasSucceeded(_coordinator.change(_state, change), error);
    }

    InstallCoordinator& _coordinator;
    const CoordinatorStatePtr _state;
};

template <class Interface> class UserDataCoordinatorHandle : public CoordinatorHandle<Interface> {
  public:
    using CoordinatorHandle<Interface>::CoordinatorHandle;

    bool hasUserDataPromise() noexcept override {
        return this->_coordinator.read([this]()
                                           REQUIRES(coordinatorStates) { return this->_state->userData != nullptr; });
    }
    bool setUserDataPromise_error(const KXPromisedOutOfBandTransferPtr& promise, ErrorPtr* error) noexcept override {
        return hasSucceeded(
            this->_coordinator.attachPromise(this->_state, promiseBehind(promise), PromiseRole::userData), error);
    }
};

class RestoringCoordinatorHandle final : public UserDataCoordinatorHandle<KXRestoringAppInstallCoordinator> {
  public:
    using UserDataCoordinatorHandle::UserDataCoordinatorHandle;

    KXClientIdentifier appAssetPromiseResponsibleClientWithError(ErrorPtr* /*error*/) noexcept override {
        return _coordinator.read([this]() REQUIRES(coordinatorStates) { return _state->facts.responsibleClient; });
    }
    bool setAppAssetPromiseResponsibleClient_error(KXClientIdentifier client, ErrorPtr* error) noexcept override {
        return _change(error, [&](CoordinatorFacts& facts) {
            facts.responsibleClient = client;
            return Result<void>();
        });
    }
};

KXAppInstallCoordinatorPtr makeHandle(InstallCoordinator& coordinator, const CoordinatorStatePtr& state) {
    switch (state->kind) {
    case CoordinatorKind::initiating:
        return std::make_shared<CoordinatorHandle<KXInitiatingAppInstallCoordinator>>(coordinator, state);
    case CoordinatorKind::updating:
        return std::make_shared<CoordinatorHandle<KXUpdatingAppInstallCoordinator>>(coordinator, state);
    case CoordinatorKind::restoring: return std::make_shared<RestoringCoordinatorHandle>(coordinator, state);
    case CoordinatorKind::restoringDemoted:
        return std::make_shared<UserDataCoordinatorHandle<KXRestoringDemotedAppInstallCoordinator>>(coordinator, state);
    }
    return nullptr;
}

/// A service that the coordinator does the work of.
template <class Interface> class OnCoordinator : public Interface {
  public:
    explicit OnCoordinator(InstallCoordinator& coordinator) : _coordinator(coordinator) {}

  protected:
    InstallCoordinator& _coordinator;
};

/// The lookups of one kind of coordinator.
template <class Coordinator, CoordinatorKind Kind>
class KindClass final : public OnCoordinator<KXCoordinatorClass<Coordinator>> {
  public:
    using OnCoordinator<KXCoordinatorClass<Coordinator>>::OnCoordinator;

    std::shared_ptr<Coordinator> coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view bundleID, KXClientIdentifier client, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override {
        bool isNew = false;
        CoordinatorStatePtr state;
        if (createIfNotExisting) {
            auto found = this->_coordinator.findOrCreate(bundleID, Kind, client, isNew);
            if (!hasSucceeded(found, error)) {
                return nullptr;
            }
            state = *found;
        } else {
            state = this->_coordinator.find(bundleID);
        }
        if (created) {
            *created = isNew;
        }
        return state && state->kind == Kind
                   ? std::static_pointer_cast<Coordinator>(makeHandle(this->_coordinator, state))
                   : nullptr;
    }
};

class BaseClass final : public OnCoordinator<KXAppInstallCoordinatorClass> {
  public:
    BaseClass(InstallCoordinator& coordinator, bool isEnabled) : OnCoordinator(coordinator), _isEnabled(isEnabled) {}

    KXAppInstallCoordinatorPtr coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view bundleID, KXClientIdentifier /*client*/, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override {
        if (created) {
            *created = false;
        }
        if (const auto state = _coordinator.find(bundleID)) {
            return makeHandle(_coordinator, state);
        }
        if (createIfNotExisting && error) {
            *error =
                makeCoordinatorError(CoordinatorError::noKind, "there is no coordinator for " + std::string(bundleID) +
                                                                   "; create one with the class of its kind");
        }
        return nullptr;
    }
    bool coordinationIsEnabled() noexcept override { return _isEnabled; }
    bool uninstallAppWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept override {
        return hasSucceeded(_coordinator.remove(bundleID, RemovalReason::sync, RemovalScope::placeholderOnly), error);
    }
    void uninstallAppWithBundleID_requestUserConfirmation_completion(
        std::string_view bundleID, bool requestUserConfirmation,
        std::function<void(const ErrorPtr& error)> completion) noexcept override {
        if (!requestUserConfirmation) {
            _coordinator.uninstallInBackground(bundleID, std::move(completion));
            return;
        }
        _coordinator.runAfterReports(
            bundleID, [completion = std::move(completion), identifier = std::string(bundleID)] {
                completion(makeCoordinatorError(CoordinatorError::unsupported,
                                                "nobody can be asked on this device whether to uninstall " +
                                                    identifier + "; uninstall it without a confirmation"));
            });
    }

  private:
    const bool _isEnabled;
};

class PlaceholderFactory final : public OnCoordinator<KXPlaceholderClass> {
  public:
    using OnCoordinator::OnCoordinator;

    KXPlaceholderPtr
    initAppPlaceholderWithBundleName_bundleID_installType_client(std::string_view bundleName, std::string_view bundleID,
                                                                 std::uint64_t installType,
                                                                 KXClientIdentifier /*client*/) noexcept override {
        if (bundleID.empty()) {
            return nullptr;
        }
        auto placeholder = std::make_shared<PlaceholderState>();
        placeholder->bundleName = bundleName.empty() ? bundleID : bundleName;
        placeholder->bundleID = bundleID;
        placeholder->installType = installType;
        return std::make_shared<PlaceholderHandle>(_coordinator, placeholder);
    }
};

class TransferFactory final : public OnCoordinator<KXPromisedTransferToPathClass> {
  public:
    using OnCoordinator::OnCoordinator;

    KXPromisedTransferToPathPtr
    initWithName_client_transferPath_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                     const FileURL& transferPath,
                                                     std::uint64_t diskSpaceNeeded) noexcept override {
        return std::make_shared<TransferPromiseHandle>(
            _coordinator, _coordinator.makePromise(name, client, diskSpaceNeeded, transferPath.path()));
    }
    KXPromisedTransferToPathPtr initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                                    std::uint64_t diskSpaceNeeded) noexcept override {
        return std::make_shared<TransferPromiseHandle>(
            _coordinator, _coordinator.makePromise(name, client, diskSpaceNeeded, std::nullopt));
    }
};

class OutOfBandFactory final : public OnCoordinator<KXPromisedOutOfBandTransferClass> {
  public:
    using OnCoordinator::OnCoordinator;

    KXPromisedOutOfBandTransferPtr
    initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                        std::uint64_t diskSpaceNeeded) noexcept override {
        return std::make_shared<PromiseHandle<KXPromisedOutOfBandTransfer>>(
            _coordinator, _coordinator.makePromise(name, client, diskSpaceNeeded, std::nullopt));
    }
};

} // namespace

struct InstallCoordinator::Classes {
    InstallCoordinator& coordinator;
    const bool coordinationIsEnabled;

    BaseClass coordinators{coordinator, coordinationIsEnabled};
    KindClass<KXInitiatingAppInstallCoordinator, CoordinatorKind::initiating> initiating{coordinator};
    KindClass<KXUpdatingAppInstallCoordinator, CoordinatorKind::updating> updating{coordinator};
    KindClass<KXRestoringAppInstallCoordinator, CoordinatorKind::restoring> restoring{coordinator};
    KindClass<KXRestoringDemotedAppInstallCoordinator, CoordinatorKind::restoringDemoted> restoringDemoted{coordinator};
    PlaceholderFactory placeholders{coordinator};
    TransferFactory transfers{coordinator};
    OutOfBandFactory outOfBand{coordinator};
};

KXAppInstallCoordinatorPtr InstallCoordinator::_handleOf(const CoordinatorStatePtr& state) {
    return makeHandle(*this, state);
}

void InstallCoordinator::_makeClasses(bool coordinationIsEnabled) {
    _classes.reset(new Classes{*this, coordinationIsEnabled});
}

CoordinatorClasses InstallCoordinator::classes() noexcept {
    return {_classes->coordinators, _classes->initiating,       _classes->updating,
            _classes->restoring,    _classes->restoringDemoted, _classes->placeholders,
            _classes->transfers,    _classes->outOfBand,        _observers};
}

} // namespace appsync::device
