#include "concurrency/Group.h"

#include <cassert>

namespace appsync {

void Group::enter() {
    const std::lock_guard lock(_mutex);
    ++_count;
}

void Group::leave() {
    const std::lock_guard lock(_mutex);
    assert(_count > 0);
    if (--_count == 0) {
        _empty.notify_all();
    }
}

void Group::wait() {
    std::unique_lock lock(_mutex);
    _empty.wait(lock, [this] { return _count == 0; });
}

std::size_t Group::count() const {
    const std::lock_guard lock(_mutex);
    return _count;
}

} // namespace appsync
