#include "archive/ZipRecords.h"

#include <initializer_list>

namespace appsync::zip {

namespace {

constexpr std::uint32_t endRecordSignature = 0x06054b50;
constexpr std::uint32_t locator64Signature = 0x07064b50;
constexpr std::uint32_t endRecord64Signature = 0x06064b50;
constexpr std::uint32_t entrySignature = 0x02014b50;
constexpr std::uint32_t localHeaderSignature = 0x04034b50;
constexpr std::uint32_t descriptorSignature = 0x08074b50;

constexpr unsigned extra64Identifier = 0x0001;
constexpr std::uint32_t standsInExtra = 0xffffffff;

/// A little-endian number of `Bytes` bytes; the caller has checked that it is there.
template <int Bytes> std::uint64_t number(std::string_view bytes, std::size_t place) noexcept {
    std::uint64_t value = 0;
    for (int count = Bytes; count-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[place + static_cast<std::size_t>(count)]);
    }
    return value;
}
unsigned number16(std::string_view bytes, std::size_t place) noexcept {
    return static_cast<unsigned>(number<2>(bytes, place));
}
std::uint32_t number32(std::string_view bytes, std::size_t place) noexcept {
    return static_cast<std::uint32_t>(number<4>(bytes, place));
}
std::uint64_t number64(std::string_view bytes, std::size_t place) noexcept {
    return number<8>(bytes, place);
}

bool isRecord(std::string_view bytes, std::size_t size, std::uint32_t signature) noexcept {
    return bytes.size() >= size && number32(bytes, 0) == signature;
}

/// Figures that do not fit their fields stand in an extra field, in this order. False when one is missing there, or
/// when the extra bytes are no fields; some writers fill them up with zeros.
bool readFigures64(std::string_view extra, std::initializer_list<std::uint64_t*> figures) noexcept {
    while (extra.size() >= 4) {
        const std::size_t size = number16(extra, 2);
        if (size > extra.size() - 4) {
            break;
        }
        std::string_view field = extra.substr(4, size);
        const bool isWanted = number16(extra, 0) == extra64Identifier;
        extra.remove_prefix(4 + size);
        for (std::uint64_t* figure : figures) {
            if (isWanted && *figure == standsInExtra) {
                if (field.size() < 8) {
                    return false;
                }
                *figure = number64(field, 0);
                field.remove_prefix(8);
            }
        }
    }
    return extra.find_first_not_of('\0') == std::string_view::npos;
}

} // namespace

std::optional<EndRecord> readEndRecord(std::string_view bytes) noexcept {
    if (!isRecord(bytes, endRecordSize, endRecordSignature)) {
        return std::nullopt;
    }
    const bool isWhole =
        number16(bytes, 4) == 0 && number16(bytes, 6) == 0 && number16(bytes, 8) == number16(bytes, 10);
    return EndRecord{isWhole, number16(bytes, 10), number32(bytes, 12), number32(bytes, 16), number16(bytes, 20)};
}

std::optional<std::uint64_t> readLocator64(std::string_view bytes) noexcept {
    return isRecord(bytes, locator64Size, locator64Signature) ? std::optional(number64(bytes, 8)) : std::nullopt;
}

std::optional<EndRecord> readEndRecord64(std::string_view bytes) noexcept {
    if (!isRecord(bytes, endRecord64Size, endRecord64Signature)) {
        return std::nullopt;
    }
    return EndRecord{true, number64(bytes, 32), number64(bytes, 40), number64(bytes, 48), 0};
}

std::optional<EntryRecord> takeEntryRecord(std::string_view& rest) noexcept {
    if (!isRecord(rest, entryRecordSize, entrySignature)) {
        return std::nullopt;
    }
    const std::size_t nameSize = number16(rest, 28);
    const std::size_t extraSize = number16(rest, 30);
    const std::size_t size = entryRecordSize + nameSize + extraSize + number16(rest, 32);
    if (size > rest.size()) {
        return std::nullopt;
    }
    EntryRecord record{.name = rest.substr(entryRecordSize, nameSize),
                       .system = number16(rest, 4) >> 8,
                       .flags = number16(rest, 8),
                       .method = number16(rest, 10),
                       .checksum = number32(rest, 16),
                       .sizes = {number32(rest, 20), number32(rest, 24)},
                       .part = number16(rest, 34),
                       .attributes = number32(rest, 38),
                       .localHeader = number32(rest, 42)};
    record.hasFigures = readFigures64(rest.substr(entryRecordSize + nameSize, extraSize),
                                      {&record.sizes.unpacked, &record.sizes.packed, &record.localHeader});
    rest.remove_prefix(size);
    return record;
}

std::optional<LocalHeader> readLocalHeader(std::string_view bytes) noexcept {
    if (!isRecord(bytes, localHeaderSize, localHeaderSignature)) {
        return std::nullopt;
    }
    return LocalHeader{.flags = number16(bytes, 6),
                       .method = number16(bytes, 8),
                       .checksum = number32(bytes, 14),
                       .sizes = {number32(bytes, 18), number32(bytes, 22)},
                       .nameSize = number16(bytes, 26),
                       .extraSize = number16(bytes, 28)};
}

bool readSizes64(std::string_view extra, Sizes& sizes) noexcept {
    return readFigures64(extra, {&sizes.unpacked, &sizes.packed});
}

bool isDescriptor(std::string_view bytes, std::uint32_t checksum, const Sizes& sizes) noexcept {
    const auto saysSo = [&](std::string_view figures) {
        return (figures.size() >= 12 && number32(figures, 0) == checksum &&
                Sizes{number32(figures, 4), number32(figures, 8)} == sizes) ||
               (figures.size() >= 20 && number32(figures, 0) == checksum &&
                Sizes{number64(figures, 4), number64(figures, 12)} == sizes);
    };
    return saysSo(bytes) || (isRecord(bytes, 4, descriptorSignature) && saysSo(bytes.substr(4)));
}

} // namespace appsync::zip
