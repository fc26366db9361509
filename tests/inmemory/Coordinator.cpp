#include "tests/inmemory/Coordinator.h"

namespace appsync::inmemory {

bool Placeholder::_call(std::string_view name, const std::string& arguments, ErrorPtr* error) {
    const ErrorPtr fault = _context.callOn("placeholder", identifier, name, arguments);
    if (fault && error) {
        *error = fault;
    }
    return !fault;
}

bool Placeholder::setPlaceholderAttributes_error(const KXPlaceholderAttributes& attributes, ErrorPtr* error) noexcept {
    return _call("setPlaceholderAttributes", attributes.description(), error);
}

bool Placeholder::setMetadata_error(const std::optional<TVStoreMetadata>& metadata, ErrorPtr* error) noexcept {
    return _call("setMetadata", metadata ? wholeText(metadata->dictionary) : "(null)", error);
}

bool Placeholder::setSinfData_error(const Data& sinf, ErrorPtr* error) noexcept {
    return _call("setSinfData", wholeText(sinf), error);
}

bool Placeholder::setIconPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept {
    return _call("setIconPromise", promise->description(), error);
}

bool Placeholder::setConfigurationCompleteWithError(ErrorPtr* error) noexcept {
    return _call("setConfigurationComplete", "", error);
}

bool Placeholder::cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                               ErrorPtr* error) noexcept {
    cancelled = reason;
    return _call("cancel", reason->description() + ", client " + std::to_string(client), error);
}

bool AnyCoordinatorLookup::coordinationIsEnabled() noexcept {
    _context.call("coordinators.coordinationIsEnabled");
    return enabled;
}

bool AnyCoordinatorLookup::uninstallAppWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept {
    return !_context.fails("coordinators.uninstallApp", std::string(bundleID), error);
}

void AnyCoordinatorLookup::uninstallAppWithBundleID_requestUserConfirmation_completion(
    std::string_view bundleID, bool requestUserConfirmation, std::function<void(const ErrorPtr&)> completion) noexcept {
    _context.call("coordinators.uninstallAppLater",
                  std::string(bundleID) + ", confirmation " + (requestUserConfirmation ? "1" : "0"));
    completions.push_back(std::move(completion));
}

CoordinatorStatePtr Coordinators::add(std::string identifier, std::string kind) {
    auto state = std::make_shared<CoordinatorState>();
    state->identifier = identifier;
    state->kind = std::move(kind);
    const std::lock_guard lock(_mutex);
    _states[identifier] = state;
    return state;
}

CoordinatorStatePtr Coordinators::find(std::string_view identifier) const {
    const std::lock_guard lock(_mutex);
    const auto found = _states.find(identifier);
    return found != _states.end() ? found->second : nullptr;
}

CoordinatorStatePtr Coordinators::findOrAdd(std::string_view identifier, const std::string& kind,
                                            KXClientIdentifier client, bool makesOne, bool& isNew, ErrorPtr* error) {
    const std::lock_guard lock(_mutex);
    const auto found = _states.find(identifier);
    const bool isThere = found != _states.end() && !found->second->cancelled;
    if (isThere && (kind == "any" || found->second->kind == kind)) {
        return found->second;
    }
    if (!makesOne) {
        return nullptr;
    }
    if (isThere || kind == "any") {
        if (error) {
            *error = Error::make("CoordinatorInMemory", 1, {{errorDescriptionKey, "of another kind, or of none"}});
        }
        return nullptr;
    }
    auto state = std::make_shared<CoordinatorState>();
    state->identifier = identifier;
    state->kind = kind;
    state->creator = client;
    isNew = true;
    return _states[state->identifier] = state;
}

void Coordinators::remove(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    if (const auto found = _states.find(identifier); found != _states.end()) {
        _states.erase(found);
    }
}

std::vector<CoordinatorStatePtr> Coordinators::all() const {
    const std::lock_guard lock(_mutex);
    std::vector<CoordinatorStatePtr> states;
    for (const auto& [identifier, state] : _states) {
        states.push_back(state);
    }
    return states;
}

KXPlaceholderPtr Factories::initAppPlaceholderWithBundleName_bundleID_installType_client(
    std::string_view bundleName, std::string_view bundleID, std::uint64_t installType,
    KXClientIdentifier client) noexcept {
    if (_context.call("placeholders.init", std::string(bundleName) + ", " + std::string(bundleID) + ", install type " +
                                               std::to_string(installType) + ", client " + std::to_string(client)) !=
        nullptr) {
        return nullptr;
    }
    return std::make_shared<Placeholder>(_context, std::string(bundleID));
}

KXPromisedTransferToPathPtr
Factories::initWithName_client_transferPath_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                            const FileURL& transferPath,
                                                            std::uint64_t diskSpaceNeeded) noexcept {
    if (_context.call("promises.transfer", std::string(name) + ", client " + std::to_string(client) + ", " +
                                               transferPath.description() + ", " + std::to_string(diskSpaceNeeded)) !=
        nullptr) {
        return nullptr;
    }
    auto promise = std::make_shared<TransferPromise>(_context, std::string(name));
    promise->path = transferPath;
    return promise;
}

KXPromisedTransferToPathPtr Factories::initWithName_client_diskSpaceNeeded(std::string_view name,
                                                                           KXClientIdentifier client,
                                                                           std::uint64_t diskSpaceNeeded) noexcept {
    if (_context.call("promises.transfer", std::string(name) + ", client " + std::to_string(client) + ", no path, " +
                                               std::to_string(diskSpaceNeeded))) {
        return nullptr;
    }
    return std::make_shared<TransferPromise>(_context, std::string(name));
}

namespace {

class Observer final : public KXAppInstallObserver {
  public:
    explicit Observer(Context& context) : _context(context) {}
    ~Observer() override { _context.call("observers.close"); }

  private:
    Context& _context;
};

} // namespace

std::shared_ptr<KXAppInstallObserver>
Factories::initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                       const std::set<KXClientIdentifier>& clients,
                                                       KXAppInstallObserverDelegate* delegate) noexcept {
    std::string numbers;
    for (const KXClientIdentifier client : clients) {
        numbers += " " + std::to_string(client);
    }
    const std::string arguments =
        std::string(serviceName) + ", clients" + numbers + (delegate ? ", delegate" : ", no delegate");
    if (_context.call("observers.init", arguments)) {
        return nullptr;
    }
    return std::make_shared<Observer>(_context);
}

KXPromisedOutOfBandTransferPtr
OutOfBandFactory::initWithName_client_diskSpaceNeeded(std::string_view name, KXClientIdentifier client,
                                                      std::uint64_t diskSpaceNeeded) noexcept {
    if (_context.call("promises.outOfBand", std::string(name) + ", client " + std::to_string(client) + ", " +
                                                std::to_string(diskSpaceNeeded))) {
        return nullptr;
    }
    return std::make_shared<OutOfBandPromise>(_context, std::string(name));
}

} // namespace appsync::inmemory
