#include "tests/inmemory/Registry.h"

#include "platform/InstallationService.h"

#include <algorithm>

namespace appsync::inmemory {

std::uint64_t Progress::installState() noexcept {
    return state;
}

void Progress::setInstallState(std::uint64_t newState) noexcept {
    state = newState;
    _record("setInstallState", static_cast<std::int64_t>(newState));
    changed();
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
    _context.callOn("progress", _identifier, "cancel");
    changed();
}

void Progress::_record(std::string_view setter, std::int64_t value) {
    _context.callOn("progress", _identifier, setter, std::to_string(value));
}

Registry::~Registry() {
    _reports.stop();
    for (std::thread& answer : _answers) {
        answer.join();
    }
}

PDApplicationProxyPtr Registry::applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                          bool placeholder) noexcept {
    if (_context.call("registry.applicationProxyForIdentifier",
                      std::string(bundleIdentifier) + ", placeholder " + (placeholder ? "1" : "0"))) {
        return nullptr;
    }
    const std::lock_guard lock(_mutex);
    auto found = placeholder ? _find(bundleIdentifier, true) : nullptr;
    return found ? found : _find(bundleIdentifier, false);
}

void Registry::addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _context.call("registry.addObserver");
    auto observation = std::make_shared<Observation>();
    observation->observer = observer;
    {
        const std::lock_guard lock(_mutex);
        _observations.push_back(std::move(observation));
        auto* query = dynamic_cast<PDApplicationWorkspaceObserver*>(observer);
        if (query && answersQueries && !reportsChanges && !answersAtOnce) {
            _answerQuery(query);
        }
    }
    if (answersAtOnce) {
        observer->applicationInstallsArePrioritized_arePaused(prioritized, paused);
    }
    _reportChange();
}

void Registry::_answerQuery(PDApplicationWorkspaceObserver* query) {
    _answers.emplace_back([this, query] {
        // Reported once the query waits, so that the journal has one order.
        _context.journal.waitFor("log: Waiting for -applicationInstallsArePrioritized:arePaused: to complete...");
        query->applicationInstallsArePrioritized_arePaused(prioritized, paused);
    });
}

void Registry::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _context.call("registry.removeObserver");
    std::vector<std::thread> answers;
    std::vector<ObservationPtr> removed;
    {
        const std::lock_guard lock(_mutex);
        std::erase_if(_observations, [&](const ObservationPtr& each) {
            if (each->observer == observer) {
                removed.push_back(each);
            }
            return each->observer == observer;
        });
        if (dynamic_cast<PDApplicationWorkspaceObserver*>(observer)) {
            answers.swap(_answers);
        }
    }
    for (const ObservationPtr& each : removed) {
        const std::lock_guard lock(each->calling); // waits for a running call
        each->isRemoved = true;
    }
    for (std::thread& answer : answers) {
        answer.join();
    }
}

/// Tells every observer that has not been told so what is under way now.
void Registry::_reportChange() {
    if (!reportsChanges) {
        return;
    }
    _reports.addOperation([this] {
        for (const ObservationPtr& each : _observationList()) {
            const auto lists = _underWay();
            const std::lock_guard lock(each->calling);
            if (!each->isRemoved && each->told != lists) {
                each->told = lists;
                each->observer->applicationInstallsArePrioritized_arePaused(lists.first, lists.second);
            }
        }
    });
}

std::vector<Registry::ObservationPtr> Registry::_observationList() const {
    const std::lock_guard lock(_mutex);
    return _observations;
}

std::pair<PDApplicationProxies, PDApplicationProxies> Registry::_underWay() const {
    std::pair<PDApplicationProxies, PDApplicationProxies> lists;
    const std::lock_guard lock(_mutex);
    for (const ApplicationPtr& application : _applications) {
        const std::uint64_t state = application->progress ? application->progress->state.load() : 0;
        if (!application->progress) {
            continue;
        }
        if (state == PDInstallStateWaiting || state == PDInstallStateActive) {
            lists.first.push_back(application);
        } else if (state == PDInstallStatePaused) {
            lists.second.push_back(application);
        }
    }
    return lists;
}

