// Every decision of a life, from one seed, the same with every compiler and library.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace appsync::simulation {

class Chance {
  public:
    explicit Chance(std::uint64_t seed) noexcept : _state(seed) {}

    std::uint64_t next() noexcept {
        _state += 0x9e3779b97f4a7c15U;
        std::uint64_t mixed = _state;
        mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
        return mixed ^ (mixed >> 31U);
    }
    /// A number below `count`, which is not 0.
    std::size_t below(std::size_t count) noexcept { return static_cast<std::size_t>(next() % count); }
    bool percent(unsigned share) noexcept { return below(100) < share; }
    bool oneIn(std::size_t count) noexcept { return below(count) == 0; }
    template <class Item, std::size_t count> const Item& among(const std::array<Item, count>& items) noexcept {
        return items[below(count)];
    }
    template <class Items> auto& oneOf(Items& items) noexcept { return items[below(items.size())]; }

  private:
    std::uint64_t _state;
};

} // namespace appsync::simulation
