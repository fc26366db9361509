#include "tests/simulation/Chaos.h"

#include "platform/InstallationService.h"
#include "plugin/client/Paths.h"
#include "tests/simulation/Invariants.h"
#include "tests/simulation/Program.h"

namespace appsync::simulation {

namespace {

constexpr std::array<std::string_view, 45> fallibleCalls = {
    "files.createDirectory",
    "files.removeItem",
    "files.moveItem",
    "files.copyItem",
    "files.readFile",
    "files.writeFileAtomically",
    "files.createFile",
    "files.attributesOfItem",
    "files.utimes",
    "plist.parse",
    "plist.serialise",
    "registry.applicationProxyForIdentifier",
    "registry.installApplication",
    "registry.installPlaceholder",
    "registry.uninstallApplication",
    "coordinators.any",
    "coordinators.initiating",
    "coordinators.updating",
    "coordinators.restoring",
    "coordinators.restoringDemoted",
    "coordinators.uninstallApp",
    "coordinator.setInstallOptions",
    "coordinator.setInitialODRAssetPromises",
    "coordinator.setAppAssetPromise",
    "coordinator.setPlaceholderPromise",
    "coordinator.setUserDataPromise",
    "coordinator.setAppAssetPromiseResponsibleClient",
    "coordinator.cancel",
    "placeholders.init",
    "placeholder.setPlaceholderAttributes",
    "placeholder.setMetadata",
    "placeholder.setSinfData",
    "placeholder.setIconPromise",
    "placeholder.setConfigurationComplete",
    "placeholder.cancel",
    "promises.transfer",
    "promises.outOfBand",
    "bundles.bundleWithURL",
    "icons.render",
    "image.destination",
    "image.finalize",
    "notify.register",
    "tevrin.clearUninstalled",
    "store.refreshReceipts",
    "observers.init",
};

constexpr std::array<std::string_view, 4> errorDomains = {"Net", "Fatal", TVInstallerErrorDomain, "PendryError"};

/// The plug-in holds a lock of its own around each change of these files, so nothing may come in between; nor between
/// the note that a retry is scheduled and its being so, since retries are told apart by their order.
bool isOneStep(std::string_view call, std::string_view arguments) {
    return call == "scheduler.runAfter" || call.starts_with("plist.") ||
           (call.starts_with("files.") && (arguments == paths::toDoList || arguments == paths::restoreState));
}

/// What the home screen answers a request for an assertion; null for "granted".
ErrorPtr someAnswer(Chance& chance) {
    const std::size_t kind = chance.below(20);
    return kind < 2    ? Error::make("screen", SKSTerminationAssertionDenied)
           : kind == 2 ? Error::make("screen", SKSTerminationAssertionNotFound)
           : kind == 3 ? Error::make("screen", 9)
                       : nullptr;
}

} // namespace

std::string_view someFallibleCall(Chance& chance) {
    return chance.among(fallibleCalls);
}

Chaos::Chaos(State& state, Calls& calls, OtherThreads& threads) : _state(state), _calls(calls), _threads(threads) {
    state.world.context.interceptor = [this](std::string_view call, std::string_view arguments) {
        return _intercept(call, arguments);
    };
}

ErrorPtr Chaos::_intercept(std::string_view call, std::string_view arguments) {
    ++callCount;
    _waitForLater();
    if (call == "coordinators.uninstallAppLater") {
        _state.uninstallsUnderWay.emplace_back(arguments.substr(0, arguments.find(',')));
    }
    if (call == "scheduler.runAfter") {
        InstallStage::instance().scheduleRetry();
    }
    if (!_state.frames.empty() && callsUntilDeath > 0 && --callsUntilDeath == 0) {
        _state.dead = true;
        _state.tally.add(Event::hostDeathWithinACall);
    }
    ErrorPtr fault = _state.dead ? inmemory::injectedError() : _live(call, arguments);
    if (call == "store.refreshReceipts" && !_state.world.store.completesAtOnce) {
        _completeRefresh(); // last, since the other thread goes on from here while this one waits
    }
    return fault;
}

ErrorPtr Chaos::_live(std::string_view call, std::string_view arguments) {
    ErrorPtr fault = call == "screen.assertion" ? someAnswer(_state.chance) : _fault(call);
    watch(_state, call, arguments, fault);
    if (!isOneStep(call, arguments)) {
        _interrupt();
    }
    return fault;
}

/// A call of the host's thread after it has waited: whatever it waited for must be over.
void Chaos::_waitForLater() {
    if (!_calls.laterIsRunning) {
        return;
    }
    if (std::this_thread::get_id() != _host) {
        if (_hostIsBack) {
            _state.violated("the end of the transfers waits for every install", "an install goes on after it");
        }
        return;
    }
    _hostIsBack = true;
    _threads.later.join();
    _hostIsBack = false;
    _calls.laterIsRunning = false;
}

ErrorPtr Chaos::_fault(std::string_view call) {
    const bool fails = (failsOneIn > 0 && _state.chance.oneIn(failsOneIn)) ||
                       (call == "registry.installApplication" && _state.chance.percent(15));
    if (!_state.frames.empty() && (fails || call == broken) &&
        std::ranges::find(fallibleCalls, call) != fallibleCalls.end()) {
        _state.tally.add(Event::failureInjected);
        return Error::make(_state.chance.among(errorDomains), 7);
    }
    return nullptr;
}

/// The store client answers from the other thread, while the host waits.
void Chaos::_completeRefresh() {
    auto completions = std::exchange(_state.world.store.completions, {});
    const ErrorPtr answer = _state.chance.percent(30) ? Error::make("Net", 6) : nullptr;
    _calls.laterIsRunning = true;
    _threads.later.start([completions = std::move(completions), answer] {
        for (const auto& completion : completions) {
            completion(answer);
        }
    });
}

void Chaos::_interrupt() {
    if (_state.frames.empty() || _depth >= _threads.inTheMidst.size() || !_state.chance.oneIn(interruptedOneIn)) {
        return;
    }
    _state.tally.add(Event::callWithinACall);
    // No lock of the plug-in is held across this call, so another thread's call ends before it.
    OtherThread& thread = _threads.inTheMidst[_depth++];
    thread.run([this] { _callInBetween(); });
    --_depth;
}

void Chaos::_callInBetween() {
    State& state = _state;
    InstallStage& stage = InstallStage::instance();
    const auto identifier = state.identifiers.empty() ? std::string("nobody") : state.chance.oneOf(state.identifiers);
    const auto notBusy = [&](std::size_t position) {
        return !state.isBusy(state.transfers[position].asset->identifier);
    };
    switch (stage.size() > 0 && state.chance.percent(60) ? 4 : state.chance.below(8)) {
    case 0:
    case 1:
        if (!state.isBusy(identifier)) {
            _calls.cancel(identifier);
        }
        return;
    case 2: _calls.prioritise(identifier); return;
    case 3: _calls.askAside(); return;
    case 4:
    case 5:
        if (stage.size() > 0) {
            const std::size_t position = state.chance.below(stage.size());
            if (notBusy(stage.labelOf(position))) {
                state.tally.add(Event::installWithinACall);
                _calls.runAnInstall(position);
            }
        }
        return;
    default:
        if (state.transferPhase && !state.transfers.empty()) {
            const std::size_t position = state.chance.below(state.transfers.size());
            if (notBusy(position)) {
                _calls.reportProgress(position);
            }
            _calls.completeACoordinator();
        }
        return;
    }
}

bool ListeningLog::isEnabled(QRLogCategory /*category*/, LogLevel /*level*/) noexcept {
    if (_journal.isRecording()) {
        return true;
    }
    _later.tell();
    return false;
}

void ListeningLog::write(QRLogCategory category, LogLevel level, std::string_view format,
                         std::string_view text) noexcept {
    _log.write(category, level, format, text);
    _later.tell();
}

} // namespace appsync::simulation
