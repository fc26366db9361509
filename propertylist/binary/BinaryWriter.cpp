// One walk through the value writes the scalars, each once: it is written behind the last one and stays if its bytes
// are new. What the containers hold is noted; they follow behind the scalars when the number of those, and with it the
// width of references, is known.
#include "propertylist/binary/BinaryWriter.h"

#include "propertylist/ByteBuffer.h"
#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/Utf.h"
#include "propertylist/binary/BigEndian.h"
#include "propertylist/binary/BinaryFormat.h"
#include "propertylist/binary/ObjectIndex.h"
#include "values/storage/ValueHash.h"
#include "values/storage/ValueStorage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;
using detail::boxedSize;
using detail::Cell;
using detail::Tag;

/// A guess at what a value holds that is right for lists of similar records, and not too far off for others. Memory
/// that is taken in one piece is touched only once.
struct Estimate {
    explicit Estimate(const Value& value) {
        constexpr std::size_t maxRecords = 100'000;
        constexpr std::size_t maxEntries = 32;
        const Array* const items = value.array();
        if (items && !items->empty()) {
            const Dictionary* const record = items->front().dictionary();
            const std::size_t count = std::min(items->size(), maxRecords);
            containers = record ? count : 0;
            scalars = record ? count * std::min(record->size(), maxEntries) : count;
        }
    }
    std::size_t containers = 0;
    std::size_t scalars = 0;
};

class BinaryWriter {
  public:
    BinaryWriter(const Estimate& expected, std::size_t limit);

    Data write(const Value& root);

  private:
    /// A dictionary, where the numbers of its keys stand, and how long those in boxes are together.
    struct Keys {
        const Dictionary* dictionary = nullptr;
        std::size_t position = 0;
        std::size_t bytes = 0;
    };
    /// Marks the number of a container, which counts from the end of the scalars, until it is written.
    static constexpr std::uint32_t containerFlag = std::uint32_t{1} << 31;
    /// Marks the count of a dictionary among the noted containers.
    static constexpr std::uint32_t dictionaryFlag = std::uint32_t{1} << 31;
    /// The largest head of an object: marker, and marker and content of the count.
    static constexpr std::size_t headSize = 10;

    std::uint32_t addScalar(const Cell& cell, std::uint64_t hash);
    bool mayRepeat(std::size_t size);
    std::uint32_t addContainer(const Cell& cell, std::size_t depth);
    void addItems(const Array& items, std::size_t depth);
    void addEntries(const Dictionary& entries, std::size_t depth);
    std::size_t addKeys(const Dictionary& entries, std::size_t& i);
    template <class CellAt> void addRun(std::size_t count, CellAt cellAt, std::size_t depth, std::size_t& i);
    void movePending(std::size_t first, std::vector<std::uint32_t>& to);
    [[nodiscard]] std::uint64_t hashOf(const Cell& cell) const;

    // Each writes an object behind the last one and returns its size.
    std::size_t writeScalar(const Cell& cell);
    std::size_t writeInlineText(const Cell& cell);
    std::size_t writeText(std::string_view text);
    std::size_t writeBytes(std::uint8_t kind, std::string_view bytes);
    std::size_t writeReal(std::uint8_t kind, double number);

    void writeContainers(std::size_t referenceWidth);
    void writeTable(std::uint32_t root, std::size_t referenceWidth);
    void append(std::uint64_t number, std::size_t width);
    char* writeReferences(char* at, const std::uint32_t* numbers, std::size_t count, std::size_t width) const;
    /// The number of an object in the file.
    [[nodiscard]] std::size_t resolved(std::uint32_t number) const noexcept {
        return (number & containerFlag) != 0 ? _index.size() + (number & ~containerFlag) : number;
    }

    ByteBuffer _out;
    ObjectIndex _index;
    detail::Hasher _hasher;
    std::vector<std::uint32_t> _offsets;    // by object number
    std::vector<std::uint32_t> _pending;    // what the containers hold whose end has not come
    std::vector<std::uint32_t> _containers; // for each: count, for a dictionary the position of its keys, references
    std::vector<std::uint32_t> _keys;       // lists of keys
    std::array<Keys, 16> _lastKeys;         // by number of keys
    std::uint32_t _containerCount = 0;
    std::size_t _repeated = 0; // bytes of keys, texts and data where they are referred to again
    std::uint64_t _copies = 0; // of objects that would have been referred to too often
};

