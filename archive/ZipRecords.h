// The records of a zip archive as their bytes say them. Nothing is read from a file here and nothing compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace appsync::zip {

// Sizes of the records without their texts.
inline constexpr std::size_t endRecordSize = 22;
inline constexpr std::size_t locator64Size = 20;
inline constexpr std::size_t endRecord64Size = 56;
inline constexpr std::size_t entryRecordSize = 46;
inline constexpr std::size_t localHeaderSize = 30;
inline constexpr std::size_t maxDescriptorSize = 24;
inline constexpr std::size_t maxCommentSize = 0xffff;

inline constexpr unsigned methodStored = 0;
inline constexpr unsigned methodDeflated = 8;
inline constexpr unsigned encryptedFlags = 1U << 0 | 1U << 6 | 1U << 13;
inline constexpr unsigned descriptorFlag = 1U << 3; // of a local header: a descriptor follows the content
inline constexpr unsigned patchFlag = 1U << 5;
inline constexpr unsigned madeOnDos = 0;
inline constexpr unsigned madeOnUnix = 3;

/// What a record says of the sizes of an entry's content.
struct Sizes {
    std::uint64_t packed = 0;
    std::uint64_t unpacked = 0;
    bool operator==(const Sizes&) const = default;
};

/// At the archive's end, before its comment.
struct EndRecord {
    bool isWhole = false; // not one part of several
    std::uint64_t entries = 0;
    std::uint64_t directorySize = 0;
    std::uint64_t directoryStart = 0;
    std::size_t commentSize = 0;
};
/// nullopt when the bytes do not begin with one.
[[nodiscard]] std::optional<EndRecord> readEndRecord(std::string_view bytes) noexcept;

/// Where the second end record stands; nullopt when the bytes do not say so.
[[nodiscard]] std::optional<std::uint64_t> readLocator64(std::string_view bytes) noexcept;
/// The second end record, of an archive beyond 4 GB or 65,535 entries.
[[nodiscard]] std::optional<EndRecord> readEndRecord64(std::string_view bytes) noexcept;

/// An entry in the directory.
struct EntryRecord {
    std::string_view name;
    unsigned system = 0; // on which it was made
    unsigned flags = 0;
    unsigned method = 0;
    std::uint32_t checksum = 0;
    Sizes sizes;
    unsigned part = 0; // of the archive
    std::uint32_t attributes = 0;
    std::uint64_t localHeader = 0; // its place
    bool hasFigures = true;        // false: figures are announced and missing, or the extra bytes are no fields
};
/// Takes the next one off the front; nullopt when there is no whole one.
[[nodiscard]] std::optional<EntryRecord> takeEntryRecord(std::string_view& rest) noexcept;

/// Stands before an entry's content.
struct LocalHeader {
    unsigned flags = 0;
    unsigned method = 0;
    std::uint32_t checksum = 0;
    Sizes sizes;
    std::size_t nameSize = 0;
    std::size_t extraSize = 0;
};
/// nullopt when the bytes do not begin with one.
[[nodiscard]] std::optional<LocalHeader> readLocalHeader(std::string_view bytes) noexcept;
/// Sizes that do not fit the header's fields stand in its extra bytes. False when they are announced and missing, or
/// when the extra bytes are no fields.
[[nodiscard]] bool readSizes64(std::string_view extra, Sizes& sizes) noexcept;

/// Whether the bytes begin with a descriptor that says this; it has four forms.
[[nodiscard]] bool isDescriptor(std::string_view bytes, std::uint32_t checksum, const Sizes& sizes) noexcept;

} // namespace appsync::zip
