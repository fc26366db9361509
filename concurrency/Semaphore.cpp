#include "concurrency/Semaphore.h"

namespace appsync {

void Semaphore::signal() {
    // Notified under the lock, so that the waiter may destroy the semaphore as soon as it wakes.
    const Lock lock(_mutex);
    ++_count;
    _signalled.notifyOne();
}

bool Semaphore::wait(std::optional<std::chrono::milliseconds> bound) {
    const auto end = std::chrono::steady_clock::now() + bound.value_or(std::chrono::milliseconds(0));
    const Lock lock(_mutex);
    while (_count == 0) {
        if (!bound) {
            _signalled.wait(_mutex);
        } else if (!_signalled.waitUntil(_mutex, end) && _count == 0) {
            return false;
        }
    }
    --_count;
    return true;
}

} // namespace appsync
