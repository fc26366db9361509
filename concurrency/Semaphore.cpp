#include "concurrency/Semaphore.h"

namespace appsync {

void Semaphore::signal() {
    // Notified under the lock, so that the waiter may destroy the semaphore as soon as it wakes.
    const std::lock_guard lock(_mutex);
    ++_count;
    _signalled.notify_one();
}

bool Semaphore::wait(std::optional<std::chrono::milliseconds> bound) {
    std::unique_lock lock(_mutex);
    const auto available = [this] { return _count > 0; };
    if (!bound) {
        _signalled.wait(lock, available);
    } else if (!_signalled.wait_for(lock, *bound, available)) {
        return false;
    }
    --_count;
    return true;
}

} // namespace appsync
