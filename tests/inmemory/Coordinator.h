// The install coordinator in memory: coordinators, promises and placeholders that record what is set on them.
#pragma once

#include "platform/InstallCoordinator.h"
#include "tests/inmemory/Context.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace appsync::inmemory {

/// Writes "promise(NAME).setter(value)".
template <class Interface> class Promise : public Interface {
  public:
    Promise(Context& context, std::string itsName) : name(std::move(itsName)), _context(context) {}
    bool isComplete() noexcept override { return complete; }
    void setPercentComplete(double fraction) noexcept override {
        percent = fraction;
        _context.callOn("promise", name, "setPercentComplete", std::to_string(fraction));
    }
    void setComplete(bool isDone) noexcept override {
        complete = isDone;
        _context.callOn("promise", name, "setComplete", isDone ? "1" : "0");
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        cancelled = reason;
        const ErrorPtr fault =
            _context.callOn("promise", name, "cancel", reason->description() + ", client " + std::to_string(client));
        if (fault && error) {
            *error = fault;
        }
        return !fault;
    }
    std::string description() noexcept override { return "<promise " + name + ">"; }

    const std::string name;
    double percent = 0;
    std::atomic<bool> complete = false;
    ErrorPtr cancelled;

  protected:
    Context& _context;
};

class TransferPromise final : public Promise<KXPromisedTransferToPath> {
  public:
    using Promise::Promise;
    void setTransferPath(const std::optional<FileURL>& newPath) noexcept override {
        path = newPath;
        _context.callOn("promise", name, "setTransferPath", newPath ? newPath->description() : "(null)");
    }
    std::optional<FileURL> path;
};
using OutOfBandPromise = Promise<KXPromisedOutOfBandTransfer>;

/// Writes "placeholder(ID).setter(value)".
class Placeholder final : public KXPlaceholder {
  public:
    Placeholder(Context& context, std::string bundleID) : identifier(std::move(bundleID)), _context(context) {}
    bool setPlaceholderAttributes_error(const KXPlaceholderAttributes& attributes, ErrorPtr* error) noexcept override;
    bool setMetadata_error(const std::optional<TVStoreMetadata>& metadata, ErrorPtr* error) noexcept override;
    bool setSinfData_error(const Data& sinf, ErrorPtr* error) noexcept override;
    bool setIconPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override;
    bool setConfigurationCompleteWithError(ErrorPtr* error) noexcept override;
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override;
    std::string description() noexcept override { return "<placeholder " + identifier + ">"; }

    const std::string identifier;
    ErrorPtr cancelled;

  private:
    /// Writes the call; `name` is also the fault's, as in "placeholder.setMetadata".
    bool _call(std::string_view name, const std::string& arguments, ErrorPtr* error);
    Context& _context;
};

/// What every kind of coordinator holds. Tests read and change it; the journal has "coordinator(ID).setter(value)".
struct CoordinatorState {
    std::string identifier;
    std::string kind;
    bool hasIdentifier = true;
    KXClientIdentifier creator = KXClientSyncHost;
    ErrorPtr errorBeside; // what a lookup reports although it finds the coordinator
    ErrorPtr error;
    bool hasInstallOptions = false;
    bool hasInitialODRAssetPromises = false;
    bool hasUserDataPromise = false;
    KXPromisedTransferToPathPtr assetPromise;
    bool hasPlaceholderPromise = false;
    KXClientIdentifier responsibleClient = 0;
    KXAppInstallObserverDelegate* observer = nullptr;
    bool cancelled = false;
};
using CoordinatorStatePtr = std::shared_ptr<CoordinatorState>;

