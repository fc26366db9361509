// Every object is read when a first reference to it is met. What lives in a box of its own, such as containers and long
// texts, is remembered by its number, so that further references share the box; what fits into a cell is read again,
// which costs less than remembering it.
#include "propertylist/binary/BinaryReader.h"

#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/Utf.h"
#include "propertylist/binary/BigEndian.h"
#include "propertylist/binary/BinaryFormat.h"
#include "values/storage/ValueStorage.h"

#include <array>
#include <bit>
#include <cmath>
#include <span>
#include <vector>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;
using detail::ArrayBox;
using detail::Box;
using detail::boxedSize;
using detail::Cell;
using detail::DataBox;
using detail::DictionaryBox;
using detail::Tag;
using Entries = std::span<Dictionary::Entry>;

class BinaryReader {
  public:
    explicit BinaryReader(std::string_view bytes) : _bytes(bytes) { readTrailer(); }

    Value root() { return ValueAccess::value(object(_root, _bytes.size() - trailerSize + trailerRoot, 0)); }

  private:
    /// The content of an object with a count.
    struct Content {
        std::size_t offset;
        std::size_t count;
    };
    /// The keys of a dictionary, how long those in boxes are together, and how the file refers to them.
    struct Keys {
        std::string_view references;
        const Dictionary::Entry* entries = nullptr;
        std::size_t bytes = 0;
    };

    void readTrailer();
    Cell element(std::size_t referenceAt, std::size_t depth);
    Cell object(std::uint64_t number, std::size_t referenceAt, std::size_t depth);
    Cell boxedObject(std::uint64_t number, std::size_t at, std::size_t referenceAt, std::size_t depth);
    Cell newBoxedObject(std::size_t at, std::size_t depth);
    [[nodiscard]] Tag boxTag(std::size_t at) const;
    [[noreturn]] void failUnsupported(std::size_t at) const;
    Cell boolean(std::size_t at) const;
    Cell shortAscii(std::size_t at, std::size_t length) const;
    Cell integer(std::size_t at) const;
    Cell real(std::size_t at) const;
    Cell date(std::size_t at) const;
    Cell ascii(std::size_t at);
    Cell utf16(std::size_t at);
    Cell text(std::string_view text, std::size_t at, std::size_t contentSize);
    Cell data(std::size_t at);
    Cell array(std::size_t at, std::size_t depth);
    Cell dictionary(std::size_t at, std::size_t depth);
    void readKeys(Dictionary& dictionary, std::size_t at, std::size_t depth);
    void rejectDuplicateKeys(Dictionary& dictionary, std::size_t at) const;

    [[nodiscard]] Content content(std::size_t at, std::size_t width);
    void chargeContent(std::size_t size, std::size_t at);
    void chargeElements(std::size_t count, std::size_t at);
    void chargeRepetition(std::size_t size, std::size_t at);
    void chargeShared(const Cell& cell, std::size_t at, std::size_t depth);

    [[nodiscard]] std::uint8_t byteAt(std::size_t at) const { return static_cast<std::uint8_t>(_bytes[at]); }
    [[nodiscard]] std::uint64_t number(std::size_t at, std::size_t width) const {
        return readNumber(_bytes.data() + at, width);
    }
    /// The content of the object at `at`, up to `end`, lies before the offset table.
    void requireEnd(std::size_t at, std::size_t end) const {
        if (end > _table) {
            failReading(Code::invalidOffset, at, "an object reaches beyond the objects");
        }
    }

    std::string_view _bytes;
    std::size_t _table = 0; // where the objects end and the offset table begins
    std::size_t _offsetWidth = 0;
    std::size_t _referenceWidth = 0;
    std::uint64_t _largestOffset = 0;
    std::uint64_t _largestReference = 0;
    std::uint64_t _objectCount = 0;
    std::uint64_t _root = 0;
    std::size_t _elementsLeft = 0;   // that all references, followed, may still lead to
    std::size_t _contentLeft = 0;    // bytes that boxes may still be made from
    std::size_t _repetitionLeft = 0; // bytes that keys, texts and data may still have where they are met again
    detail::BoxArena _arena;
    std::vector<Box*> _boxes;       // by object number; the values own them
    Box _beingRead;                 // stands for a container that has not been read to its end
    std::array<Keys, 16> _lastKeys; // by number of keys
};

