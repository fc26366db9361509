#include "device/registry/Announcer.h"

#include "device/root/PosixError.h"

namespace appsync::device {

namespace {

std::vector<std::string> identifiersOf(const PDApplicationProxies& applications) {
    std::vector<std::string> identifiers;
    identifiers.reserve(applications.size());
    for (const PDApplicationProxyPtr& application : applications) {
        identifiers.push_back(application->applicationIdentifier());
    }
    return identifiers;
}

} // namespace

Announcer::~Announcer() {
    Observers removed;
    {
        const Lock lock(_mutex);
        removed.swap(_observers);
        _hurry();
    }
    for (const auto& observer : removed) {
        observer->gate.close();
    }
    _thread.stop();
}

Result<void> Announcer::start() {
    return _thread.start() ? nullptr : makeNoThreadError("the registry's observers");
}

void Announcer::addObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    auto added = std::make_shared<Observer>();
    added->observer = observer;
    const Lock lock(_mutex);
    _observers.push_back(std::move(added));
    _hurry();
    _schedule();
}

void Announcer::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    Observers removed;
    {
        const Lock lock(_mutex);
        std::erase_if(_observers, [&](const auto& known) {
            const bool isRemoved = known->observer == observer;
            if (isRemoved) {
                removed.push_back(known);
            }
            return isRemoved;
        });
    }
    for (const auto& observed : removed) {
        observed->gate.close();
    }
}

void Announcer::announceChange() {
    const Lock lock(_mutex);
    if (!_observers.empty()) { // progress changes often, and mostly nobody looks
        _schedule();
    }
}

void Announcer::announceCancellation(PDApplicationProxies applications) {
    const Lock lock(_mutex);
    if (!_observers.empty()) {
        _cancellations.push_back(std::move(applications));
        _hurry();
        _schedule();
    }
}

void Announcer::_schedule() {
    if (!std::exchange(_isScheduled, true)) {
        _thread.addOperation([this] { _announce(); });
    }
}

void Announcer::_hurry() {
    _isHurried = true;
    _hurried.notifyAll();
}

void Announcer::_waitForTurn() {
    while (!_isHurried && _hurried.waitUntil(_mutex, _nextTurn)) {
    }
    _nextTurn = std::chrono::steady_clock::now() + pause;
    _isScheduled = _isHurried = false;
}

void Announcer::_announce() {
    std::vector<PDApplicationProxies> cancellations;
    Observers observers;
    {
        const Lock lock(_mutex);
        _waitForTurn();
        cancellations.swap(_cancellations);
        observers = _observers;
    }
    if (observers.empty()) {
        return;
    }
    const Lists lists = _currentLists();
    for (const auto& observer : observers) {
        _tell(*observer, lists, cancellations);
    }
}

/// The lists only when they are others than it was told last.
void Announcer::_tell(Observer& told, const Lists& lists, const std::vector<PDApplicationProxies>& cancellations) {
    std::pair identifiers(identifiersOf(lists.first), identifiersOf(lists.second));
    if (told.told != identifiers) {
        told.told = std::move(identifiers);
        told.gate.pass([&] { told.observer->applicationInstallsArePrioritized_arePaused(lists.first, lists.second); });
    }
    for (const PDApplicationProxies& applications : cancellations) {
        told.gate.pass([&] { told.observer->applicationInstallsDidCancel(applications); });
    }
}

} // namespace appsync::device
