#include "device/coordinator/InstallCoordinator.h"

#include "concurrency/Semaphore.h"
#include "device/coordinator/CoordinatorEngine.h"
#include "device/coordinator/CoordinatorError.h"
#include "device/coordinator/CoordinatorHandles.h"
#include "device/registry/Registry.h"

namespace appsync::device {

namespace {

/// A service that the engine does the work of.
template <class Interface> class OnEngine : public Interface {
  public:
    explicit OnEngine(CoordinatorEngine& engine) : _engine(engine) {}

  protected:
    CoordinatorEngine& _engine;
};

/// The lookups of one kind of coordinator.
template <class Coordinator, CoordinatorKind Kind>
class KindClass final : public OnEngine<KXCoordinatorClass<Coordinator>> {
  public:
    using OnEngine<KXCoordinatorClass<Coordinator>>::OnEngine;

    std::shared_ptr<Coordinator> coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view bundleID, KXClientIdentifier client, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override {
        bool isNew = false;
        CoordinatorStatePtr state;
        if (createIfNotExisting) {
            auto found = this->_engine.findOrCreate(bundleID, Kind, client, isNew);
            if (!hasSucceeded(found, error)) {
                return nullptr;
            }
            state = *found;
        } else {
            state = this->_engine.find(bundleID);
        }
        if (created) {
            *created = isNew;
        }
        return state && state->kind == Kind
                   ? std::static_pointer_cast<Coordinator>(makeCoordinatorHandle(this->_engine, state))
                   : nullptr;
    }
};

class BaseClass final : public OnEngine<KXAppInstallCoordinatorClass> {
  public:
    BaseClass(CoordinatorEngine& engine, bool isEnabled) : OnEngine(engine), _isEnabled(isEnabled) {}

    KXAppInstallCoordinatorPtr coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view bundleID, KXClientIdentifier /*client*/, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override {
        if (created) {
            *created = false;
        }
        if (const auto state = _engine.find(bundleID)) {
            return makeCoordinatorHandle(_engine, state);
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
        return hasSucceeded(_engine.remove(bundleID, RemovalReason::sync, RemovalScope::placeholderOnly), error);
    }
    void uninstallAppWithBundleID_requestUserConfirmation_completion(
        std::string_view bundleID, bool requestUserConfirmation,
        std::function<void(const ErrorPtr& error)> completion) noexcept override {
        if (!requestUserConfirmation) {
            _engine.uninstallInBackground(bundleID, std::move(completion));
            return;
        }
        _engine.observers().run(
            std::string(bundleID), [completion = std::move(completion), identifier = std::string(bundleID)] {
                completion(makeCoordinatorError(CoordinatorError::unsupported,
                                                "nobody can be asked on this device whether to uninstall " +
                                                    identifier + "; uninstall it without a confirmation"));
            });
    }

  private:
    const bool _isEnabled;
};

class PlaceholderFactory final : public OnEngine<KXPlaceholderClass> {
  public:
    using OnEngine::OnEngine;

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
        return makePlaceholderHandle(_engine, placeholder);
    }
};

class TransferFactory final : public OnEngine<KXPromisedTransferToPathClass> {
  public:
    using OnEngine::OnEngine;

    KXPromisedTransferToPathPtr
    initWithName_client_transferPath_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                     const FileURL& transferPath,
                                                     std::uint64_t diskSpaceNeeded) noexcept override {
        return makeTransferPromiseHandle(_engine,
                                         _engine.makePromise(name, client, diskSpaceNeeded, transferPath.path()));
    }
    KXPromisedTransferToPathPtr initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                                    std::uint64_t diskSpaceNeeded) noexcept override {
        return makeTransferPromiseHandle(_engine, _engine.makePromise(name, client, diskSpaceNeeded, std::nullopt));
    }
};

class OutOfBandFactory final : public OnEngine<KXPromisedOutOfBandTransferClass> {
  public:
    using OnEngine::OnEngine;

    KXPromisedOutOfBandTransferPtr
    initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                        std::uint64_t diskSpaceNeeded) noexcept override {
        return makeOutOfBandPromiseHandle(_engine, _engine.makePromise(name, client, diskSpaceNeeded, std::nullopt));
    }
};

} // namespace

struct InstallCoordinator::Classes {
    Classes(CoordinatorEngine& engine, bool coordinationIsEnabled)
        : coordinators(engine, coordinationIsEnabled), initiating(engine), updating(engine), restoring(engine),
          restoringDemoted(engine), placeholders(engine), transfers(engine), outOfBand(engine) {}

    BaseClass coordinators;
    KindClass<KXInitiatingAppInstallCoordinator, CoordinatorKind::initiating> initiating;
    KindClass<KXUpdatingAppInstallCoordinator, CoordinatorKind::updating> updating;
    KindClass<KXRestoringAppInstallCoordinator, CoordinatorKind::restoring> restoring;
    KindClass<KXRestoringDemotedAppInstallCoordinator, CoordinatorKind::restoringDemoted> restoringDemoted;
    PlaceholderFactory placeholders;
    TransferFactory transfers;
    OutOfBandFactory outOfBand;
};

Result<std::unique_ptr<InstallCoordinator>> InstallCoordinator::open(const CoordinatorServices& services,
                                                                     bool coordinationIsEnabled) {
    auto engine = std::make_unique<CoordinatorEngine>(services);
    if (const auto loaded = engine->load(); !loaded) {
        return loaded.error();
    }
    return std::unique_ptr<InstallCoordinator>(new InstallCoordinator(std::move(engine), coordinationIsEnabled));
}

InstallCoordinator::InstallCoordinator(std::unique_ptr<CoordinatorEngine> engine, bool coordinationIsEnabled)
    : _engine(std::move(engine)), _classes(std::make_unique<Classes>(*_engine, coordinationIsEnabled)) {}

InstallCoordinator::~InstallCoordinator() = default;

void InstallCoordinator::resume() {
    _engine->resume();
}

CoordinatorClasses InstallCoordinator::classes() noexcept {
    return {_classes->coordinators, _classes->initiating,       _classes->updating,
            _classes->restoring,    _classes->restoringDemoted, _classes->placeholders,
            _classes->transfers,    _classes->outOfBand,        _engine->observers()};
}

bool InstallCoordinator::cancelByUser(std::string_view bundleID) {
    const auto state = _engine->find(bundleID);
    const auto reason =
        makeCoordinatorError(CoordinatorError::cancelledByPerson,
                             "the install of " + std::string(bundleID) + " was cancelled on the home screen");
    return state && _engine->cancel(state, reason, KXClientPerson);
}

bool InstallCoordinator::prioritizeByUser(std::string_view bundleID) {
    if (!_engine->prioritize(bundleID)) {
        return false;
    }
    Semaphore told;
    _engine->observers().run(std::string(bundleID), [&told] { told.signal(); }); // after the report
    told.wait();
    return true;
}

Result<void> InstallCoordinator::uninstallByUser(std::string_view bundleID) {
    return _engine->remove(bundleID, RemovalReason::person, RemovalScope::everything);
}

std::vector<OpenCoordinator> InstallCoordinator::openCoordinators() const {
    return _engine->openCoordinators();
}

void InstallCoordinator::waitUntilIdle() {
    _engine->waitUntilIdle();
}

} // namespace appsync::device
