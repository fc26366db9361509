#include "concurrency/Group.h"

#include <cassert>

namespace appsync {

void Group::enter() {
    const Lock lock(_mutex);
    ++_count;
}

void Group::leave() {
    const Lock lock(_mutex);
    assert(_count > 0);
    if (--_count == 0) {
        _empty.notifyAll();
    }
}

void Group::wait() {
    const Lock lock(_mutex);
    while (_count > 0) {
        _empty.wait(_mutex);
    }
}

std::size_t Group::count() const {
    const Lock lock(_mutex);
    return _count;
}

} // namespace appsync
