// Numbers of 1 to 8 bytes in big-endian order, without a branch on their width.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace appsync::propertylist {

[[nodiscard]] inline std::uint64_t bigEndian(std::uint64_t number) noexcept {
    return std::endian::native == std::endian::little ? __builtin_bswap64(number) : number;
}

/// The largest number of so many bytes.
[[nodiscard]] constexpr std::uint64_t maxOfWidth(std::size_t width) noexcept {
    return ~std::uint64_t{0} >> (64 - 8 * width);
}

/// The fewest bytes that hold a number.
[[nodiscard]] constexpr std::size_t widthOf(std::uint64_t number) noexcept {
    return static_cast<std::size_t>(std::bit_width(number | 1) + 7) / 8;
}

/// Reads the number in `[at, at + width)`; the 8 bytes before its end must be readable. `largest` belongs to the width.
[[nodiscard]] inline std::uint64_t readNumber(const char* at, std::size_t width, std::uint64_t largest) noexcept {
    std::uint64_t word;
    std::memcpy(&word, at + width - 8, 8);
    return bigEndian(word) & largest;
}
[[nodiscard]] inline std::uint64_t readNumber(const char* at, std::size_t width) noexcept {
    return readNumber(at, width, maxOfWidth(width));
}

/// Writes a number to `[at, at + width)`; the 8 bytes from `at` on must be writable and may change.
inline void writeNumber(char* at, std::uint64_t number, std::size_t width) noexcept {
    const std::uint64_t word = bigEndian(number << (64 - 8 * width));
    std::memcpy(at, &word, 8);
}

} // namespace appsync::propertylist
