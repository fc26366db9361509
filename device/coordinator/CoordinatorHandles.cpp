#include "device/coordinator/CoordinatorHandles.h"

#include "device/coordinator/CoordinatorError.h"

namespace appsync::device {

namespace {

/// What all promise handles have beside their interface.
class PromiseHolder {
  public:
    PromiseHolder(CoordinatorEngine& engine, PromisePtr promise) : _engine(engine), _promise(std::move(promise)) {}
    virtual ~PromiseHolder() = default;
    [[nodiscard]] const PromisePtr& promise() const noexcept { return _promise; }

  protected:
    CoordinatorEngine& _engine;
    const PromisePtr _promise;
};

template <class Interface> class PromiseHandle : public Interface, public PromiseHolder {
  public:
    using PromiseHolder::PromiseHolder;

    bool isComplete() noexcept override { return _promise->isComplete(); }
    void setPercentComplete(double fraction) noexcept override { _engine.setFraction(*_promise, fraction); }
    void setComplete(bool complete) noexcept override {
        if (complete) {
            _engine.complete(*_promise);
        }
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.cancel(*_promise, reason, client), error);
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
    PlaceholderHandle(CoordinatorEngine& engine, PlaceholderPtr placeholder)
        : _engine(engine), _placeholder(std::move(placeholder)) {}

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
            auto bytes = _engine.metadataBytes(metadata);
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
        return hasSucceeded(_engine.cancel(_placeholder, reason, client), error);
    }
    std::string description() noexcept override {
        return "<placeholder \"" + _placeholder->bundleName + "\" for " + _placeholder->bundleID + ">";
    }
    [[nodiscard]] const PlaceholderPtr& placeholder() const noexcept { return _placeholder; }

  private:
    bool _change(ErrorPtr* error, const std::function<Result<void>(PlaceholderFacts&)>& change) {
        return hasSucceeded(_engine.changePlaceholder(_placeholder, change), error);
    }

    CoordinatorEngine& _engine;
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
    CoordinatorHandle(CoordinatorEngine& engine, CoordinatorStatePtr state)
        : _engine(engine), _state(std::move(state)) {}

    std::optional<std::string> bundleID() noexcept override { return _state->bundleID; }
    ErrorPtr error() noexcept override {
        return _engine.read([this] { return _state->cancelReason ? _state->cancelReason : _state->facts.error; });
    }
    KXClientIdentifier creatorIdentifier() noexcept override { return _state->creator; }
    void setObserver(KXAppInstallObserverDelegate* observer) noexcept override { _state->observer = observer; }

    bool hasInstallOptions() noexcept override {
        return _engine.read([this] { return _state->facts.options.has_value(); });
    }
    bool setInstallOptions_error(const TVInstallOptions& options, ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.setOptions(_state, options), error);
    }
    bool hasInitialODRAssetPromises() noexcept override {
        return _engine.read([this] { return _state->facts.hasODRPromises; });
    }
    bool setInitialODRAssetPromises_error(const std::vector<KXPromisedTransferToPathPtr>& promises,
                                          ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.setODRPromises(_state, promises.size()), error);
    }
    bool hasAppAssetPromise() noexcept override {
        return _engine.read([this] { return _state->asset != nullptr; });
    }
    KXPromisedTransferToPathPtr appAssetPromiseWithError(ErrorPtr* /*error*/) noexcept override {
        const PromisePtr promise = _engine.read([this] { return _state->asset; });
        return promise ? makeTransferPromiseHandle(_engine, promise) : nullptr;
    }
    bool setAppAssetPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.attachPromise(_state, promiseBehind(promise), PromiseRole::appAsset), error);
    }
    bool hasPlaceholderPromise() noexcept override {
        return _engine.read([this] { return _state->placeholder != nullptr; });
    }
    bool setPlaceholderPromise_error(const KXPlaceholderPtr& placeholder, ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.attachPlaceholder(_state, placeholderBehind(placeholder)), error);
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.cancel(_state, reason, client), error);
    }
    std::string description() noexcept override {
        return "<" + std::string(nameOf(_state->kind)) + " coordinator for " + _state->bundleID + ", client " +
               std::to_string(_state->creator) + ">";
    }

  protected:
    CoordinatorEngine& _engine;
    const CoordinatorStatePtr _state;
};

template <class Interface> class UserDataCoordinatorHandle : public CoordinatorHandle<Interface> {
  public:
    using CoordinatorHandle<Interface>::CoordinatorHandle;

    bool hasUserDataPromise() noexcept override {
        return this->_engine.read([this] { return this->_state->userData != nullptr; });
    }
    bool setUserDataPromise_error(const KXPromisedOutOfBandTransferPtr& promise, ErrorPtr* error) noexcept override {
        return hasSucceeded(this->_engine.attachPromise(this->_state, promiseBehind(promise), PromiseRole::userData),
                            error);
    }
};

class RestoringCoordinatorHandle final : public UserDataCoordinatorHandle<KXRestoringAppInstallCoordinator> {
  public:
    using UserDataCoordinatorHandle::UserDataCoordinatorHandle;

    KXClientIdentifier appAssetPromiseResponsibleClientWithError(ErrorPtr* /*error*/) noexcept override {
        return _engine.read([this] { return _state->facts.responsibleClient; });
    }
    bool setAppAssetPromiseResponsibleClient_error(KXClientIdentifier client, ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.setResponsibleClient(_state, client), error);
    }
};

} // namespace

KXPromisedTransferToPathPtr makeTransferPromiseHandle(CoordinatorEngine& engine, const PromisePtr& promise) {
    return std::make_shared<TransferPromiseHandle>(engine, promise);
}

KXPromisedOutOfBandTransferPtr makeOutOfBandPromiseHandle(CoordinatorEngine& engine, const PromisePtr& promise) {
    return std::make_shared<PromiseHandle<KXPromisedOutOfBandTransfer>>(engine, promise);
}

KXPlaceholderPtr makePlaceholderHandle(CoordinatorEngine& engine, const PlaceholderPtr& placeholder) {
    return std::make_shared<PlaceholderHandle>(engine, placeholder);
}

KXAppInstallCoordinatorPtr makeCoordinatorHandle(CoordinatorEngine& engine, const CoordinatorStatePtr& state) {
    switch (state->kind) {
    case CoordinatorKind::initiating:
        return std::make_shared<CoordinatorHandle<KXInitiatingAppInstallCoordinator>>(engine, state);
    case CoordinatorKind::updating:
        return std::make_shared<CoordinatorHandle<KXUpdatingAppInstallCoordinator>>(engine, state);
    case CoordinatorKind::restoring: return std::make_shared<RestoringCoordinatorHandle>(engine, state);
    case CoordinatorKind::restoringDemoted:
        return std::make_shared<UserDataCoordinatorHandle<KXRestoringDemotedAppInstallCoordinator>>(engine, state);
    }
    return nullptr;
}

} // namespace appsync::device