void BinaryReader::readTrailer() {
    if (_bytes.size() < binaryMagic.size() + 2 + trailerSize) {
        failReading(Code::truncated, _bytes.size(), "the file ends too early");
    }
    const std::size_t trailer = _bytes.size() - trailerSize;
    _offsetWidth = byteAt(trailer + trailerOffsetWidth);
    _referenceWidth = byteAt(trailer + trailerReferenceWidth);
    _objectCount = number(trailer + trailerObjectCount, 8);
    _root = number(trailer + trailerRoot, 8);
    const std::uint64_t table = number(trailer + trailerOffsetTable, 8);
    if (_offsetWidth < 1 || _offsetWidth > 8) {
        failReading(Code::invalidTrailer, trailer + trailerOffsetWidth, "offsets are not 1 to 8 bytes wide");
    }
    if (_referenceWidth < 1 || _referenceWidth > 8) {
        failReading(Code::invalidTrailer, trailer + trailerReferenceWidth, "references are not 1 to 8 bytes wide");
    }
    if (table <= binaryMagic.size() || table >= trailer) {
        failReading(Code::invalidTrailer, trailer + trailerOffsetTable, "the offset table lies outside of the file");
    }
    if (_objectCount == 0 || _objectCount > (trailer - table) / _offsetWidth) {
        failReading(Code::invalidTrailer, trailer + trailerObjectCount, "the offset table holds fewer objects");
    }
    _table = static_cast<std::size_t>(table);
    _largestOffset = maxOfWidth(_offsetWidth);
    _largestReference = maxOfWidth(_referenceWidth);
    _elementsLeft = _bytes.size() * propertyListExpansionFactor;
    _contentLeft = _bytes.size();
    _repetitionLeft = _bytes.size() * propertyListRepetitionFactor + propertyListRepetitionAllowance;
    _boxes.resize(static_cast<std::size_t>(_objectCount));
}

Cell BinaryReader::element(std::size_t referenceAt, std::size_t depth) {
    return object(readNumber(_bytes.data() + referenceAt, _referenceWidth, _largestReference), referenceAt, depth);
}

inline Cell BinaryReader::object(std::uint64_t number, std::size_t referenceAt, std::size_t depth) {
    if (number >= _objectCount) {
        failReading(Code::invalidReference, referenceAt, "a reference to an object that does not exist");
    }
    const std::size_t entry = _table + static_cast<std::size_t>(number) * _offsetWidth;
    const std::uint64_t offset = readNumber(_bytes.data() + entry, _offsetWidth, _largestOffset);
    if (offset < binaryMagic.size() || offset >= _table) {
        failReading(Code::invalidOffset, entry, "an object lies outside of the objects");
    }
    const auto at = static_cast<std::size_t>(offset);
    const std::uint8_t kind = byteAt(at);
    switch (kind & 0xF0) {
    case marker::ascii:
        if (kind < marker::ascii + marker::longCount) {
            return shortAscii(at, kind - marker::ascii);
        }
        break;
    case marker::integer: return integer(at);
    case marker::simple: return boolean(at);
    case marker::real: return real(at);
    case marker::date & 0xF0: return date(at);
    default: break;
    }
    return boxedObject(number, at, referenceAt, depth);
}

