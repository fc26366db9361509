#include "device/archive/UnpackingPlaces.h"

namespace appsync::device {

std::optional<UnpackingPlaces::Place> UnpackingPlaces::take(const std::stop_token& cancel) {
    const std::stop_callback wake(cancel, [this] {
        const Lock lock(_mutex);
        _changed.notifyAll();
    });
    const Lock lock(_mutex);
    while (_taken == _count && !cancel.stop_requested()) {
        _changed.wait(_mutex);
    }
    return _taken < _count ? std::optional(_take()) : std::nullopt;
}

std::optional<UnpackingPlaces::Place> UnpackingPlaces::takeSpare() {
    const Lock lock(_mutex);
    return _taken + 1 < _count ? std::optional(_take()) : std::nullopt;
}

UnpackingPlaces::Place UnpackingPlaces::_take() {
    ++_taken;
    if (_spare.empty()) {
        return {*this, std::make_unique<ArchiveMemory>()};
    }
    auto memory = std::move(_spare.back());
    _spare.pop_back();
    return {*this, std::move(memory)};
}

void UnpackingPlaces::_giveBack(std::unique_ptr<ArchiveMemory> memory) {
    std::vector<std::unique_ptr<ArchiveMemory>> unused;
    {
        const Lock lock(_mutex);
        _spare.push_back(std::move(memory));
        if (--_taken == 0) {
            unused.swap(_spare);
        }
        _changed.notifyOne(); // under the lock: whoever waits may end this object next
    }
}

} // namespace appsync::device
