#include "tests/inmemory/Registry.h"

#include <algorithm>

namespace appsync::inmemory {

std::uint64_t Progress::installState() noexcept {
    return state;
}

void Progress::setInstallState(std::uint64_t newState) noexcept {
    state = newState;
    _record("setInstallState", static_cast<std::int64_t>(newState));
}

std::uint64_t Progress::installPhase() noexcept {
    return phase;
}

void Progress::setInstallPhase(std::uint64_t newPhase) noexcept {
    phase = newPhase;
    _record("setInstallPhase", static_cast<std::int64_t>(newPhase));
}

std::int64_t Progress::totalUnitCount() noexcept {
    return total;
}

void Progress::setTotalUnitCount(std::int64_t units) noexcept {
    total = units;
    _record("setTotalUnitCount", units);
}

void Progress::setCompletedUnitCount(std::int64_t units) noexcept {
    completed = units;
    _record("setCompletedUnitCount", units);
}

void Progress::cancel() noexcept {
    state = PDInstallStateCanceled;
    _context.journal.add("progress(" + _identifier + ").cancel()");
}

void Progress::_record(std::string_view setter, std::int64_t value) {
    _context.journal.add("progress(" + _identifier + ")." + std::string(setter) + "(" + std::to_string(value) + ")");
}

Registry::~Registry() {
    for (std::thread& report : _reports) {
        report.join();
    }
}

PDApplicationProxyPtr Registry::applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                          bool placeholder) noexcept {
    if (_context.call("registry.applicationProxyForIdentifier",
                      std::string(bundleIdentifier) + ", placeholder " + (placeholder ? "1" : "0")) != nullptr) {
        return nullptr;
    }
    const std::lock_guard lock(_mutex);
    auto found = placeholder ? _find(bundleIdentifier, true) : nullptr;
    return found != nullptr ? found : _find(bundleIdentifier, false);
}

void Registry::addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _context.call("registry.addObserver");
    const std::lock_guard lock(_mutex);
    _observers.push_back(observer);
    if (dynamic_cast<PDApplicationWorkspaceObserver*>(observer) == nullptr || !answersQueries) {
        return;
    }
    _reports.emplace_back([this, observer] {
        // Reported once the query waits, so that the journal has one order.
        _context.journal.waitFor("log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...");
        observer->applicationInstallsArePrioritized_arePaused(prioritized, paused);
    });
}

void Registry::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _context.call("registry.removeObserver");
    std::vector<std::thread> reports;
    {
        const std::lock_guard lock(_mutex);
        std::erase(_observers, observer);
        if (dynamic_cast<PDApplicationWorkspaceObserver*>(observer) != nullptr) {
            reports.swap(_reports);
        }
    }
    for (std::thread& report : reports) {
        report.join();
    }
}

bool Registry::applicationIsInstalled(std::string_view bundleIdentifier) noexcept {
    _context.call("registry.applicationIsInstalled", std::string(bundleIdentifier));
    const std::lock_guard lock(_mutex);
    return _find(bundleIdentifier, false) != nullptr || _find(bundleIdentifier, true) != nullptr;
}

bool Registry::installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                    ErrorPtr* error) noexcept {
    if (_context.fails("registry.installApplication", url.description() + ", " + Value(options).description(), error)) {
        return false;
    }
    const std::string identifier(options.string(PDBundleIdentifierKey).value_or(""));
    const std::lock_guard lock(_mutex);
    std::erase_if(_applications, [&](const auto& application) { return application->identifier == identifier; });
    auto application = std::make_shared<Application>();
    application->identifier = identifier;
    _applications.push_back(std::move(application));
    return true;
}

bool Registry::installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept {
    if (_context.fails("registry.installPlaceholder", url.description() + ", " + Value(options).description(),
                       nullptr)) {
        return false;
    }
    const Value* type = options.find(PDInstallTypeKey);
    const auto placeholder = addPlaceholder(std::string(options.string(PDBundleIdentifierKey).value_or("")),
                                            type != nullptr ? type->unsignedInteger().value_or(0) : 0);
    placeholder->bundlePath = url.path();
    return true;
}

bool Registry::uninstallApplication_withOptions(std::string_view bundleIdentifier, const Dictionary* options) noexcept {
    const std::string given = options != nullptr ? Value(*options).description() : "no options";
    if (_context.fails("registry.uninstallApplication", std::string(bundleIdentifier) + ", " + given, nullptr)) {
        return false;
    }
    const bool placeholderOnly = options != nullptr && options->truth(PDUninstallPlaceholdersOnlyKey);
    const std::lock_guard lock(_mutex);
    auto found = _find(bundleIdentifier, true);
    if (found == nullptr && !placeholderOnly) {
        found = _find(bundleIdentifier, false);
    }
    return std::erase(_applications, found) > 0;
}

FNProgressPtr Registry::installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                std::uint64_t phase) noexcept {
    _context.call("registry.installProgressForApplication",
                  application->applicationIdentifier() + ", phase " + std::to_string(phase));
    return application->installProgressSync();
}

void Registry::installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept {
    _context.call("registry.installPhaseFinishedForProgress", progress->description());
}

void Registry::enumerateBundlesOfType_block(
    std::uint64_t type, const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept {
    _context.call("registry.enumerateBundlesOfType", std::to_string(type));
    std::vector<ApplicationPtr> applications;
    {
        const std::lock_guard lock(_mutex);
        applications = _applications;
    }
    bool stop = false;
    for (const ApplicationPtr& application : applications) {
        const bool isSystem = application->kind == "System";
        const bool selected = type == PDBundleTypeAll || (type == PDBundleTypeSystem) == isSystem;
        if (selected && !stop) {
            block(application, stop);
        }
    }
}

ApplicationPtr Registry::addInstalled(std::string identifier, std::string version) {
    auto application = std::make_shared<Application>();
    application->containerPath = "/var/containers/" + identifier;
    application->bundlePath = application->containerPath + "/App.app";
    application->identifier = std::move(identifier);
    application->version = std::move(version);
    const std::lock_guard lock(_mutex);
    _applications.push_back(application);
    return application;
}

ApplicationPtr Registry::addPlaceholder(std::string identifier, std::uint64_t installType) {
    auto application = addInstalled(std::move(identifier));
    application->installed = false;
    application->placeholder = true;
    application->type = installType;
    return application;
}

std::shared_ptr<Progress> Registry::addProgress(const ApplicationPtr& application, std::uint64_t state,
                                                std::uint64_t phase) {
    auto progress = std::make_shared<Progress>(_context, application->identifier);
    progress->state = state;
    progress->phase = phase;
    application->progress = progress;
    return progress;
}

ApplicationPtr Registry::find(std::string_view identifier, bool placeholder) const {
    const std::lock_guard lock(_mutex);
    return _find(identifier, placeholder);
}

std::vector<PDApplicationWorkspaceObserverProtocol*> Registry::observers() const {
    const std::lock_guard lock(_mutex);
    return _observers;
}

ApplicationPtr Registry::_find(std::string_view identifier, bool placeholder) const {
    const auto found = std::ranges::find_if(_applications, [&](const auto& application) {
        return application->identifier == identifier &&
               (application->placeholder == placeholder || application->answersForInstalled);
    });
    return found != _applications.end() ? *found : nullptr;
}

} // namespace appsync::inmemory
