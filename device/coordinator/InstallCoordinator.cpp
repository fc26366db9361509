#include "device/coordinator/InstallCoordinator.h"

#include "concurrency/Semaphore.h"
#include "device/registry/Registry.h"
#include "device/root/DeviceFileSystem.h"
#include "device/root/PosixError.h"
#include "platform/host/Log.h"
#include "timeline/Timeline.h"
#include "values/BundleIdentifier.h"

#include <algorithm>

namespace appsync::device {

namespace {

ErrorPtr endedError(const CoordinatorState& state) {
    return makeCoordinatorError(CoordinatorError::ended,
                                "the coordinator for " + state.bundleID + " has ended already; look it up again");
}

} // namespace

Result<std::unique_ptr<InstallCoordinator>> InstallCoordinator::open(CoordinatorServices services,
                                                                     bool coordinationIsEnabled) {
    std::unique_ptr<InstallCoordinator> coordinator(new InstallCoordinator(std::move(services)));
    coordinator->_makeClasses(coordinationIsEnabled);
    const auto loaded = coordinator->_load();
    return loaded ? Result(std::move(coordinator)) : loaded.error();
}

InstallCoordinator::InstallCoordinator(CoordinatorServices services)
    : _services(std::move(services)), _store(_services.database, _services.propertyLists) {}

InstallCoordinator::~InstallCoordinator() {
    std::vector<CoordinatorStatePtr> running;
    {
        const StatesLock lock(_mutex);
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

Result<void> InstallCoordinator::_load() {
    if (!_workers.start()) {
        return makeNoThreadError("the install coordinator");
    }
    if (auto started = _observers.start(); !started) {
        return started;
    }
    if (auto registered = _store.registerSchema(); !registered) {
        return registered;
    }
    if (_services.database.isReadOnly()) {
        return {}; // what is under way belongs to who has the device open, and so do the reports that wait
    }
    const StatesLock lock(_mutex);
    std::uint64_t lastPromise = 0;
    auto coordinators = _store.load(lastPromise, maxHeldReports);
    if (!coordinators) {
        return coordinators.error();
    }
    _lastPromise = lastPromise;
    for (const auto& [id, state] : *coordinators) {
        if (state->facts.end == CoordinatorEnd::reporting) {
            _reportEnd(state);
        } else {
            _coordinators.emplace(state->bundleID, state);
        }
    }
    return {};
}

void InstallCoordinator::resume() {
    std::vector<CoordinatorStatePtr> ending;
    {
        const StatesLock lock(_mutex);
        _isWorking = true;
        for (const auto& [bundleID, state] : _coordinators) {
            const auto checked = _checkAfterRestart(*state);
            if (state->facts.hasOutcome()) {
                ending.push_back(state);
            } else if (!checked) {
                _fixOutcome(*state, checked.error(), std::nullopt);
                ending.push_back(state);
            } else {
                if (state->facts.isPlaceholderInstalled) {
                    _showTransfer(*state, 0);
                }
                _advance(state);
            }
        }
    }
    for (const CoordinatorStatePtr& state : ending) {
        _completeEnd(state);
    }
}

CoordinatorStatePtr InstallCoordinator::find(std::string_view bundleID) {
    const StatesLock lock(_mutex);
    const auto found = _coordinators.find(bundleID);
    return found == _coordinators.end() || found->second->facts.hasOutcome() ? nullptr : found->second;
}

Result<CoordinatorStatePtr> InstallCoordinator::findOrCreate(std::string_view bundleID, CoordinatorKind kind,
                                                             KXClientIdentifier client, bool& created) {
    if (!isBundleIdentifier(bundleID)) {
        return makeCoordinatorError(CoordinatorError::invalidArgument,
                                    "\"" + std::string(bundleID) +
                                        "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
    }
    const StatesLock lock(_mutex);
    auto found = _coordinators.find(bundleID);
    while (found != _coordinators.end() && found->second->facts.hasOutcome()) {
        _changed.wait(_mutex);
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

std::vector<OpenCoordinator> InstallCoordinator::openCoordinators() {
    std::vector<CoordinatorStatePtr> states;
    const StatesLock lock(_mutex);
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
                        state->work != CoordinatorState::Work::none});
    }
    return open;
}

Result<void> InstallCoordinator::cancel(const CoordinatorStatePtr& state, const ErrorPtr& reason,
                                        KXClientIdentifier client) {
    bool isRunning = false;
    {
        const StatesLock lock(_mutex);
        if (state->facts.hasOutcome() || state->cancelRequester) {
            _waitForEnd(*state);
            return endedError(*state);
        }
        isRunning = state->work == CoordinatorState::Work::running;
        if (isRunning) {
            state->cancelReason = reason;
            state->cancelRequester = client;
        } else {
            _fixOutcome(*state, reason, client);
        }
    }
    if (!isRunning) {
        _completeEnd(state);
        return {};
    }
    state->stop.request_stop();
    const StatesLock lock(_mutex);
    _waitForEnd(*state);
    if (state->facts.error) {
        return {};
    }
    return makeCoordinatorError(CoordinatorError::tooLate,
                                state->bundleID + " had been installed before its install could be cancelled");
}

bool InstallCoordinator::cancelByUser(std::string_view bundleID) {
    const auto state = find(bundleID);
    const auto reason =
        makeCoordinatorError(CoordinatorError::cancelledByPerson,
                             "the install of " + std::string(bundleID) + " was cancelled on the home screen");
    return state && cancel(state, reason, KXClientPerson);
}

bool InstallCoordinator::prioritizeByUser(std::string_view bundleID) {
    const auto state = find(bundleID);
    if (!state) {
        return false;
    }
    _services.registry.prioritize(bundleID);
    {
        const StatesLock lock(_mutex);
        const auto waiting = std::find(_ready.begin(), _ready.end(), state);
        if (waiting != _ready.end()) {
            std::rotate(_ready.begin(), waiting, waiting + 1);
        }
        _report(state, [handle = _handleOf(state)](KXAppInstallObserverDelegate& delegate) {
            delegate.coordinatorShouldPrioritize(handle);
        });
    }
    Semaphore told;
    runAfterReports(bundleID, [&told] { told.signal(); });
    told.wait();
    return true;
}

Result<void> InstallCoordinator::uninstallByUser(std::string_view bundleID) {
    return remove(bundleID, RemovalReason::person, RemovalScope::everything);
}

/// Has the coordinator's next step done, if there is one and none is under way.
void InstallCoordinator::_advance(const CoordinatorStatePtr& state) {
    if (!_isWorking || state->work != CoordinatorState::Work::none || _nextStep(*state) == Step::none) {
        return;
    }
    state->work = CoordinatorState::Work::queued;
    _ready.push_back(state);
    _busy.enter();
    _workers.addOperation([this] { _work(); });
}

InstallCoordinator::Step InstallCoordinator::_nextStep(const CoordinatorState& state) {
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

void InstallCoordinator::_work() {
    if (const auto job = _takeJob()) {
        const Span span(_services.files.timeline(), "coordinator", job->state->bundleID);
        _record(*job, job->perform());
    }
    _busy.leave();
}

/// The step of the coordinator that is first in line; prioritising may have changed who that is. Returns nullopt when
/// it has been cancelled meanwhile.
std::optional<InstallCoordinator::Job> InstallCoordinator::_takeJob() {
    const StatesLock lock(_mutex);
    if (_ready.empty()) {
        return std::nullopt;
    }
    const CoordinatorStatePtr state = _ready.front();
    _ready.pop_front();
    const Step step = _nextStep(*state);
    state->work = step == Step::none ? CoordinatorState::Work::none : CoordinatorState::Work::running;
    return step == Step::none ? std::nullopt : std::optional(Job{state, step, _performanceOf(state, step)});
}

/// What runs without the lock, with copies of what may change meanwhile.
std::function<Result<void>()> InstallCoordinator::_performanceOf(const CoordinatorStatePtr& state, Step step) {
    if (step == Step::placeholder) {
        return [this, placeholder = state->placeholder, facts = state->placeholder->facts] {
            return _installPlaceholder(*placeholder, facts);
        };
    }
    if (step == Step::finish) {
        return [this, state] { return _restoreUserData(*state); };
    }
    return [this, state, options = *state->facts.options, asset = state->asset->record()] {
        auto installed = _installApp(*state, options, asset);
        const bool isThere = installed || _hasComeEarlier(*state, installed.error());
        return isThere ? _restoreUserData(*state) : installed;
    };
}

/// What comes of a step.
void InstallCoordinator::_record(const Job& job, const Result<void>& done) {
    const bool isDone = done && job.step != Step::placeholder;
    ErrorPtr error = done.error();
    if (done && job.step == Step::placeholder) {
        _placeholderWasInstalled(job.state);
    } else if (error && job.step == Step::app && _waitForAnotherFile(job.state, error)) {
        error = nullptr;
    }
    if (_beginEnd(job.state, isDone, error)) {
        _completeEnd(job.state);
    }
}

void InstallCoordinator::_placeholderWasInstalled(const CoordinatorStatePtr& state) {
    PromisePtr icon;
    double fraction = 0;
    {
        const StatesLock lock(_mutex);
        state->facts.isPlaceholderInstalled = true;
        const auto written = _store.update(*state);
        _passOver(*state, written);
        _report(state, [handle = _handleOf(state)](KXAppInstallObserverDelegate& delegate) {
            delegate.coordinatorDidInstallPlaceholder(handle);
        });
        if (written) { // else a restart installs the placeholder once more, with its icon
            icon = state->placeholder->facts.icon;
        }
        fraction = state->asset ? state->asset->fraction() : 0;
    }
    _removeIcon(icon);
    _showTransfer(*state, fraction);
}

/// Whether an install that failed leaves a restored app to wait on: the backup may be the only other place that has it.
/// Then its file is dropped.
bool InstallCoordinator::_waitForAnotherFile(const CoordinatorStatePtr& state, const ErrorPtr& error) {
    PromisePtr asset;
    {
        const StatesLock lock(_mutex);
        if (!_isWorking || state->cancelRequester || state->kind != CoordinatorKind::restoring ||
            state->facts.responsibleClient == 0 || _services.registry.isInstalled(state->bundleID)) {
            return false;
        }
        asset = std::exchange(state->asset, nullptr);
        asset->setOwner(nullptr);
        state->facts.error = error;
        // When this cannot be written a restart finds the file missing, and comes here again.
        _passOver(*state, _store.removePromise(asset->record().id));
    }
    _removeAsset(asset);
    return true;
}

/// Fixes the outcome when a step has ended the coordinator or somebody cancels it; else has the next step done. True:
/// `_completeEnd` is to follow.
bool InstallCoordinator::_beginEnd(const CoordinatorStatePtr& state, bool isDone, const ErrorPtr& error) {
    const StatesLock lock(_mutex);
    if (isDone) {
        _fixOutcome(*state, nullptr, std::nullopt);
    } else if (state->cancelRequester) {
        _fixOutcome(*state, state->cancelReason, state->cancelRequester);
    } else if (error && _isWorking) {
        _fixOutcome(*state, error, std::nullopt);
    } else {
        state->work = CoordinatorState::Work::none;
        _advance(state);
    }
    return state->facts.hasOutcome();
}

/// The first stage of the end: from now on nothing of the coordinator changes any more.
///
/// Each stage is written down, so that after a crash the end goes on where it was: a file that was removed does not
/// pass for one that was lost, nothing that belongs to a later coordinator of the app is cleared away, and nobody
/// misses a report. Where a stage cannot be written, a restart settles the coordinator by what it finds.
void InstallCoordinator::_fixOutcome(CoordinatorState& state, const ErrorPtr& error,
                                     std::optional<KXClientIdentifier> cancelledBy) {
    state.facts.end = CoordinatorEnd::clearing;
    state.facts.error = error;
    state.facts.cancelledBy = cancelledBy;
    state.cancelReason = nullptr; // a cancel that came too late is none
    _passOver(state, _store.update(state));
}

/// The further stages: clears away what is left, and has the outcome reported.
void InstallCoordinator::_completeEnd(const CoordinatorStatePtr& state) {
    _clearAway(*state);
    const StatesLock lock(_mutex);
    const bool isReported = !state->facts.cancelledBy || *state->facts.cancelledBy != state->creator;
    _passOver(*state, isReported ? _store.updateToReport(*state) : _store.remove(state->id));
    _coordinators.erase(state->bundleID);
    state->hasEnded = true;
    _changed.notifyAll();
    if (isReported) {
        _reportEnd(state);
    }
}

void InstallCoordinator::_waitForEnd(const CoordinatorState& state) {
    while (!state.hasEnded) {
        _changed.wait(_mutex);
    }
}

/// Tells of the outcome. Its row stays until somebody has been told, so that it outlasts the process until then.
void InstallCoordinator::_reportEnd(const CoordinatorStatePtr& state) {
    const auto call = [handle = _handleOf(state), error = state->facts.error, client = state->facts.cancelledBy, state,
                       this](KXAppInstallObserverDelegate& delegate) {
        const Span span(_services.files.timeline(), "callback", state->bundleID);
        if (client) {
            delegate.coordinator_canceledWithReason_client(handle, error, *client);
        } else {
            delegate.coordinatorDidCompleteSuccessfully(handle);
        }
    };
    _report(state, call, [this, state] { _passOver(*state, _store.remove(state->id)); });
}

void InstallCoordinator::_report(const CoordinatorStatePtr& state, InstallObservers::Call call,
                                 std::function<void()> delivered) {
    _observers.report(state->bundleID, state->creator, state->observer, std::move(call), std::move(delivered));
}

/// What could not be written and the install goes on without.
void InstallCoordinator::_passOver(const CoordinatorState& state, const Result<void>& done) {
    if (!done && _services.log) {
        _services.log->write(QRLogCategoryFramework, LogLevel::error, "%{public}@",
                             "the coordinator for " + state.bundleID +
                                 " goes on after a failure: " + errorText(done.error()));
    }
}

} // namespace appsync::device
