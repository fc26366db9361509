// Finds an object's number by the hash of its bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace appsync::propertylist {

class ObjectIndex {
  public:
    struct Result {
        std::uint32_t number;
        bool isNew;
    };

    /// `expected` is how many objects there may be; more are no problem.
    explicit ObjectIndex(std::size_t expected) : _slots(std::bit_ceil(expected + 16)) {}

    /// The number of the object with this hash for which `isSame(number)` holds. When there is none, it is new and has
    /// the next number, beginning with 0.
    template <class IsSame> [[nodiscard]] Result findOrAdd(std::uint64_t hash, IsSame isSame) {
        if (_count >= _slots.size() / 4 * 3) {
            grow();
        }
        const auto kept = static_cast<std::uint32_t>(hash);
        const std::size_t mask = _slots.size() - 1;
        std::size_t i = kept & mask;
        for (; _slots[i].numberPlusOne != 0; i = (i + 1) & mask) {
            if (_slots[i].hash == kept && isSame(_slots[i].numberPlusOne - 1)) {
                return {_slots[i].numberPlusOne - 1, false};
            }
        }
        _slots[i] = {kept, ++_count};
        return {_count - 1, true};
    }

    /// Says that a hash will be looked up soon.
    void prefetch(std::uint64_t hash) const noexcept {
        __builtin_prefetch(&_slots[static_cast<std::uint32_t>(hash) & (_slots.size() - 1)]);
    }
    [[nodiscard]] std::size_t size() const noexcept { return _count; }

  private:
    struct Slot {
        std::uint32_t hash;
        std::uint32_t numberPlusOne; // 0: free
    };

    void grow() {
        std::vector<Slot> larger(_slots.size() * 2);
        const std::size_t mask = larger.size() - 1;
        for (const Slot& slot : _slots) {
            if (slot.numberPlusOne != 0) {
                std::size_t i = slot.hash & mask;
                while (larger[i].numberPlusOne != 0) {
                    i = (i + 1) & mask;
                }
                larger[i] = slot;
            }
        }
        _slots = std::move(larger);
    }

    std::vector<Slot> _slots; // open addressing, at most 3/4 full
    std::uint32_t _count = 0;
};

} // namespace appsync::propertylist