BinaryWriter::BinaryWriter(const Estimate& expected, std::size_t limit)
    : _out(limit), _index(expected.scalars), _hasher(this) {
    constexpr std::size_t usualScalarSize = 20;
    static_cast<void>(_out.room(std::min(limit, expected.scalars * usualScalarSize)));
    _offsets.reserve(expected.scalars + expected.containers);
    _pending.reserve(expected.containers);
    _containers.reserve(expected.scalars + 3 * expected.containers); // with count and keys, and the root's references
}

char* writeInteger(char* at, std::uint64_t number, bool isNegative) {
    if (number >> 63 != 0 && !isNegative) { // 8 bytes would be read as a negative number
        *at++ = static_cast<char>(marker::integer | 4);
        writeNumber(at, 0, 8);
        writeNumber(at + 8, number, 8);
        return at + 16;
    }
    const auto exponent = static_cast<std::size_t>(std::bit_width(widthOf(number) - 1));
    const std::size_t width = std::size_t{1} << exponent;
    *at++ = static_cast<char>(marker::integer | exponent);
    writeNumber(at, number, width);
    return at + width;
}

char* writeHead(char* at, std::uint8_t kind, std::size_t count) {
    if (count < marker::longCount) {
        *at = static_cast<char>(kind | count);
        return at + 1;
    }
    *at = static_cast<char>(kind | marker::longCount);
    return writeInteger(at + 1, count, false);
}

/// The number of a scalar, which is written unless it was there before. `hash` is `hashOf(cell)`.
std::uint32_t BinaryWriter::addScalar(const Cell& cell, std::uint64_t hash) {
    const std::size_t size = writeScalar(cell);
    // No object is the beginning of another one, so that the size needs no comparison.
    const auto isSame = [&](std::uint32_t number) { return _out.at(_offsets[number], size) == _out.written(size); };
    auto [number, isNew] = _index.findOrAdd(hash, isSame);
    if (!isNew && cell.isBoxed() && !mayRepeat(boxedSize(cell))) {
        // Under another hash, so that looking the object up does not lead past all copies of it.
        number = _index.findOrAdd(hash + ++_copies * 0x9E3779B97F4A7C15, [](std::uint32_t) { return false; }).number;
        isNew = true;
    }
    if (isNew) {
        _offsets.push_back(static_cast<std::uint32_t>(_out.size()));
        _out.advance(size);
    }
    return number;
}

/// True, and counted, when the reader accepts so many repeated bytes more in a file that is no smaller than by now:
/// each number that is noted takes at least one byte.
bool BinaryWriter::mayRepeat(std::size_t size) {
    const std::size_t least = _out.size() + _containers.size() + _keys.size() + _pending.size();
    if (_repeated + size > least * propertyListRepetitionFactor + propertyListRepetitionAllowance) {
        return false;
    }
    _repeated += size;
    return true;
}

/// The same for all cells that are written as the same object.
std::uint64_t BinaryWriter::hashOf(const Cell& cell) const {
    switch (cell.tag()) {
    case Tag::sharedText: return _hasher(cell.textView());
    case Tag::data: {
        const auto* data = static_cast<const detail::DataBox*>(cell.box());
        return _hasher({data->bytes, data->size});
    }
    case Tag::unsignedInteger: return _hasher(Cell::scalar(Tag::integer, cell.as<std::uint64_t>()).words());
    default: return _hasher(cell.words());
    }
}

/// Adds `count` cells to those pending. When it fails, `i` says at which. The hashes of some cells are computed before
/// the first of them is looked up, so that the memory of the index is fetched meanwhile.
template <class CellAt> void BinaryWriter::addRun(std::size_t count, CellAt cellAt, std::size_t depth, std::size_t& i) {
    std::array<std::uint64_t, 16> hashes;
    for (std::size_t first = 0; first < count; first += hashes.size()) {
        const std::size_t end = std::min(count, first + hashes.size());
        for (i = first; i < end; ++i) {
            if (const Cell& cell = cellAt(i); !cell.isContainer()) {
                hashes[i - first] = hashOf(cell);
                _index.prefetch(hashes[i - first]);
            }
        }
        for (i = first; i < end; ++i) {
            const Cell& cell = cellAt(i);
            _pending.push_back(cell.isContainer() ? addContainer(cell, depth) : addScalar(cell, hashes[i - first]));
        }
    }
}

// Containers.

