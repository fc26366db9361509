#include "device/services/Notifications.h"

#include <algorithm>

namespace appsync::device {

namespace {

bool isValidName(std::string_view name) {
    return !name.empty() && name.find('\0') == std::string_view::npos;
}

} // namespace

std::size_t NotificationNames::_indexOf(std::string_view name) {
    const auto found = _indexes.find(name);
    if (found != _indexes.end()) {
        return found->second;
    }
    _names.push_back({std::string(name), 0, 0, {}});
    _indexes.emplace(name, _names.size() - 1);
    return _names.size() - 1;
}

const NotificationNames::Name* NotificationNames::_find(std::string_view name) const {
    const auto found = _indexes.find(name);
    return found == _indexes.end() ? nullptr : &_names[found->second];
}

std::uint32_t NotificationNames::notify_register_check(std::string_view name, int* token) noexcept {
    if (!isValidName(name) || !token) {
        return NotificationStatusInvalidName;
    }
    const std::lock_guard lock(_mutex);
    *token = static_cast<int>(_indexOf(name)) + 1;
    return NotificationStatusOK;
}

std::uint32_t NotificationNames::notify_set_state(int token, std::uint64_t newState) noexcept {
    const std::lock_guard lock(_mutex);
    if (token < 1 || static_cast<std::size_t>(token) > _names.size()) {
        return NotificationStatusInvalidToken;
    }
    _names[static_cast<std::size_t>(token) - 1].state = newState;
    return NotificationStatusOK;
}

std::uint32_t NotificationNames::notify_post(std::string_view name) noexcept {
    if (!isValidName(name)) {
        return NotificationStatusInvalidName;
    }
    std::vector<std::shared_ptr<Listener>> listeners;
    std::uint64_t present = 0;
    {
        const std::lock_guard lock(_mutex);
        Name& posted = _names[_indexOf(name)];
        ++posted.posts;
        present = posted.state;
        posted.listeners.remove_if([&](const std::weak_ptr<Listener>& held) {
            auto listener = held.lock();
            const bool gone = !listener;
            listeners.push_back(std::move(listener));
            return gone;
        });
    }
    for (const auto& listener : listeners) {
        if (listener) {
            (*listener)(name, present);
        }
    }
    return NotificationStatusOK;
}

std::uint64_t NotificationNames::state(std::string_view name) const {
    const std::lock_guard lock(_mutex);
    const Name* known = _find(name);
    return known ? known->state : 0;
}

std::uint64_t NotificationNames::postCount(std::string_view name) const {
    const std::lock_guard lock(_mutex);
    const Name* known = _find(name);
    return known ? known->posts : 0;
}

std::shared_ptr<void> NotificationNames::listen(std::string_view name, Listener listener) {
    auto held = std::make_shared<Listener>(std::move(listener));
    const std::lock_guard lock(_mutex);
    _names[_indexOf(name)].listeners.push_back(held);
    return held;
}

DeviceNotificationCenter::~DeviceNotificationCenter() {
    _thread.stop();
}

void DeviceNotificationCenter::addObserver(void* observer, NotificationCallback callback, std::string_view name,
                                           const void* object, NotificationSuspensionBehavior) noexcept {
    const std::lock_guard lock(_mutex);
    for (const auto& known : _observations) {
        if (known->observer == observer && known->name == name && known->object == object) {
            known->callback = callback;
            return;
        }
    }
    _observations.push_back(
        std::make_shared<Observation>(Observation{observer, callback, std::string(name), object, false, false}));
}

void DeviceNotificationCenter::removeObserver(void* observer, std::string_view name) noexcept {
    std::unique_lock lock(_mutex);
    const auto isMeant = [&](const std::shared_ptr<Observation>& known) {
        return known->observer == observer && known->name == name;
    };
    Observations removed;
    std::copy_if(_observations.begin(), _observations.end(), std::back_inserter(removed), isMeant);
    std::erase_if(_observations, isMeant);
    for (const auto& observation : removed) {
        observation->removed = true;
    }
    if (_deliveryThread == std::this_thread::get_id()) {
        return;
    }
    _callEnded.wait(lock, [&] {
        return std::none_of(removed.begin(), removed.end(), [](const auto& known) { return known->running; });
    });
}

void DeviceNotificationCenter::post(std::string_view name, const void* object, std::optional<Dictionary> userInfo) {
    Observations observations;
    {
        const std::lock_guard lock(_mutex);
        std::copy_if(
            _observations.begin(), _observations.end(), std::back_inserter(observations),
            [&](const auto& known) { return known->name == name && (!known->object || known->object == object); });
    }
    if (observations.empty()) {
        return;
    }
    _undelivered.enter();
    const bool accepted = _thread.addOperation([this, observations = std::move(observations), name = std::string(name),
                                                object, userInfo = std::move(userInfo)] {
        _deliver(observations, name, object, userInfo ? &*userInfo : nullptr);
        _undelivered.leave();
    });
    if (!accepted) {
        _undelivered.leave();
    }
}

void DeviceNotificationCenter::waitUntilDelivered() {
    _undelivered.wait();
}

void DeviceNotificationCenter::_deliver(const Observations& observations, const std::string& name, const void* object,
                                        const Dictionary* userInfo) {
    for (const auto& observation : observations) {
        NotificationCallback callback = nullptr;
        {
            const std::lock_guard lock(_mutex);
            if (observation->removed) {
                continue;
            }
            callback = observation->callback;
            observation->running = true;
            _deliveryThread = std::this_thread::get_id();
        }
        callback(this, observation->observer, name, object, userInfo);
        const std::lock_guard lock(_mutex);
        observation->running = false;
        _deliveryThread = {};
        _callEnded.notify_all();
    }
}

} // namespace appsync::device
