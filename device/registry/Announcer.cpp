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
    _remove([](std::uint64_t, const Listener&) { return true; });
    {
        const Lock lock(_mutex);
        _hurry();
    }
    _thread.stop();
}

Result<void> Announcer::start() {
    return _thread.start() ? nullptr : makeNoThreadError("the registry's observers");
}

std::uint64_t Announcer::_add(ListenerPtr listener) {
    const Lock lock(_mutex);
    _all.emplace(++_lastNumber, std::move(listener));
    _hurry();
    _schedule();
    return _lastNumber;
}

void Announcer::_remove(const std::function<bool(std::uint64_t number, const Listener& listener)>& isMeant) {
    std::vector<ListenerPtr> removed;
    {
        const Lock lock(_mutex);
        std::erase_if(_all, [&](const auto& entry) {
            const bool isRemoved = isMeant(entry.first, *entry.second);
            if (isRemoved) {
                removed.push_back(entry.second);
            }
            return isRemoved;
        });
    }
    for (const ListenerPtr& listener : removed) {
        listener->gate.close();
    }
}

void Announcer::addObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    auto listener = std::make_shared<Listener>();
    listener->observer = observer;
    _add(std::move(listener));
}

void Announcer::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    _remove([&](std::uint64_t, const Listener& listener) { return listener.observer == observer; });
}

std::uint64_t Announcer::subscribe(std::function<void()> changed) {
    auto listener = std::make_shared<Listener>();
    listener->changed = std::move(changed);
    return _add(std::move(listener));
}

void Announcer::unsubscribe(std::uint64_t number) {
    _remove([&](std::uint64_t other, const Listener&) { return other == number; });
}

void Announcer::announceChange() {
    const Lock lock(_mutex);
    if (_all.empty()) {
        return; // progress changes often, and mostly nobody looks
    }
    _hasChange = true;
    _schedule();
}

void Announcer::announceCancellation(PDApplicationProxies applications) {
    const Lock lock(_mutex);
    if (_all.empty()) {
        return;
    }
    _cancellations.push_back(std::move(applications));
    _hurry();
    _schedule();
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
    bool hasChange = false;
    std::vector<PDApplicationProxies> cancellations;
    std::vector<ListenerPtr> listeners;
    {
        const Lock lock(_mutex);
        _waitForTurn();
        hasChange = std::exchange(_hasChange, false);
        cancellations.swap(_cancellations);
        for (const auto& [number, listener] : _all) {
            listeners.push_back(listener);
        }
    }
    if (listeners.empty()) {
        return;
    }
    const Lists lists = _currentLists();
    for (const ListenerPtr& listener : listeners) {
        if (listener->observer) {
            _tell(*listener, lists, cancellations);
        } else if (hasChange) {
            listener->gate.pass(listener->changed);
        }
    }
}

/// The lists only when they are others than it was told last.
void Announcer::_tell(Listener& listener, const Lists& lists, const std::vector<PDApplicationProxies>& cancellations) {
    std::pair identifiers(identifiersOf(lists.first), identifiersOf(lists.second));
    if (listener.told != identifiers) {
        listener.told = std::move(identifiers);
        listener.gate.pass(
            [&] { listener.observer->applicationInstallsArePrioritized_arePaused(lists.first, lists.second); });
    }
    for (const PDApplicationProxies& applications : cancellations) {
        listener.gate.pass([&] { listener.observer->applicationInstallsDidCancel(applications); });
    }
}

} // namespace appsync::device
