#include "device/coordinator/CoordinatorEngine.h"

#include "device/coordinator/CoordinatorError.h"
#include "device/coordinator/CoordinatorHandles.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/registry/Registry.h"
#include "values/BundleIdentifier.h"

#include <algorithm>
#include <thread>

namespace appsync::device {

namespace {

ErrorPtr endedError(const CoordinatorState& state) {
    return makeCoordinatorError(CoordinatorError::ended,
                                "the coordinator for " + state.bundleID + " has ended already; look it up again");
}

} // namespace

CoordinatorEngine::CoordinatorEngine(const CoordinatorServices& services)
    : _services(services), _store(services.database, services.propertyLists),
      _workers(std::max(1U, std::thread::hardware_concurrency())) {}

CoordinatorEngine::~CoordinatorEngine() {
    std::vector<CoordinatorStatePtr> running;
    {
        const std::lock_guard lock(_mutex);
        _isWorking = false;
        _ready.clear();
        for (const auto& [bundleID, state] : _coordinators) {
            if (state->work == CoordinatorState::Work::running) {
                running.push_back(state);
            }
        }
    }
    for (const auto& state : running) {
        state->stop.request_stop();
    }
    _workers.stop();
    _observers.stop();
}

Result<void> CoordinatorEngine::load() {
    if (auto registered = _store.registerSchema(); !registered) {
        return registered;
    }
    std::uint64_t lastPromise = 0;
    auto coordinators = _store.load(lastPromise, MostHeldReports);
    if (!coordinators) {
        return coordinators.error();
    }
    _lastPromise = lastPromise;
    const std::lock_guard lock(_mutex);
    for (const CoordinatorStatePtr& state : *coordinators) {
        if (state->facts.end == CoordinatorEnd::reporting) {
            _reportEnd(state);
        } else {
            _coordinators.emplace(state->bundleID, state);
        }
    }
    return {};
}

void CoordinatorEngine::resume() {
    Lock lock(_mutex);
    _isWorking = true;
    const auto coordinators = _coordinators;
    for (const auto& [bundleID, state] : coordinators) {
        if (state->facts.hasOutcome()) {
            _end(lock, state, {state->facts.error, state->facts.cancelledBy});
        } else if (const ErrorPtr problem = _problemAfterRestart(*state)) {
            _end(lock, state, {problem, std::nullopt});
        } else {
            if (state->facts.isPlaceholderInstalled) {
                _showTransfer(*state, 0);
            }
            _advance(state);
        }
    }
}

CoordinatorStatePtr CoordinatorEngine::find(std::string_view bundleID) {
    const std::lock_guard lock(_mutex);
    const auto found = _coordinators.find(bundleID);
    return found == _coordinators.end() || found->second->facts.hasOutcome() ? nullptr : found->second;
}

Result<CoordinatorStatePtr> CoordinatorEngine::findOrCreate(std::string_view bundleID, CoordinatorKind kind,
                                                            KXClientIdentifier client, bool& created) {
    if (!isBundleIdentifier(bundleID)) {
        return makeCoordinatorError(CoordinatorError::invalidArgument,
                                    "\"" + std::string(bundleID) +
                                        "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
    }
    Lock lock(_mutex);
    auto found = _coordinators.find(bundleID);
    while (found != _coordinators.end() && found->second->facts.hasOutcome()) {
        _changed.wait(lock);
        found = _coordinators.find(bundleID);
    }
    if (found != _coordinators.end()) {
        if (found->second->kind != kind) {
            return makeCoordinatorError(CoordinatorError::otherKind,
                                        std::string(bundleID) + " has a coordinator of another kind already: " +
                                            std::string(nameOf(found->second->kind)));
        }
        created = false;
        return found->second;
    }
    auto state = std::make_shared<CoordinatorState>();
    state->bundleID = bundleID;
    state->kind = kind;
    state->creator = client;
    if (const auto inserted = _store.insert(*state); !inserted) {
        return inserted.error();
    }
    _coordinators.emplace(bundleID, state);
    created = true;
    return state;
}

std::vector<OpenCoordinator> CoordinatorEngine::openCoordinators() {
    std::vector<CoordinatorStatePtr> states;
    const std::lock_guard lock(_mutex);
    for (const auto& [bundleID, state] : _coordinators) {
        if (!state->facts.hasOutcome()) {
            states.push_back(state);
        }
    }
    std::sort(states.begin(), states.end(), [](const auto& a, const auto& b) { return a->id < b->id; });
    std::vector<OpenCoordinator> open;
    open.reserve(states.size());
    for (const auto& state : states) {
        open.push_back({state->bundleID, std::string(nameOf(state->kind)), state->creator,
                        state->facts.responsibleClient, state->facts.isPlaceholderInstalled,
                        state->asset && state->asset->isComplete(), state->asset ? state->asset->fraction() : 0,
                        state->work != CoordinatorState::Work::none});
    }
    return open;
}

Result<void> CoordinatorEngine::cancel(const CoordinatorStatePtr& state, const ErrorPtr& reason,
                                       KXClientIdentifier client) {
    Lock lock(_mutex);
    if (state->facts.hasOutcome() || state->cancelRequester) {
        _changed.wait(lock, [&] { return state->hasEnded; });
        return endedError(*state);
    }
    if (state->work != CoordinatorState::Work::running) {
        _end(lock, state, {reason, client});
        return {};
    }
    state->cancelReason = reason;
    state->cancelRequester = client;
    lock.unlock();
    state->stop.request_stop();
    lock.lock();
    _changed.wait(lock, [&] { return state->hasEnded; });
    if (state->facts.error) {
        return {};
    }
    return makeCoordinatorError(CoordinatorError::tooLate,
                                state->bundleID + " had been installed before its install could be cancelled");
}

bool CoordinatorEngine::prioritize(std::string_view bundleID) {
    const auto state = find(bundleID);
    if (!state) {
        return false;
    }
    _services.registry.prioritize(bundleID);
    const std::lock_guard lock(_mutex);
    const auto waiting = std::find(_ready.begin(), _ready.end(), state);
    if (waiting != _ready.end()) {
        std::rotate(_ready.begin(), waiting, waiting + 1);
    }
    _report(state, [handle = makeCoordinatorHandle(*this, state)](KXAppInstallObserverDelegate& delegate) {
        delegate.coordinatorShouldPrioritize(handle);
    });
    return true;
}

void CoordinatorEngine::waitUntilIdle() {
    _busy.wait();
}

/// Has the coordinator's next step done, if there is one and none is under way. The lock is held.
void CoordinatorEngine::_advance(const CoordinatorStatePtr& state) {
    if (!_isWorking || state->work != CoordinatorState::Work::none || _nextStep(*state) == Step::none) {
        return;
    }
    state->work = CoordinatorState::Work::queued;
    _ready.push_back(state);
    _busy.enter();
    _workers.addOperation([this] { _work(); });
}

CoordinatorEngine::Step CoordinatorEngine::_nextStep(const CoordinatorState& state) {
    if (state.facts.hasOutcome()) {
        return Step::none;
    }
    const PlaceholderState* placeholder = state.placeholder.get();
    if (placeholder && placeholder->facts.isConfigured && !state.facts.isPlaceholderInstalled &&
        (!placeholder->facts.icon || placeholder->facts.icon->isComplete())) {
        return Step::placeholder;
    }
    const bool hasUserData = !state.userData || state.userData->isComplete();
    if (state.kind == CoordinatorKind::restoringDemoted) {
        return state.facts.isPlaceholderInstalled && hasUserData ? Step::finish : Step::none;
    }
    const bool hasAsset = state.asset && state.asset->isComplete();
    return hasAsset && state.facts.options && hasUserData ? Step::app : Step::none;
}

/// One step of the coordinator that is first in line. Prioritising may have changed who that is.
void CoordinatorEngine::_work() {
    {
        Lock lock(_mutex);
        if (!_ready.empty()) {
            const CoordinatorStatePtr state = _ready.front();
            _ready.pop_front();
            state->work = CoordinatorState::Work::running;
            _perform(lock, state, _nextStep(*state));
            state->work = CoordinatorState::Work::none;
            _advance(state);
        }
    }
    _busy.leave();
}

void CoordinatorEngine::_perform(Lock& lock, const CoordinatorStatePtr& state, Step step) {
    ErrorPtr error;
    if (step == Step::placeholder) {
        const PlaceholderState placeholder = *state->placeholder;
        lock.unlock();
        error = _installPlaceholder(*state, placeholder);
        lock.lock();
    } else if (step == Step::app) {
        const InstallOptionsRecord options = *state->facts.options;
        const PromiseRecord asset = state->asset->record();
        lock.unlock();
        error = _installApp(*state, options, asset);
        error = error && !_hasComeEarlier(*state, error) ? error : _restoreUserData(*state);
        lock.lock();
    } else if (step == Step::finish) {
        lock.unlock();
        error = _restoreUserData(*state);
        lock.lock();
    }
    if (step == Step::placeholder && !error) {
        _placeholderWasInstalled(lock, state);
    }
    if (step == Step::app && error && _isWorking && !state->cancelRequester && _mayGetAnotherFile(*state)) {
        _waitForAnotherFile(lock, state, error);
        step = Step::none;
        error = nullptr;
    }
    if ((step == Step::finish || step == Step::app) && !error) {
        _end(lock, state, {});
    } else if (state->cancelRequester) {
        _end(lock, state, {state->cancelReason, state->cancelRequester});
    } else if (error && _isWorking) {
        _end(lock, state, {error, std::nullopt});
    }
}

/// Whether a restored app whose file is gone is there: an earlier process installed it, and could not write that down.
bool CoordinatorEngine::_hasComeEarlier(const CoordinatorState& state, const ErrorPtr& error) const {
    return isError(error, CoordinatorErrorDomain, CoordinatorError::fileMissing) && isRestoring(state.kind) &&
           _services.registry.isInstalled(state.bundleID);
}

/// Whether an install that failed leaves a restored app to wait on: the backup may be the only other place that has it.
bool CoordinatorEngine::_mayGetAnotherFile(const CoordinatorState& state) const {
    return state.kind == CoordinatorKind::restoring && state.facts.responsibleClient != 0 &&
           !_services.registry.isInstalled(state.bundleID);
}

/// The lock is held, but not while the file is removed.
void CoordinatorEngine::_waitForAnotherFile(Lock& lock, const CoordinatorStatePtr& state, const ErrorPtr& error) {
    const PromisePtr asset = std::exchange(state->asset, nullptr);
    asset->setOwner(nullptr);
    state->facts.error = error;
    // When this cannot be written a restart finds the file missing, and comes here again.
    (void)_store.removePromise(asset->identifier());
    lock.unlock();
    _removeAsset(asset);
    lock.lock();
}

void CoordinatorEngine::_placeholderWasInstalled(Lock& lock, const CoordinatorStatePtr& state) {
    state->facts.isPlaceholderInstalled = true;
    // When this is lost the placeholder is installed once more after a restart, without its icon.
    (void)_store.update(*state);
    _report(state, [handle = makeCoordinatorHandle(*this, state)](KXAppInstallObserverDelegate& delegate) {
        delegate.coordinatorDidInstallPlaceholder(handle);
    });
    const PromisePtr icon = state->placeholder->facts.icon;
    const double fraction = state->asset ? state->asset->fraction() : 0;
    lock.unlock();
    _removeIcon(icon);
    _showTransfer(*state, fraction);
    lock.lock();
}

/// Ends a coordinator. The lock is held, but not while things are cleared away.
///
/// Each stage of the end is written down, so that after a crash it goes on where it was: a file that was removed does
/// not pass for one that was lost, nothing that belongs to a later coordinator of the app is cleared away, and nobody
/// misses a report. Where a stage cannot be written, a restart settles the coordinator by what it finds.
void CoordinatorEngine::_end(Lock& lock, const CoordinatorStatePtr& state, const Outcome& outcome) {
    state->facts.end = CoordinatorEnd::clearing;
    state->facts.error = outcome.error;
    state->facts.cancelledBy = outcome.cancelledBy;
    state->cancelReason = nullptr; // a cancel that came too late is none
    (void)_store.update(*state);
    lock.unlock();
    _clearAway(*state, outcome);
    lock.lock();
    const bool isReported = !outcome.cancelledBy || *outcome.cancelledBy != state->creator;
    (void)(isReported ? _store.updateToReport(*state) : _store.remove(state->id));
    _coordinators.erase(state->bundleID);
    state->hasEnded = true;
    _changed.notify_all();
    if (isReported) {
        _reportEnd(state);
    }
}

/// Tells of the outcome. Its row stays until somebody has been told, so that it outlasts the process until then.
void CoordinatorEngine::_reportEnd(const CoordinatorStatePtr& state) {
    const auto call = [handle = makeCoordinatorHandle(*this, state), error = state->facts.error,
                       client = state->facts.cancelledBy](KXAppInstallObserverDelegate& delegate) {
        if (client) {
            delegate.coordinator_canceledWithReason_client(handle, error, *client);
        } else {
            delegate.coordinatorDidCompleteSuccessfully(handle);
        }
    };
    _observers.report(state->creator, state->observer, call, [this, id = state->id] { (void)_store.remove(id); });
}

void CoordinatorEngine::_report(const CoordinatorStatePtr& state, InstallObservers::Call call) {
    _observers.report(state->creator, state->observer, std::move(call));
}

} // namespace appsync::device
