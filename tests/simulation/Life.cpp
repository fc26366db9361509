#include "tests/simulation/Life.h"

#include "tests/simulation/CallScope.h"
#include "tests/simulation/Invariants.h"
#include "tests/simulation/Surroundings.h"

namespace appsync::simulation {

namespace {

constexpr std::array<std::size_t, 5> failureRates = {0, 0, 300, 60, 15};
constexpr std::array<std::size_t, 3> interruptionRates = {15, 60, 400};
constexpr std::string_view startUpComplete = "com.zuvex.qrd.QRStartupCompleteNotification";

ErrorPtr someTransferError(Chance& chance) {
    switch (chance.below(5)) {
    case 0: return nullptr;
    case 1: return Error::make("Net", 1);
    case 2: return Error::make("PendryError", 2);
    default: return Error::make(QRErrorDomain, 2);
    }
}

} // namespace

Life::Life(std::uint64_t seed, Tally& tally, OtherThreads& threads, bool records)
    : _state(seed, tally), _threads(threads), _log(_state.world.log, _state.world.journal, threads.later),
      _calls(_state, threads.later), _chaos(_state, _calls, threads) {
    _state.world.journal.setRecording(records);
    InstallStage::instance() = {};
}

Life::~Life() {
    _state.client = nullptr;
}

std::optional<Violation> Life::live() {
    Chance& chance = _state.chance;
    furnish(_state);
    _chaos.failsOneIn = chance.among(failureRates);
    if (chance.oneIn(5)) {
        _chaos.broken = someFallibleCall(chance);
    }
    _chaos.interruptedOneIn = chance.among(interruptionRates);
    if (chance.oneIn(5)) {
        _chaos.callsUntilDeath = 1 + chance.below(400);
    }
    _beBorn();
    for (std::size_t episodes = 1 + chance.below(4); episodes > 0 && !_state.violation; --episodes) {
        _liveAnEpisode();
        if (_goesOn()) {
            checkAtRest(_state);
        }
    }
    if (!_state.violation) {
        _threads.later.run([this] { _calls.takeEveryLock(); });
    }
    _state.client = nullptr;
    checkAfterTheEnd(_state);
    return _state.violation;
}

void Life::_beBorn() {
    auto& world = _state.world;
    _state.client = AppsClient::init(world.platform(_log), std::make_unique<StagedQueue>());
    for (std::size_t times = _state.chance.below(3); times > 0; --times) {
        world.center.post(startUpComplete);
    }
}

void Life::_liveAnEpisode() {
    const std::size_t kind = _state.chance.below(10);
    if (kind < 7) {
        _sync();
    } else if (kind < 9) {
        _restore();
    } else {
        _calls.wipe();
    }
}

void Life::_sync() {
    Chance& chance = _state.chance;
    const auto staged = stageSync(_state);
    _state.tally.add(Event::sync);
    _state.client->prepareForSyncWithHostAnchor_progressCallback_error("anchor", nullptr, nullptr);
    if (!_calls.reconcile(staged) || !_goesOn()) {
        return;
    }
    _calls.takeInventory();
    if (!_goesOn()) {
        return;
    }
    _calls.plan();
    if (!_goesOn()) {
        return;
    }
    _transfer();
    if (!_state.transferPhase || !_goesOn()) {
        return;
    }
    const bool success = chance.percent(80);
    _calls.endTransfers(success);
    if (!_goesOn()) {
        return;
    }
    for (std::size_t coordinators = chance.below(4); coordinators > 0; --coordinators) {
        _calls.completeACoordinator();
    }
    if (!_goesOn()) {
        return;
    }
    _calls.endSync(success);
    _calls.letServicesAct();
}

/// The transfers of a sync, in any order. The transfer phase is over afterwards if the host has died.
void Life::_transfer() {
    Chance& chance = _state.chance;
    InstallStage& stage = InstallStage::instance();
    _state.transferPhase = true;
    for (std::size_t steps = 4 * _state.transfers.size() + chance.below(8); steps > 0 && _goesOn(); --steps) {
        const std::size_t kind = chance.below(20);
        if (kind < 11 && !_state.transfers.empty()) {
            _doSomethingWith(chance.below(_state.transfers.size()));
        } else if (kind < 14 && stage.size() > 0) {
            _calls.runAnInstall(chance.below(stage.size()));
        } else if (kind == 14) {
            _calls.passTime();
        } else if (kind == 15) {
            _calls.showPlaceholder(chance.oneOf(_state.identifiers));
        } else if (kind == 16) {
            _calls.cancel(chance.oneOf(_state.identifiers));
        } else if (kind == 17) {
            _calls.completeACoordinator();
        } else if (kind == 18) {
            chance.percent(50) ? _calls.cancelRestores() : _calls.letServicesAct();
        } else if (chance.oneIn(stage.retryCount() == 0 ? 40 : 4)) {
            _state.tally.add(Event::hostDeath);
            _die();
        }
        if (!_state.transferPhase) {
            return;
        }
    }
}

void Life::_doSomethingWith(std::size_t transfer) {
    Chance& chance = _state.chance;
    const std::size_t kind = chance.below(_state.transfers[transfer].ended ? 24 : 8);
    if (kind < 4) {
        _calls.reportProgress(transfer);
    } else if (kind < 7) {
        _calls.arrive(transfer);
    } else if (kind == 7) {
        _calls.fail(transfer, someTransferError(chance));
    }
}

void Life::_restore() {
    stageRestore(_state);
    _calls.restore(_state.chance.percent(85) ? 2 : 1);
    if (_goesOn()) {
        _calls.completeACoordinator();
        _calls.letServicesAct();
    }
}

bool Life::_goesOn() {
    if (_state.dead) {
        _die();
        return false;
    }
    return !_state.violation;
}

/// The host's process ends, and a new one begins with what is on the device.
void Life::_die() {
    InstallStage& stage = InstallStage::instance();
    const std::size_t dropped = stage.dropped;
    _state.tally.add(Event::retryDropped, stage.retryCount());
    _state.client = nullptr;
    _state.tally.add(Event::installDropped, stage.dropped - dropped);
    const bool wasDead = std::exchange(_state.dead, false);
    if (wasDead) {
        const Array records = identifiersIn(_state.toDoList);
        resyncFiles(_state);
        _state.demand(records.empty() || records == identifiersIn(_state.toDoList), "the to-do list keeps its records",
                      "the to-do list after the host's death");
        _state.assertions.clear(); // gone with the process
    }
    checkAfterTheEnd(_state);
    stage = {};
    _state.transferPhase = false;
    _state.outstanding.clear();
    _state.updating.clear();
    _state.cancelled.clear();
    _state.attempts = 0;
    _chaos.callsUntilDeath = 0;
    _beBorn();
}

} // namespace appsync::simulation
