// Who unpacks at the same time: so many that no core is idle, each with the memory for it.
#pragma once

#include "archive/ArchiveMemory.h"
#include "concurrency/AllCores.h"
#include "concurrency/Mutex.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>
#include <vector>

namespace appsync::device {

/// More at once would need more memory and take as long. Two more than there are cores: one for who waits for the disk,
/// and one so that a small archive does not wait for a large one that all cores unpack. Any thread.
class UnpackingPlaces {
  public:
    explicit UnpackingPlaces(std::size_t count = coreCount() + 2) : _count(count) {}
    UnpackingPlaces(const UnpackingPlaces&) = delete;
    UnpackingPlaces& operator=(const UnpackingPlaces&) = delete;

    /// One of them, until the object is gone.
    class Place {
      public:
        Place(UnpackingPlaces& places, std::unique_ptr<ArchiveMemory> memory)
            : _places(&places), _memory(std::move(memory)) {}
        ~Place() {
            if (_memory) {
                _places->_giveBack(std::move(_memory));
            }
        }
        Place(Place&&) noexcept = default;
        Place& operator=(Place&&) = delete;

        [[nodiscard]] ArchiveMemory& memory() const noexcept { return *_memory; }

      private:
        UnpackingPlaces* _places;
        std::unique_ptr<ArchiveMemory> _memory;
    };

    /// Waits for a place; nullopt when it was cancelled before there was one.
    [[nodiscard]] std::optional<Place> take(const std::stop_token& cancel) EXCLUDES(_mutex);
    /// A further place for who has one. Nullopt: none is free but the last, which is left to who comes next.
    [[nodiscard]] std::optional<Place> takeSpare() EXCLUDES(_mutex);

  private:
    [[nodiscard]] Place _take() REQUIRES(_mutex);
    void _giveBack(std::unique_ptr<ArchiveMemory> memory) EXCLUDES(_mutex);

    const std::size_t _count;
    Mutex _mutex;
    Condition _changed;
    std::size_t _taken GUARDED_BY(_mutex) = 0;
    std::vector<std::unique_ptr<ArchiveMemory>> _spare GUARDED_BY(_mutex); // as long as somebody unpacks
};

} // namespace appsync::device
