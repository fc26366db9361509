#include "device/services/Notifications.h"

#include <algorithm>

namespace appsync::device {

namespace {

bool isValidName(std::string_view name) {
    return !name.empty() && name.find('\0') == std::string_view::npos;
}

} // namespace

NotificationNames::Name& NotificationNames::_named(std::string_view name) {
    const auto found = std::ranges::find(_names, name, &Name::name);
    return found != _names.end() ? *found : _names.emplace_back(Name{std::string(name), 0, 0});
}

std::uint32_t NotificationNames::notify_register_check(std::string_view name, int* token) noexcept {
    if (!isValidName(name) || !token) {
        return notificationStatusInvalidName;
    }
    const Lock lock(_mutex);
    *token = static_cast<int>(&_named(name) - _names.data()) + 1;
    return notificationStatusOK;
}

std::uint32_t NotificationNames::notify_set_state(int token, std::uint64_t newState) noexcept {
    const Lock lock(_mutex);
    if (token < 1 || static_cast<std::size_t>(token) > _names.size()) {
        return notificationStatusInvalidToken;
    }
    _names[static_cast<std::size_t>(token) - 1].state = newState;
    return notificationStatusOK;
}

std::uint32_t NotificationNames::notify_post(std::string_view name) noexcept {
    if (!isValidName(name)) {
        return notificationStatusInvalidName;
    }
    const Lock lock(_mutex);
    ++_named(name).posts;
    return notificationStatusOK;
}

std::uint64_t NotificationNames::_read(std::string_view name, std::uint64_t Name::*number) const {
    const Lock lock(_mutex);
    const auto found = std::ranges::find(_names, name, &Name::name);
    return found != _names.end() ? (*found).*number : 0;
}

std::uint64_t NotificationNames::state(std::string_view name) const {
    return _read(name, &Name::state);
}

std::uint64_t NotificationNames::postCount(std::string_view name) const {
    return _read(name, &Name::posts);
}

DeviceNotificationCenter::~DeviceNotificationCenter() {
    _thread.stop();
}

void DeviceNotificationCenter::addObserver(void* observer, NotificationCallback callback, std::string_view name,
                                           const void* object, NotificationSuspensionBehavior) noexcept {
    const Lock lock(_mutex);
    for (const auto& known : _observations) {
        if (known->observer == observer && known->name == name && known->object == object) {
            known->callback = callback;
            return;
        }
    }
    auto observation = std::make_shared<Observation>();
    observation->observer = observer;
    observation->name = name;
    observation->object = object;
    observation->callback = callback;
    _observations.push_back(std::move(observation));
}

void DeviceNotificationCenter::removeObserver(void* observer, std::string_view name) noexcept {
    Observations removed;
    {
        const Lock lock(_mutex);
        const auto first = std::stable_partition(_observations.begin(), _observations.end(), [&](const auto& known) {
            return known->observer != observer || known->name != name;
        });
        removed.assign(first, _observations.end());
        _observations.erase(first, _observations.end());
    }
    for (const auto& observation : removed) {
        observation->gate.close();
    }
}

void DeviceNotificationCenter::post(std::string_view name, const void* object, std::optional<Dictionary> userInfo) {
    Observations observations;
    {
        const Lock lock(_mutex);
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
        observation->gate.pass(
            [&] { observation->callback.load()(this, observation->observer, name, object, userInfo); });
    }
}

} // namespace appsync::device
