// The layout of binary property lists. All numbers are in big-endian order.
//
//   magic          8 bytes, "bplist00"
//   objects        each a marker byte (kind in the high half, a small number in the low half) and its content
//   offset table   for each object, where it starts
//   trailer        32 bytes: 6 unused, width of an offset, width of a reference, then as 8 bytes each the number of
//                  objects, the number of the root object, and where the offset table starts
//
// References are object numbers. A count of 15 or more is written as 15 in the marker and an integer object after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace appsync::propertylist {

inline constexpr std::string_view binaryMagic = "bplist00";
inline constexpr std::size_t trailerSize = 32;
inline constexpr std::size_t trailerOffsetWidth = 6; // where the fields stand in the trailer
inline constexpr std::size_t trailerReferenceWidth = 7;
inline constexpr std::size_t trailerObjectCount = 8;
inline constexpr std::size_t trailerRoot = 16;
inline constexpr std::size_t trailerOffsetTable = 24;

namespace marker {

inline constexpr std::uint8_t simple = 0x00; // the kind of the next three
inline constexpr std::uint8_t null = 0x00;
inline constexpr std::uint8_t falseValue = 0x08;
inline constexpr std::uint8_t trueValue = 0x09;
inline constexpr std::uint8_t integer = 0x10; // low half: exponent of two of the width in bytes; unsigned below 8 bytes
inline constexpr std::uint8_t real = 0x20;    // low half: the same
inline constexpr std::uint8_t date = 0x33;    // 8-byte real, seconds since 2001
inline constexpr std::uint8_t data = 0x40;    // low half of this and those below: the count
inline constexpr std::uint8_t ascii = 0x50;
inline constexpr std::uint8_t utf16 = 0x60;      // counted in 16-bit units
inline constexpr std::uint8_t uid = 0x80;        // known, but no property-list object
inline constexpr std::uint8_t array = 0xA0;      // references of the items
inline constexpr std::uint8_t dictionary = 0xD0; // references of all keys, then of all values
inline constexpr std::uint8_t longCount = 0x0F;  // low half: an integer object with the count follows

} // namespace marker

} // namespace appsync::propertylist