std::uint32_t BinaryWriter::addContainer(const Cell& cell, std::size_t depth) {
    if (depth >= maxPropertyListDepth) {
        failWriting(Code::tooDeep, "containers are nested too deep");
    }
    if (cell.tag() == Tag::array) {
        addItems(static_cast<const detail::ArrayBox*>(cell.box())->items, depth);
    } else {
        addEntries(static_cast<const detail::DictionaryBox*>(cell.box())->entries, depth);
    }
    return _containerCount++ | containerFlag;
}

void BinaryWriter::addItems(const Array& items, std::size_t depth) {
    const auto item = [&](std::size_t i) -> const Cell& { return ValueAccess::cell(items[i]); };
    const std::size_t firstPending = _pending.size();
    std::size_t i = 0;
    try {
        addRun(items.size(), item, depth + 1, i);
    } catch (Failure& failure) {
        prependIndex(failure, i);
        throw;
    }
    _containers.push_back(static_cast<std::uint32_t>(items.size()));
    movePending(firstPending, _containers);
}

void BinaryWriter::addEntries(const Dictionary& entries, std::size_t depth) {
    const auto value = [&](std::size_t i) -> const Cell& { return ValueAccess::cell(entries.begin()[i].value); };
    std::size_t i = 0;
    try {
        const std::size_t keys = addKeys(entries, i);
        const std::size_t firstPending = _pending.size();
        addRun(entries.size(), value, depth + 1, i);
        _containers.push_back(static_cast<std::uint32_t>(entries.size()) | dictionaryFlag);
        _containers.push_back(static_cast<std::uint32_t>(keys));
        movePending(firstPending, _containers);
    } catch (Failure& failure) {
        prependKey(failure, entries.begin()[i].key);
        throw;
    }
}

/// Where the numbers of the keys stand. Lists hold many dictionaries with the same keys, so those of the last one with
/// as many keys are tried first. When it fails, `i` says at which key.
std::size_t BinaryWriter::addKeys(const Dictionary& entries, std::size_t& i) {
    const auto key = [&](std::size_t k) -> const Cell& { return ValueAccess::cell(entries.begin()[k].key); };
    const auto sameBits = [](const Dictionary::Entry& a, const Dictionary::Entry& b) {
        return ValueAccess::cell(a.key).words() == ValueAccess::cell(b.key).words();
    };
    Keys& last = _lastKeys[entries.size() % _lastKeys.size()];
    if (last.dictionary &&
        std::equal(entries.begin(), entries.end(), last.dictionary->begin(), last.dictionary->end(), sameBits) &&
        mayRepeat(last.bytes)) {
        return last.position;
    }
    const std::size_t position = _keys.size();
    const std::size_t firstPending = _pending.size();
    addRun(entries.size(), key, 0, i);
    movePending(firstPending, _keys);
    last = {&entries, position, 0};
    for (const Dictionary::Entry& entry : entries) {
        last.bytes += boxedSize(ValueAccess::cell(entry.key));
    }
    return position;
}

void BinaryWriter::movePending(std::size_t first, std::vector<std::uint32_t>& to) {
    // Each of these numbers takes at least one byte in the file.
    if (_containers.size() + _keys.size() + _pending.size() > _out.limit()) {
        failWriting(Code::tooLarge, "more than " + std::to_string(_out.limit()) + " bytes");
    }
    const auto from = _pending.begin() + static_cast<std::ptrdiff_t>(first);
    to.insert(to.end(), from, _pending.end());
    _pending.erase(from, _pending.end());
}

// Scalars.

std::size_t BinaryWriter::writeScalar(const Cell& cell) {
    switch (cell.tag()) {
    case Tag::boolean:
        *_out.room(1) = static_cast<char>(cell.as<bool>() ? marker::trueValue : marker::falseValue);
        return 1;
    case Tag::integer:
    case Tag::unsignedInteger: {
        char* const at = _out.room(17);
        const bool isNegative = cell.tag() == Tag::integer && cell.as<std::int64_t>() < 0;
        return static_cast<std::size_t>(writeInteger(at, cell.as<std::uint64_t>(), isNegative) - at);
    }
    case Tag::real: return writeReal(marker::real | 3, cell.as<double>());
    case Tag::date:
        if (!std::isfinite(cell.as<double>())) {
            failWriting(Code::invalidDate, "a date that is no point in time");
        }
        return writeReal(marker::date, cell.as<double>());
    case Tag::inlineText: return writeInlineText(cell);
    case Tag::sharedText: return writeText(cell.textView());
    case Tag::data: {
        const auto* data = static_cast<const detail::DataBox*>(cell.box());
        return writeBytes(marker::data, {data->bytes, data->size});
    }
    default: failWriting(Code::nullValue, "a null value, which no property list can hold,");
    }
}