/// Objects that live in a box, texts only when they are too long for a cell.
Cell BinaryReader::boxedObject(std::uint64_t number, std::size_t at, std::size_t referenceAt, std::size_t depth) {
    const Tag tag = boxTag(at);
    const bool isContainer = tag >= Tag::array;
    Box*& known = _boxes[static_cast<std::size_t>(number)];
    if (known == &_beingRead) {
        failReading(Code::referenceCycle, referenceAt, "a container holds itself");
    }
    if (isContainer && depth >= maxPropertyListDepth) {
        failReading(Code::tooDeep, at, "containers are nested too deep");
    }
    if (known) {
        known->retainUnpublished();
        Cell shared = Cell::boxed(tag, known);
        chargeShared(shared, referenceAt, depth);
        return shared;
    }
    known = isContainer ? &_beingRead : nullptr;
    Cell cell = newBoxedObject(at, depth);
    known = cell.isBoxed() ? cell.box() : nullptr;
    return cell;
}

Tag BinaryReader::boxTag(std::size_t at) const {
    switch (byteAt(at) & 0xF0) {
    case marker::ascii:
    case marker::utf16: return Tag::sharedText;
    case marker::data: return Tag::data;
    case marker::array: return Tag::array;
    case marker::dictionary: return Tag::dictionary;
    default: failUnsupported(at);
    }
}

Cell BinaryReader::newBoxedObject(std::size_t at, std::size_t depth) {
    switch (byteAt(at) & 0xF0) {
    case marker::ascii: return ascii(at);
    case marker::utf16: return utf16(at);
    case marker::data: return data(at);
    case marker::array: return array(at, depth);
    default: return dictionary(at, depth);
    }
}

void BinaryReader::failUnsupported(std::size_t at) const {
    failReading(Code::unsupportedObject, at, "an object of a kind that property lists do not have");
}

// Objects that fit into a cell.

Cell BinaryReader::boolean(std::size_t at) const {
    const std::uint8_t kind = byteAt(at);
    if (kind == marker::null) {
        failReading(Code::nullObject, at, "a null object, which has no place in a property list,");
    }
    if (kind != marker::falseValue && kind != marker::trueValue) {
        failUnsupported(at);
    }
    return Cell::scalar(Tag::boolean, kind == marker::trueValue);
}

inline Cell BinaryReader::shortAscii(std::size_t at, std::size_t length) const {
    requireEnd(at, at + 1 + length);
    // So many bytes can be read at any object, because the trailer follows. Those behind the text are blanked out.
    constexpr std::size_t size = sizeof(Cell::Words);
    static_assert(size < trailerSize);
    alignas(8) static constexpr auto mask = [] {
        std::array<unsigned char, 2 * size> bytes{};
        std::fill_n(bytes.begin(), size, static_cast<unsigned char>(0xFF));
        return bytes;
    }();
    Cell::Words text;
    Cell::Words kept;
    std::memcpy(&text, _bytes.data() + at + 1, size);
    std::memcpy(&kept, mask.data() + size - length, size);
    text.first &= kept.first;
    text.second &= kept.second;
    if (((text.first | text.second) & 0x8080808080808080) != 0) {
        failReading(Code::invalidText, at, "a text that is marked as ASCII and is not");
    }
    return Cell::inlineText(text, length);
}

inline Cell BinaryReader::integer(std::size_t at) const {
    const std::size_t exponent = byteAt(at) & 0x0F;
    if (exponent > 4) {
        failUnsupported(at);
    }
    const std::size_t width = std::size_t{1} << exponent;
    requireEnd(at, at + 1 + width);
    if (width <= 8) {
        return Cell::scalar(Tag::integer, number(at + 1, width));
    }
    const std::uint64_t high = number(at + 1, 8);
    const std::uint64_t low = number(at + 9, 8);
    const bool highestBit = low >> 63 != 0;
    if (high != 0 && !(high == ~std::uint64_t{0} && highestBit)) {
        failReading(Code::numberOutOfRange, at, "an integer beyond 64 bits");
    }
    return Cell::scalar(high == 0 && highestBit ? Tag::unsignedInteger : Tag::integer, low);
}