void Registry::remove(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    std::erase_if(_applications, [&](const auto& application) { return application->identifier == identifier; });
}

void Registry::cancelInstall(std::string_view identifier) {
    const auto application = find(identifier, true);
    if (!application) {
        return;
    }
    if (application->progress) {
        application->progress->cancel();
    }
    {
        const std::lock_guard lock(_mutex);
        std::erase(_applications, application);
    }
    _reports.addOperation([this, application] {
        for (const ObservationPtr& each : _observationList()) {
            const std::lock_guard lock(each->calling);
            if (!each->isRemoved) {
                each->observer->applicationInstallsDidCancel({application});
            }
        }
    });
}

bool Registry::applicationIsInstalled(std::string_view bundleIdentifier) noexcept {
    _context.call("registry.applicationIsInstalled", std::string(bundleIdentifier));
    const std::lock_guard lock(_mutex);
    return _find(bundleIdentifier, false) || _find(bundleIdentifier, true);
}

bool Registry::installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                    ErrorPtr* error) noexcept {
    {
        const std::lock_guard lock(_mutex);
        _begun.emplace(options.string(PDBundleIdentifierKey).value_or(""));
    }
    if (_context.fails("registry.installApplication", url.description() + ", " + wholeText(options), error)) {
        return false;
    }
    return _install(url, options, error);
}

bool Registry::installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept {
    if (_context.fails("registry.installPlaceholder", url.description() + ", " + wholeText(options), nullptr)) {
        return false;
    }
    return _install(url, options, nullptr);
}

bool Registry::_install(const FileURL& url, const Dictionary& options, ErrorPtr* error) {
    const auto package = options.string(PDPackageTypeKey);
    const std::string identifier(options.string(PDBundleIdentifierKey).value_or(""));
    const bool isPlaceholder = package == PDPackageTypePlaceholder;
    if (identifier.empty() || (!isPlaceholder && package != PDPackageTypeCustomer)) {
        if (error) {
            *error = Error::make(TVInstallerErrorDomain, 1, {{errorDescriptionKey, "no package type or identifier"}});
        }
        return false;
    }
    {
        const std::lock_guard lock(_mutex);
        isPlaceholder ? void(_begun.insert(identifier)) : void(_begun.erase(identifier));
        std::erase_if(_applications, [&](const auto& application) {
            return application->identifier == identifier && (application->placeholder || !isPlaceholder);
        });
        const ApplicationPtr application = _add(identifier, isPlaceholder);
        const Value* type = options.find(PDInstallTypeKey);
        application->type = type ? type->unsignedInteger().value_or(0) : 0;
        if (isPlaceholder) {
            application->bundlePath = url.path();
        }
    }
    _reportChange();
    return true;
}

bool Registry::uninstallApplication_withOptions(std::string_view bundleIdentifier, const Dictionary* options) noexcept {
    const std::string given = options ? wholeText(*options) : "no options";
    if (_context.fails("registry.uninstallApplication", std::string(bundleIdentifier) + ", " + given, nullptr)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    const bool isTakenBack = _begun.erase(std::string(bundleIdentifier)) > 0;
    const bool placeholderOnly = isTakenBack || (options && options->truth(PDUninstallPlaceholdersOnlyKey));
    auto found = _find(bundleIdentifier, true);
    if (!found && !placeholderOnly) {
        found = _find(bundleIdentifier, false);
    }
    return std::erase(_applications, found) > 0;
}

FNProgressPtr Registry::installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                std::uint64_t phase) noexcept {
    _context.call("registry.installProgressForApplication",
                  (application ? application->applicationIdentifier() : "(null)") + ", phase " + std::to_string(phase));
    if (!application) {
        return nullptr;
    }
    {
        const std::lock_guard lock(_mutex);
        _begun.insert(application->bundleIdentifier());
    }
    const auto waiting = makesProgress ? find(application->bundleIdentifier(), true) : nullptr;
    if (!waiting || waiting->progress) {
        return application->installProgressSync();
    }
    const auto progress = addProgress(waiting, PDInstallStateWaiting, phase);
    _reportChange();
    return progress;
}

