// Room on the disk for installs that run side by side.
#pragma once

#include "concurrency/Mutex.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>

namespace appsync::device {

/// What several installs write before one of them ends must fit together; what does not, may fit afterwards. Any
/// thread.
class DiskRoom {
  public:
    /// Bytes; nullopt when it is not known how many are free.
    using FreeSpace = std::function<std::optional<std::uint64_t>()>;

    explicit DiskRoom(FreeSpace freeSpace) : _freeSpace(std::move(freeSpace)) {}

    /// What one install is promised, until the object is gone.
    class Share {
      public:
        explicit Share(DiskRoom& room) : _room(room) {}
        ~Share() {
            const Lock lock(_room._mutex);
            _room._promised -= _bytes;
            _room._changed.notifyAll();
        }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

        /// Once. Waits for other shares as long as there may be room when they are gone. Nullopt when the room is
        /// promised; else, also when it is cancelled, the bytes that are free.
        [[nodiscard]] std::optional<std::uint64_t> take(std::uint64_t bytes, const std::stop_token& cancel) {
            const std::stop_callback wake(cancel, [this] {
                const Lock lock(_room._mutex);
                _room._changed.notifyAll();
            });
            const Lock lock(_room._mutex);
            for (;;) {
                const auto free = _room._freeSpace();
                if (!free || (_room._promised <= *free && bytes <= *free - _room._promised)) {
                    _bytes = bytes;
                    _room._promised += bytes;
                    return std::nullopt;
                }
                if (_room._promised == 0 || cancel.stop_requested()) {
                    return free;
                }
                _room._changed.wait(_room._mutex);
            }
        }

      private:
        DiskRoom& _room;
        std::uint64_t _bytes = 0;
    };

  private:
    const FreeSpace _freeSpace;
    Mutex _mutex;
    Condition _changed;
    std::uint64_t _promised GUARDED_BY(_mutex) = 0;
};

} // namespace appsync::device
