#include "device/coordinator/CoordinatorHandles.h"

#include "device/coordinator/CoordinatorError.h"
#include "device/coordinator/PromiseHandles.h"

namespace appsync::device {

namespace {

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
        return hasSucceeded(_engine.setOptions(_state, options).error(), error);
    }
    bool hasInitialODRAssetPromises() noexcept override {
        return _engine.read([this] { return _state->facts.hasODRPromises; });
    }
    bool setInitialODRAssetPromises_error(const std::vector<KXPromisedTransferToPathPtr>& promises,
                                          ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.setODRPromises(_state, promises.size()).error(), error);
    }
    bool hasAppAssetPromise() noexcept override {
        return _engine.read([this] { return _state->asset != nullptr; });
    }
    KXPromisedTransferToPathPtr appAssetPromiseWithError(ErrorPtr* /*error*/) noexcept override {
        const PromisePtr promise = _engine.read([this] { return _state->asset; });
        return promise ? makeTransferPromiseHandle(_engine, promise) : nullptr;
    }
    bool setAppAssetPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        const PromisePtr behind = promiseBehind(promise);
        return hasSucceeded(behind ? _engine.attachAsset(_state, behind).error() : _foreign("promise"), error);
    }
    bool hasPlaceholderPromise() noexcept override {
        return _engine.read([this] { return _state->placeholder != nullptr; });
    }
    bool setPlaceholderPromise_error(const KXPlaceholderPtr& placeholder, ErrorPtr* error) noexcept override {
        const PlaceholderPtr behind = placeholderBehind(placeholder);
        return hasSucceeded(behind ? _engine.attachPlaceholder(_state, behind).error() : _foreign("placeholder"),
                            error);
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.cancel(_state, reason, client).error(), error);
    }
    std::string description() noexcept override {
        return "<" + std::string(nameOf(_state->kind)) + " coordinator for " + _state->bundleID + ", client " +
               std::to_string(_state->creator) + ">";
    }

  protected:
    [[nodiscard]] ErrorPtr _foreign(std::string_view what) const {
        return makeCoordinatorError(CoordinatorError::invalidArgument, "the " + std::string(what) + " for " +
                                                                           _state->bundleID +
                                                                           " is null or was not made by this device");
    }

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
        const PromisePtr behind = promiseBehind(promise);
        return hasSucceeded(
            behind ? this->_engine.attachUserData(this->_state, behind).error() : this->_foreign("promise"), error);
    }
};

class RestoringCoordinatorHandle final : public UserDataCoordinatorHandle<KXRestoringAppInstallCoordinator> {
  public:
    using UserDataCoordinatorHandle::UserDataCoordinatorHandle;

    KXClientIdentifier appAssetPromiseResponsibleClientWithError(ErrorPtr* /*error*/) noexcept override {
        return _engine.read([this] { return _state->facts.responsibleClient; });
    }
    bool setAppAssetPromiseResponsibleClient_error(KXClientIdentifier client, ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.setResponsibleClient(_state, client).error(), error);
    }
};

} // namespace

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