template <class Interface> class Coordinator : public Interface {
  public:
    Coordinator(Context& context, CoordinatorStatePtr state) : _context(context), _state(std::move(state)) {}
    std::optional<std::string> bundleID() noexcept override {
        return _state->hasIdentifier ? std::optional(_state->identifier) : std::nullopt;
    }
    ErrorPtr error() noexcept override { return _state->error; }
    KXClientIdentifier creatorIdentifier() noexcept override { return _state->creator; }
    void setObserver(KXAppInstallObserverDelegate* observer) noexcept override {
        _state->observer = observer;
        _call("setObserver", "", nullptr);
    }
    bool hasInstallOptions() noexcept override { return _state->hasInstallOptions; }
    bool setInstallOptions_error(const TVInstallOptions& options, ErrorPtr* error) noexcept override {
        return _state->hasInstallOptions = _call("setInstallOptions", _optionsText(options), error);
    }
    bool hasInitialODRAssetPromises() noexcept override { return _state->hasInitialODRAssetPromises; }
    bool setInitialODRAssetPromises_error(const std::vector<KXPromisedTransferToPathPtr>& promises,
                                          ErrorPtr* error) noexcept override {
        return _state->hasInitialODRAssetPromises =
                   _call("setInitialODRAssetPromises", std::to_string(promises.size()), error);
    }
    bool hasAppAssetPromise() noexcept override { return _state->assetPromise != nullptr; }
    KXPromisedTransferToPathPtr appAssetPromiseWithError(ErrorPtr*) noexcept override { return _state->assetPromise; }
    bool setAppAssetPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        if (!_take("setAppAssetPromise", promise, _state->assetPromise != nullptr, error)) {
            return false;
        }
        _state->assetPromise = promise;
        return true;
    }
    bool hasPlaceholderPromise() noexcept override { return _state->hasPlaceholderPromise; }
    bool setPlaceholderPromise_error(const KXPlaceholderPtr& placeholder, ErrorPtr* error) noexcept override {
        const bool accepted =
            _call("setPlaceholderPromise", placeholder ? placeholder->description() : "(null)", error);
        _state->hasPlaceholderPromise = accepted && placeholder;
        return accepted; // also of a null placeholder, as a service may
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        const bool isTaken = _call("cancel", reason->description() + ", client " + std::to_string(client), error);
        if (isTaken) {
            _state->error = reason;
        }
        _state->cancelled = true;
        return isTaken;
    }
    std::string description() noexcept override { return "<" + _state->kind + " " + _state->identifier + ">"; }

  protected:
    /// Writes the call; its fault is named as in "coordinator.setInstallOptions".
    bool _call(const std::string& name, const std::string& arguments, ErrorPtr* error) {
        ErrorPtr fault = _context.callOn("coordinator", _state->identifier, name, arguments);
        if (!fault && _state->cancelled) {
            fault = Error::make("CoordinatorInMemory", 3, {{errorDescriptionKey, "it has ended"}});
        }
        if (fault && error) {
            *error = fault;
        }
        return !fault;
    }
    /// The same for a promise, of which there can be one.
    bool _take(const std::string& name, const std::shared_ptr<KXPromise>& promise, bool hasOne, ErrorPtr* error) {
        const bool isTaken = _call(name, promise ? promise->description() : "(null)", error);
        if (isTaken && (!promise || hasOne) && error) {
            *error = Error::make("CoordinatorInMemory", 2, {{errorDescriptionKey, "null, or there is one already"}});
        }
        return isTaken && promise && !hasOne;
    }
    static std::string _optionsText(const TVInstallOptions& options) {
        return "metadata " + (options.tamblinMetadata ? wholeText(options.tamblinMetadata->dictionary) : "(null)") +
               ", sinf " + (options.sinfData ? wholeText(*options.sinfData) : "(null)") + ", install type " +
               std::to_string(options.registryInstallType) + ", target type " +
               std::to_string(options.installTargetType);
    }

    Context& _context;
    CoordinatorStatePtr _state;
};

template <class Interface> class RestoringCoordinator : public Coordinator<Interface> {
  public:
    using Coordinator<Interface>::Coordinator;
    bool hasUserDataPromise() noexcept override { return this->_state->hasUserDataPromise; }
    bool setUserDataPromise_error(const KXPromisedOutOfBandTransferPtr& promise, ErrorPtr* error) noexcept override {
        const bool isTaken = this->_take("setUserDataPromise", promise, this->_state->hasUserDataPromise, error);
        this->_state->hasUserDataPromise = this->_state->hasUserDataPromise || isTaken;
        return isTaken;
    }
};

class FullRestoringCoordinator final : public RestoringCoordinator<KXRestoringAppInstallCoordinator> {
  public:
    using RestoringCoordinator::RestoringCoordinator;
    KXClientIdentifier appAssetPromiseResponsibleClientWithError(ErrorPtr*) noexcept override {
        return _state->responsibleClient;
    }
    bool setAppAssetPromiseResponsibleClient_error(KXClientIdentifier client, ErrorPtr* error) noexcept override {
        if (!_call("setAppAssetPromiseResponsibleClient", std::to_string(client), error)) {
            return false;
        }
        _state->responsibleClient = client;
        return true;
    }
};

/// The coordinators of the device by app, and the class operations.
class Coordinators;

/// The lookup of one kind: "coordinators.KIND(ID, client N, create 0|1)"; its fault is "coordinators.KIND".
template <class Interface, class Implementation, class Base = KXCoordinatorClass<Interface>>
class CoordinatorLookup : public Base {
  public:
    CoordinatorLookup(Context& context, Coordinators& all, std::string kind)
        : _context(context), _all(all), _kind(std::move(kind)) {}
    std::shared_ptr<Interface> coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view bundleID, KXClientIdentifier client, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override;

  protected:
    Context& _context;

  private:
    Coordinators& _all;
    const std::string _kind;
};

