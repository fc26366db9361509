#include "device/registry/Announcer.h"

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

Announcer::Announcer(std::function<Lists()> currentLists)
    : _currentLists(std::move(currentLists)), _thread([this] { _run(); }) {}

Announcer::~Announcer() {
    {
        const std::lock_guard lock(_mutex);
        _stopped = true;
        _all.clear();
        _wakened.notify_one();
    }
    _thread.join();
}

std::uint64_t Announcer::_add(Listener listener) {
    const std::lock_guard lock(_mutex);
    _all.emplace(++_lastNumber, std::move(listener));
    _hasNews = true;
    _wakened.notify_one();
    return _lastNumber;
}

void Announcer::_remove(std::uint64_t number) {
    std::unique_lock lock(_mutex);
    _all.erase(number);
    if (std::this_thread::get_id() != _thread.get_id()) {
        _callEnded.wait(lock, [&] { return _called != number; });
    }
}

void Announcer::addObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    Listener listener;
    listener.observer = observer;
    _add(std::move(listener));
}

void Announcer::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) {
    std::vector<std::uint64_t> numbers;
    {
        const std::lock_guard lock(_mutex);
        for (const auto& [number, listener] : _all) {
            if (listener.observer == observer) {
                numbers.push_back(number);
            }
        }
    }
    for (const std::uint64_t number : numbers) {
        _remove(number);
    }
}

std::uint64_t Announcer::subscribe(std::function<void()> changed) {
    Listener listener;
    listener.changed = std::move(changed);
    return _add(std::move(listener));
}

void Announcer::unsubscribe(std::uint64_t number) {
    _remove(number);
}

void Announcer::announceChange() {
    const std::lock_guard lock(_mutex);
    if (_all.empty()) {
        return; // progress changes often, and mostly nobody looks
    }
    _hasNews = true;
    _hasChange = true;
    _wakened.notify_one();
}

void Announcer::announceCancellation(PDApplicationProxies applications) {
    const std::lock_guard lock(_mutex);
    if (_all.empty()) {
        return;
    }
    _hasNews = true;
    _cancellations.push_back(std::move(applications));
    _wakened.notify_one();
}

std::vector<std::uint64_t> Announcer::_listeners() {
    std::vector<std::uint64_t> numbers;
    const std::lock_guard lock(_mutex);
    for (const auto& [number, listener] : _all) {
        numbers.push_back(number);
    }
    return numbers;
}

void Announcer::_run() {
    for (;;) {
        bool hasChange = false;
        std::vector<PDApplicationProxies> cancellations;
        {
            std::unique_lock lock(_mutex);
            _wakened.wait(lock, [this] { return _hasNews || _stopped; });
            if (_stopped) {
                return;
            }
            _hasNews = false;
            hasChange = std::exchange(_hasChange, false);
            cancellations.swap(_cancellations);
        }
        const Lists lists = _currentLists();
        for (const std::uint64_t number : _listeners()) {
            _tellLists(number, lists);
            for (const PDApplicationProxies& applications : cancellations) {
                _tell(number, [&](const Listener& listener) {
                    if (listener.observer) {
                        listener.observer->applicationInstallsDidCancel(applications);
                    }
                });
            }
            if (hasChange) {
                _tell(number, [](const Listener& listener) {
                    if (listener.changed) {
                        listener.changed();
                    }
                });
            }
        }
    }
}

void Announcer::_tellLists(std::uint64_t number, const Lists& lists) {
    {
        const std::lock_guard lock(_mutex);
        const auto found = _all.find(number);
        if (found == _all.end() || !found->second.observer) {
            return;
        }
        Listener& listener = found->second;
        auto prioritized = identifiersOf(lists.first);
        auto paused = identifiersOf(lists.second);
        if (listener.hasLists && listener.prioritized == prioritized && listener.paused == paused) {
            return;
        }
        listener.hasLists = true;
        listener.prioritized = std::move(prioritized);
        listener.paused = std::move(paused);
    }
    _tell(number, [&](const Listener& listener) {
        listener.observer->applicationInstallsArePrioritized_arePaused(lists.first, lists.second);
    });
}

/// Calls a listener if it is still there.
void Announcer::_tell(std::uint64_t number, const std::function<void(const Listener&)>& call) {
    Listener listener;
    {
        const std::lock_guard lock(_mutex);
        const auto found = _all.find(number);
        if (found == _all.end()) {
            return;
        }
        listener.observer = found->second.observer;
        listener.changed = found->second.changed;
        _called = number;
    }
    call(listener);
    const std::lock_guard lock(_mutex);
    _called = 0;
    _callEnded.notify_all();
}

} // namespace appsync::device