std::size_t BinaryWriter::writeInlineText(const Cell& cell) {
    const Cell::Words words = cell.words();
    const std::size_t length = cell.textView().size();
    if (((words.first | words.second) & 0x8080808080808080) != 0) {
        return writeText(cell.textView());
    }
    static_assert(Cell::inlineCapacity < marker::longCount && sizeof words <= ByteBuffer::slack);
    char* const at = _out.room(1 + length);
    *at = static_cast<char>(marker::ascii | length);
    std::memcpy(at + 1, &words, sizeof words); // what follows the text is overwritten by the next object
    return 1 + length;
}

std::size_t BinaryWriter::writeText(std::string_view text) {
    if (isAscii(text)) {
        return writeBytes(marker::ascii, text);
    }
    if (!isUtf8(text)) {
        failWriting(Code::invalidText, "a text that is not valid UTF-8, " + quoted(text) + ",");
    }
    const std::size_t units = utf16Length(text);
    char* const at = _out.room(headSize + 2 * units);
    return static_cast<std::size_t>(writeUtf16(writeHead(at, marker::utf16, units), text) - at);
}

std::size_t BinaryWriter::writeBytes(std::uint8_t kind, std::string_view bytes) {
    char* const at = _out.room(headSize + bytes.size());
    char* const content = writeHead(at, kind, bytes.size());
    bytes.copy(content, bytes.size());
    return static_cast<std::size_t>(content - at) + bytes.size();
}

std::size_t BinaryWriter::writeReal(std::uint8_t kind, double number) {
    char* const at = _out.room(9);
    *at = static_cast<char>(kind);
    writeNumber(at + 1, std::bit_cast<std::uint64_t>(number), 8);
    return 9;
}

// What follows the scalars.

char* BinaryWriter::writeReferences(char* at, const std::uint32_t* numbers, std::size_t count,
                                    std::size_t width) const {
    for (std::size_t i = 0; i < count; ++i, at += width) {
        writeNumber(at, resolved(numbers[i]), width);
    }
    return at;
}

void BinaryWriter::writeContainers(std::size_t width) {
    for (std::size_t next = 0; next < _containers.size();) {
        const bool isDictionary = (_containers[next] & dictionaryFlag) != 0;
        const std::size_t count = _containers[next++] & ~dictionaryFlag;
        char* const start = _out.room(headSize + 2 * count * width);
        char* at = writeHead(start, isDictionary ? marker::dictionary : marker::array, count);
        if (isDictionary) {
            at = writeReferences(at, _keys.data() + _containers[next++], count, width);
        }
        at = writeReferences(at, _containers.data() + next, count, width);
        next += count;
        _offsets.push_back(static_cast<std::uint32_t>(_out.size()));
        _out.advance(static_cast<std::size_t>(at - start));
    }
}

void BinaryWriter::writeTable(std::uint32_t root, std::size_t referenceWidth) {
    const std::size_t table = _out.size();
    const std::size_t offsetWidth = widthOf(_offsets.back()); // the largest one
    char* at = _out.room(_offsets.size() * offsetWidth);
    for (const std::uint32_t offset : _offsets) {
        writeNumber(at, offset, offsetWidth);
        at += offsetWidth;
    }
    _out.advance(_offsets.size() * offsetWidth);
    append(0, trailerOffsetWidth);
    append(offsetWidth, 1);
    append(referenceWidth, 1);
    append(_offsets.size(), 8);
    append(resolved(root), 8);
    append(table, 8);
}

void BinaryWriter::append(std::uint64_t number, std::size_t width) {
    writeNumber(_out.room(8), number, width);
    _out.advance(width);
}

Data BinaryWriter::write(const Value& root) {
    std::copy(binaryMagic.begin(), binaryMagic.end(), _out.room(binaryMagic.size()));
    _out.advance(binaryMagic.size());
    const Cell& cell = ValueAccess::cell(root);
    const std::uint32_t number = cell.isContainer() ? addContainer(cell, 0) : addScalar(cell, hashOf(cell));
    const std::size_t referenceWidth = widthOf(_index.size() + _containerCount - 1);
    writeContainers(referenceWidth);
    writeTable(number, referenceWidth);
    return _out.finish();
}

} // namespace

Data writeBinary(const Value& root, std::size_t limit) {
    return BinaryWriter(Estimate(root), limit).write(root);
}

} // namespace appsync::propertylist