class AnyCoordinatorLookup final
    : public CoordinatorLookup<KXAppInstallCoordinator, Coordinator<KXAppInstallCoordinator>,
                               KXAppInstallCoordinatorClass> {
  public:
    using CoordinatorLookup::CoordinatorLookup;
    bool coordinationIsEnabled() noexcept override;
    bool uninstallAppWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept override;
    void uninstallAppWithBundleID_requestUserConfirmation_completion(
        std::string_view bundleID, bool requestUserConfirmation,
        std::function<void(const ErrorPtr&)> completion) noexcept override;

    bool enabled = true;
    /// The completions of uninstalls; a test calls them.
    std::vector<std::function<void(const ErrorPtr&)>> completions;
};

class Coordinators {
  public:
    explicit Coordinators(Context& context)
        : any(context, *this, "any"), initiating(context, *this, "initiating"), updating(context, *this, "updating"),
          restoring(context, *this, "restoring"), restoringDemoted(context, *this, "restoringDemoted") {}

    /// Adds a coordinator as if it had been made before, and gives its state to the test.
    CoordinatorStatePtr add(std::string identifier, std::string kind = "initiating");
    /// The state of an app's coordinator, one that was cancelled included; null when there is none.
    [[nodiscard]] CoordinatorStatePtr find(std::string_view identifier) const;
    /// What a lookup of a kind finds, or makes: a coordinator of that kind that has not ended. "any" finds every kind
    /// and makes none.
    CoordinatorStatePtr findOrAdd(std::string_view identifier, const std::string& kind, KXClientIdentifier client,
                                  bool makesOne, bool& isNew, ErrorPtr* error);
    /// Takes an app's coordinator away, as when it has ended.
    void remove(std::string_view identifier);
    [[nodiscard]] std::vector<CoordinatorStatePtr> all() const;

    AnyCoordinatorLookup any;
    CoordinatorLookup<KXInitiatingAppInstallCoordinator, Coordinator<KXInitiatingAppInstallCoordinator>> initiating;
    CoordinatorLookup<KXUpdatingAppInstallCoordinator, Coordinator<KXUpdatingAppInstallCoordinator>> updating;
    CoordinatorLookup<KXRestoringAppInstallCoordinator, FullRestoringCoordinator> restoring;
    CoordinatorLookup<KXRestoringDemotedAppInstallCoordinator,
                      RestoringCoordinator<KXRestoringDemotedAppInstallCoordinator>>
        restoringDemoted;

  private:
    mutable std::mutex _mutex;
    std::map<std::string, CoordinatorStatePtr, std::less<>> _states;
};

template <class Interface, class Implementation, class Base>
std::shared_ptr<Interface> CoordinatorLookup<Interface, Implementation, Base>::
    coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(std::string_view bundleID,
                                                                                 KXClientIdentifier client,
                                                                                 bool createIfNotExisting,
                                                                                 bool* created,
                                                                                 ErrorPtr* error) noexcept {
    if (created) {
        *created = false;
    }
    if (_context.fails("coordinators." + _kind,
                       std::string(bundleID) + ", client " + std::to_string(client) + ", create " +
                           (createIfNotExisting ? "1" : "0"),
                       error)) {
        return nullptr;
    }
    bool isNew = false;
    const CoordinatorStatePtr state = _all.findOrAdd(bundleID, _kind, client, createIfNotExisting, isNew, error);
    if (created) {
        *created = isNew;
    }
    if (state && state->errorBeside && error) {
        *error = state->errorBeside;
    }
    return state ? std::make_shared<Implementation>(_context, state) : nullptr;
}

/// The factories: "promises.transfer(NAME, …)", "promises.outOfBand(NAME, …)", "placeholders.init(…)",
/// "observers.init(…)"; their faults have the same names.
class Factories final : public KXPlaceholderClass,
                        public KXPromisedTransferToPathClass,
                        public KXAppInstallObserverClass {
  public:
    explicit Factories(Context& context) : _context(context) {}
    KXPlaceholderPtr
    initAppPlaceholderWithBundleName_bundleID_installType_client(std::string_view bundleName, std::string_view bundleID,
                                                                 std::uint64_t installType,
                                                                 KXClientIdentifier client) noexcept override;
    KXPromisedTransferToPathPtr
    initWithName_client_transferPath_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                     const FileURL& transferPath,
                                                     std::uint64_t diskSpaceNeeded) noexcept override;
    KXPromisedTransferToPathPtr initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                                    std::uint64_t diskSpaceNeeded) noexcept override;
    std::shared_ptr<KXAppInstallObserver>
    initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                const std::set<KXClientIdentifier>& clients,
                                                KXAppInstallObserverDelegate* delegate) noexcept override;

  private:
    Context& _context;
};

class OutOfBandFactory final : public KXPromisedOutOfBandTransferClass {
  public:
    explicit OutOfBandFactory(Context& context) : _context(context) {}
    KXPromisedOutOfBandTransferPtr initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                                       std::uint64_t diskSpaceNeeded) noexcept override;

  private:
    Context& _context;
};

} // namespace appsync::inmemory