Cell BinaryReader::real(std::size_t at) const {
    const std::uint8_t kind = byteAt(at);
    if (kind == (marker::real | 2)) {
        requireEnd(at, at + 5);
        const auto bits = static_cast<std::uint32_t>(number(at + 1, 4));
        return Cell::scalar(Tag::real, static_cast<double>(std::bit_cast<float>(bits)));
    }
    if (kind != (marker::real | 3)) {
        failUnsupported(at);
    }
    requireEnd(at, at + 9);
    return Cell::scalar(Tag::real, number(at + 1, 8));
}

Cell BinaryReader::date(std::size_t at) const {
    if (byteAt(at) != marker::date) {
        failUnsupported(at);
    }
    requireEnd(at, at + 9);
    const auto seconds = std::bit_cast<double>(number(at + 1, 8));
    if (!std::isfinite(seconds)) {
        failReading(Code::invalidDate, at, "a date that is no point in time");
    }
    return Cell::scalar(Tag::date, seconds);
}

// Objects with a count.

BinaryReader::Content BinaryReader::content(std::size_t at, std::size_t width) {
    std::uint64_t count = byteAt(at) & 0x0F;
    std::size_t start = at + 1;
    if (count == marker::longCount) {
        requireEnd(at, start + 1);
        if ((byteAt(start) & 0xF0) != marker::integer) {
            failReading(Code::unsupportedObject, start, "a count that is no integer");
        }
        const Cell number = integer(start);
        if (number.as<std::int64_t>() < 0) {
            failReading(Code::numberOutOfRange, start, "a count that no file can hold");
        }
        count = number.as<std::uint64_t>();
        start += 1 + (std::size_t{1} << (byteAt(start) & 0x0F));
    }
    if (count > (_table - start) / width) {
        failReading(Code::invalidOffset, at, "an object reaches beyond the objects");
    }
    return {start, static_cast<std::size_t>(count)};
}

/// The text of an object whose content has so many bytes.
Cell BinaryReader::text(std::string_view text, std::size_t at, std::size_t contentSize) {
    if (text.size() > Cell::inlineCapacity) {
        chargeContent(contentSize, at);
    }
    return Cell::text(text, _arena);
}

Cell BinaryReader::ascii(std::size_t at) {
    const auto [start, length] = content(at, 1);
    const std::string_view text = _bytes.substr(start, length);
    if (!isAscii(text)) {
        failReading(Code::invalidText, at, "a text that is marked as ASCII and is not");
    }
    return this->text(text, at, length);
}

Cell BinaryReader::utf16(std::size_t at) {
    const auto [start, units] = content(at, 2);
    std::string utf8;
    const std::size_t wrong = appendUtf8(utf8, _bytes.substr(start, 2 * units));
    if (wrong != allValid) {
        failReading(Code::invalidText, start + wrong, "an unpaired surrogate in a text");
    }
    return text(utf8, at, 2 * units);
}

Cell BinaryReader::data(std::size_t at) {
    const auto [start, size] = content(at, 1);
    chargeContent(size, at);
    return Cell::boxed(Tag::data, DataBox::make(_bytes.substr(start, size)));
}

Cell BinaryReader::array(std::size_t at, std::size_t depth) {
    const auto [start, count] = content(at, _referenceWidth);
    chargeContent(count * _referenceWidth, at);
    chargeElements(count, at);
    ArrayBox* box = ArrayBox::make(Array(count), _arena);
    Cell array = Cell::boxed(Tag::array, box);
    std::size_t reference = start;
    for (Value& item : box->items) {
        new (&ValueAccess::cell(item)) Cell(element(reference, depth + 1));
        reference += _referenceWidth;
    }
    return array;
}

Cell BinaryReader::dictionary(std::size_t at, std::size_t depth) {
    const auto [start, count] = content(at, 2 * _referenceWidth);
    chargeContent(count * 2 * _referenceWidth, at);
    chargeElements(2 * count, at);
    DictionaryBox* box = DictionaryBox::make(count, _arena);
    Cell dictionary = Cell::boxed(Tag::dictionary, box);
    ValueAccess::fillCapacity(box->entries);
    readKeys(box->entries, start, depth);
    std::size_t reference = start + count * _referenceWidth;
    for (Dictionary::Entry& entry : ValueAccess::entries(box->entries)) {
        new (&ValueAccess::cell(entry.value)) Cell(element(reference, depth + 1));
        reference += _referenceWidth;
    }
    return dictionary;
}

