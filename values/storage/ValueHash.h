// A fast hash of bytes. Not for use outside `values/` and the codec.
#pragma once

#include "values/storage/ValueCell.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace appsync::detail {

/// Depends on the seed in such a way that keys which collide can only be found by whoever knows the seed. The address
/// of the table that is filled serves well.
class Hasher {
  public:
    explicit Hasher(const void* seed) noexcept
        : _first(fold(reinterpret_cast<std::uintptr_t>(seed) ^ 0x9E3779B97F4A7C15, 0xBF58476D1CE4E5B9)),
          _second(fold(_first ^ 0x94D049BB133111EB, 0xD6E8FEB86659FD93)) {}

    [[nodiscard]] std::uint64_t operator()(Cell::Words words) const noexcept {
        return mixed(_first, words.first, words.second);
    }
    [[nodiscard]] std::uint64_t operator()(std::string_view bytes) const noexcept {
        const char* at = bytes.data();
        std::size_t left = bytes.size();
        std::uint64_t hash = _first + left * 0x9E3779B97F4A7C15;
        for (; left > 16; left -= 16, at += 16) {
            hash = mixed(hash, load<std::uint64_t>(at), load<std::uint64_t>(at + 8));
        }
        if (left >= 8) {
            return mixed(hash, load<std::uint64_t>(at), load<std::uint64_t>(at + left - 8));
        }
        if (left >= 4) {
            return mixed(hash, load<std::uint32_t>(at), load<std::uint32_t>(at + left - 4));
        }
        std::uint64_t few = 0;
        for (; left > 0; --left) {
            few = few << 8 | static_cast<unsigned char>(*at++);
        }
        return mixed(hash, few, 0);
    }

  private:
    [[nodiscard]] std::uint64_t mixed(std::uint64_t hash, std::uint64_t a, std::uint64_t b) const noexcept {
        return fold(a ^ hash, b ^ _second);
    }
    template <class Word> static std::uint64_t load(const char* at) noexcept {
        Word word;
        std::memcpy(&word, at, sizeof word);
        return word;
    }
    /// The two halves of a product, on top of each other: every bit of the result depends on all bits of both.
    static std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }

    std::uint64_t _first;
    std::uint64_t _second;
};

} // namespace appsync::detail