void Registry::installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept {
    _context.call("registry.installPhaseFinishedForProgress", progress ? progress->description() : "(null)");
    const auto ended = std::dynamic_pointer_cast<Progress>(progress);
    if (!ended || !makesProgress) {
        return;
    }
    const bool isFinal = ended->state >= PDInstallStateCanceled;
    if (ended->phase == PDInstallPhaseLoading && !isFinal) {
        ended->phase = PDInstallPhaseInstalling;
        return;
    }
    {
        const std::lock_guard lock(_mutex);
        for (const ApplicationPtr& application : _applications) {
            if (application->progress == ended) {
                application->progress = nullptr;
            }
        }
    }
    _reportChange();
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
        // On the home screen an app has one icon, whether or not an update of it is under way.
        const bool isShownAlready =
            application->placeholder && find(application->identifier, false) && !application->answersForInstalled;
        const bool selected = type == PDBundleTypeAll || (type == PDBundleTypeSystem && isSystem) ||
                              (type == PDBundleTypeInstalled && (!isSystem || listsSystemApps) && !isShownAlready);
        if (!selected || stop) {
            continue;
        }
        const bool isApart =
            listsRestoresApart && application->placeholder && application->type == PDInstallTypeRestore;
        if (isApart) {
            const auto listed = std::make_shared<Application>(*application);
            listed->registeredAs = "restore." + application->identifier;
            block(listed, stop);
        } else {
            block(application, stop);
        }
    }
}

ApplicationPtr Registry::addInstalled(std::string identifier, std::string version) {
    const std::lock_guard lock(_mutex);
    const auto application = _add(std::move(identifier), false);
    application->version = std::move(version);
    return application;
}

ApplicationPtr Registry::addPlaceholder(std::string identifier, std::uint64_t installType) {
    const std::lock_guard lock(_mutex);
    const auto application = _add(std::move(identifier), true);
    application->type = installType;
    return application;
}

ApplicationPtr Registry::_add(std::string identifier, bool isPlaceholder) {
    auto application = std::make_shared<Application>();
    application->containerPath = "/var/containers/" + identifier;
    application->bundlePath = application->containerPath + "/App.app";
    application->identifier = std::move(identifier);
    application->version = "1.0";
    application->installed = !isPlaceholder;
    application->placeholder = isPlaceholder;
    _applications.push_back(application);
    return application;
}

std::shared_ptr<Progress> Registry::addProgress(const ApplicationPtr& application, std::uint64_t state,
                                                std::uint64_t phase) {
    auto progress = std::make_shared<Progress>(_context, application->identifier);
    progress->state = state;
    progress->phase = phase;
    progress->changed = [this] { _reportChange(); };
    const std::lock_guard lock(_mutex);
    application->progress = progress;
    return progress;
}

void Registry::remove(std::string_view identifier, bool placeholder) {
    const std::lock_guard lock(_mutex);
    std::erase_if(_applications, [&](const auto& application) {
        return application->identifier == identifier && application->placeholder == placeholder;
    });
}

std::vector<ApplicationPtr> Registry::applications() const {
    const std::lock_guard lock(_mutex);
    return _applications;
}

ApplicationPtr Registry::find(std::string_view identifier, bool placeholder) const {
    const std::lock_guard lock(_mutex);
    return _find(identifier, placeholder);
}

std::vector<PDApplicationWorkspaceObserverProtocol*> Registry::observers() const {
    std::vector<PDApplicationWorkspaceObserverProtocol*> observers;
    for (const ObservationPtr& each : _observationList()) {
        observers.push_back(each->observer);
    }
    return observers;
}

ApplicationPtr Registry::_find(std::string_view identifier, bool placeholder) const {
    const auto found = std::ranges::find_if(_applications, [&](const auto& application) {
        return application->identifier == identifier &&
               (application->placeholder == placeholder || application->answersForInstalled);
    });
    return found != _applications.end() ? *found : nullptr;
}

} // namespace appsync::inmemory