/// Lists hold many dictionaries with the same keys: those of the last one with as many keys are taken over when the
/// file refers to the same objects.
void BinaryReader::readKeys(Dictionary& dictionary, std::size_t at, std::size_t depth) {
    const Entries entries = ValueAccess::entries(dictionary);
    const std::string_view references = _bytes.substr(at, entries.size() * _referenceWidth);
    Keys& last = _lastKeys[entries.size() % _lastKeys.size()];
    if (last.references == references) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            new (&ValueAccess::cell(entries[i].key)) Cell(ValueAccess::cell(last.entries[i].key).unpublishedCopy());
        }
        chargeRepetition(last.bytes, at);
        ValueAccess::indexEntries(dictionary);
        return;
    }
    std::size_t size = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::size_t reference = at + i * _referenceWidth;
        Cell key = element(reference, depth + 1);
        if (!key.isText()) {
            failReading(Code::invalidKey, reference, "a key that is no text");
        }
        size += boxedSize(key);
        new (&ValueAccess::cell(entries[i].key)) Cell(std::move(key));
    }
    rejectDuplicateKeys(dictionary, at);
    last = {references, entries.data(), size};
}

void BinaryReader::rejectDuplicateKeys(Dictionary& dictionary, std::size_t at) const {
    const std::size_t duplicate = ValueAccess::indexUnlessDuplicate(dictionary);
    if (duplicate != dictionary.size()) {
        failReading(Code::duplicateKey, at + duplicate * _referenceWidth,
                    "the key " + quoted((dictionary.begin() + duplicate)->key) + " for the second time");
    }
}

// Limits.

/// Counts bytes that a box is made from. Each object is counted once, so that more than the file has means that objects
/// overlap.
void BinaryReader::chargeContent(std::size_t size, std::size_t at) {
    if (size > _contentLeft) {
        failReading(Code::tooLarge, at, "objects that overlap");
    }
    _contentLeft -= size;
}

void BinaryReader::chargeElements(std::size_t count, std::size_t at) {
    if (count > _elementsLeft) {
        failReading(Code::tooLarge, at, "containers that are referred to so often that they expand beyond measure");
    }
    _elementsLeft -= count;
}

/// Counts what whoever follows the references will copy, compare or write once more.
void BinaryReader::chargeRepetition(std::size_t size, std::size_t at) {
    if (size > _repetitionLeft) {
        failReading(Code::tooLarge, at, "texts or data that are referred to so often that they expand beyond measure");
    }
    _repetitionLeft -= size;
}

/// Walks through an object that is referred to once more, as whoever follows the references will.
void BinaryReader::chargeShared(const Cell& cell, std::size_t at, std::size_t depth) {
    if (!cell.isContainer()) {
        chargeRepetition(boxedSize(cell), at);
        return;
    }
    if (depth >= maxPropertyListDepth) {
        failReading(Code::tooDeep, at, "containers are nested too deep");
    }
    if (cell.tag() == Tag::array) {
        const Array& items = static_cast<const ArrayBox*>(cell.box())->items;
        chargeElements(items.size(), at);
        for (const Value& item : items) {
            chargeShared(ValueAccess::cell(item), at, depth + 1);
        }
    } else {
        const Dictionary& entries = static_cast<const DictionaryBox*>(cell.box())->entries;
        chargeElements(2 * entries.size(), at);
        for (const Dictionary::Entry& entry : entries) {
            chargeRepetition(boxedSize(ValueAccess::cell(entry.key)), at);
            chargeShared(ValueAccess::cell(entry.value), at, depth + 1);
        }
    }
}

} // namespace

Value readBinary(std::string_view bytes) {
    return BinaryReader(bytes).root();
}

} // namespace appsync::propertylist
