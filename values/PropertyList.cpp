#include "values/PropertyList.h"

#include "values/storage/ValueStorage.h"

#include <algorithm>
#include <charconv>

namespace appsync {

namespace detail {

namespace {

Cell filled(TextBox* box, std::string_view text) noexcept {
    std::memcpy(box->bytes(), text.data(), text.size());
    return Cell::boxed(Tag::sharedText, box);
}

} // namespace

Cell Cell::text(std::string_view text) {
    return text.size() <= inlineCapacity ? inlineText(text) : filled(TextBox::make(text.size()), text);
}

Cell Cell::text(std::string_view text, BoxArena& arena) {
    return text.size() <= inlineCapacity ? inlineText(text) : filled(TextBox::make(text.size(), arena), text);
}

} // namespace detail

using detail::Cell;
using detail::Tag;

Data::Data(std::string bytes) : _cell(Cell::boxed(Tag::data, detail::DataBox::make(std::move(bytes)))) {}

std::string_view Data::bytes() const noexcept {
    if (_cell.tag() != Tag::data) {
        return {}; // moved from
    }
    const auto* box = static_cast<const detail::DataBox*>(_cell.box());
    return {box->bytes, box->size};
}

Value::Value(Array items) : _cell(Cell::boxed(Tag::array, detail::ArrayBox::make(std::move(items)))) {}

Value::Value(Dictionary entries)
    : _cell(Cell::boxed(Tag::dictionary, detail::DictionaryBox::make(std::move(entries)))) {}

Value::Kind Value::kind() const noexcept {
    switch (_cell.tag()) {
    case Tag::null: return Kind::null;
    case Tag::boolean: return Kind::boolean;
    case Tag::integer: return Kind::integer;
    case Tag::unsignedInteger: return Kind::unsignedInteger;
    case Tag::real: return Kind::real;
    case Tag::date: return Kind::date;
    case Tag::inlineText:
    case Tag::sharedText: return Kind::string;
    case Tag::data: return Kind::data;
    case Tag::array: return Kind::array;
    case Tag::dictionary: return Kind::dictionary;
    }
    return Kind::null;
}

std::optional<std::string_view> Value::string() const noexcept {
    return _cell.isText() ? std::optional(_cell.textView()) : std::nullopt;
}

std::optional<Text> Value::text() const noexcept {
    return _cell.isText() ? std::optional(Text(_cell)) : std::nullopt;
}

std::optional<Data> Value::data() const noexcept {
    return _cell.tag() == Tag::data ? std::optional(Data(_cell)) : std::nullopt;
}

std::optional<Date> Value::date() const noexcept {
    return _cell.tag() == Tag::date ? std::optional(_cell.as<Date>()) : std::nullopt;
}

std::optional<bool> Value::truth() const noexcept {
    switch (_cell.tag()) {
    case Tag::boolean: return _cell.as<bool>();
    case Tag::integer:
    case Tag::unsignedInteger: return _cell.as<std::uint64_t>() != 0;
    case Tag::real: return _cell.as<double>() != 0;
    default: return std::nullopt;
    }
}

std::optional<std::int64_t> Value::integer() const noexcept {
    const bool isSigned = _cell.tag() == Tag::integer;
    if (!isSigned && _cell.tag() != Tag::unsignedInteger) {
        return std::nullopt;
    }
    const auto number = _cell.as<std::int64_t>();
    return isSigned || number >= 0 ? std::optional(number) : std::nullopt;
}

std::optional<std::uint64_t> Value::unsignedInteger() const noexcept {
    const bool isUnsigned = _cell.tag() == Tag::unsignedInteger;
    if (!isUnsigned && _cell.tag() != Tag::integer) {
        return std::nullopt;
    }
    const bool negative = !isUnsigned && _cell.as<std::int64_t>() < 0;
    return negative ? std::nullopt : std::optional(_cell.as<std::uint64_t>());
}

std::optional<double> Value::real() const noexcept {
    switch (_cell.tag()) {
    case Tag::integer: return static_cast<double>(_cell.as<std::int64_t>());
    case Tag::unsignedInteger: return static_cast<double>(_cell.as<std::uint64_t>());
    case Tag::real: return _cell.as<double>();
    default: return std::nullopt;
    }
}

const Array* Value::array() const noexcept {
    return _cell.tag() == Tag::array ? &static_cast<detail::ArrayBox*>(_cell.box())->items : nullptr;
}

const Dictionary* Value::dictionary() const noexcept {
    return _cell.tag() == Tag::dictionary ? &static_cast<detail::DictionaryBox*>(_cell.box())->entries : nullptr;
}

Array* Value::mutableArray() {
    if (_cell.tag() != Tag::array) {
        return nullptr;
    }
    if (!_cell.isUnique()) {
        *this = Value(Array(*array()));
    }
    return &static_cast<detail::ArrayBox*>(_cell.box())->items;
}

Dictionary* Value::mutableDictionary() {
    if (_cell.tag() != Tag::dictionary) {
        return nullptr;
    }
    if (!_cell.isUnique()) {
        *this = Value(Dictionary(*dictionary()));
    }
    return &static_cast<detail::DictionaryBox*>(_cell.box())->entries;
}

namespace {

/// How deep comparisons and descriptions go, so that no value can exhaust the stack.
constexpr std::size_t maxDepth = 512;

bool areEqual(const Value& a, const Value& b, std::size_t depth) noexcept;

bool areEqual(const Array& a, const Array& b, std::size_t depth) noexcept {
    const auto equalItems = [&](const Value& x, const Value& y) { return areEqual(x, y, depth); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), equalItems);
}

bool areEqual(const Dictionary& a, const Dictionary& b, std::size_t depth) noexcept {
    const auto hasEqual = [&](const Dictionary::Entry& entry) {
        const Value* other = b.find(entry.key);
        return other && areEqual(entry.value, *other, depth);
    };
    return a.size() == b.size() && std::all_of(a.begin(), a.end(), hasEqual);
}

bool areEqual(const Value& a, const Value& b, std::size_t depth) noexcept {
    if (const auto number = a.integer()) {
        return number == b.integer();
    }
    if (a.kind() != b.kind()) {
        return false;
    }
    switch (a.kind()) {
    case Value::Kind::null: return true;
    case Value::Kind::boolean: return a.truth() == b.truth();
    case Value::Kind::integer:
    case Value::Kind::unsignedInteger: return a.unsignedInteger() == b.unsignedInteger();
    case Value::Kind::real: return a.real() == b.real();
    case Value::Kind::date: return a.date() == b.date();
    case Value::Kind::string: return a.string() == b.string();
    case Value::Kind::data: return a.data() == b.data();
    case Value::Kind::array:
        return a.array() == b.array() || (depth < maxDepth && areEqual(*a.array(), *b.array(), depth + 1));
    case Value::Kind::dictionary:
        return a.dictionary() == b.dictionary() ||
               (depth < maxDepth && areEqual(*a.dictionary(), *b.dictionary(), depth + 1));
    }
    return false;
}

} // namespace

bool operator==(const Value& a, const Value& b) noexcept {
    return areEqual(a, b, 0);
}

bool operator==(const Dictionary& a, const Dictionary& b) noexcept {
    return areEqual(a, b, 1);
}

// Description.

namespace {

template <class Number> void appendNumber(Description& out, Number number) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append({digits, end});
}

void append(Description& out, const Value& value, std::size_t depth);

void append(Description& out, const Array& items, std::size_t depth) {
    out.append("(");
    const char* separator = "";
    for (const Value& item : items) {
        out.append(separator);
        append(out, item, depth);
        separator = ", ";
        if (out.isFull()) {
            return;
        }
    }
    out.append(")");
}

void append(Description& out, const Dictionary& entries, std::size_t depth) {
    out.append("{");
    const char* separator = "";
    for (const auto& [key, value] : entries) {
        out.append(separator);
        out.append(key);
        out.append(" = ");
        append(out, value, depth);
        out.append(";");
        separator = " ";
        if (out.isFull()) {
            return;
        }
    }
    out.append("}");
}

void append(Description& out, const Value& value, std::size_t depth) {
    switch (value.kind()) {
    case Value::Kind::null: out.append("(null)"); break;
    case Value::Kind::boolean: out.append(*value.truth() ? "1" : "0"); break;
    case Value::Kind::integer: appendNumber(out, *value.integer()); break;
    case Value::Kind::unsignedInteger: appendNumber(out, *value.unsignedInteger()); break;
    case Value::Kind::real: appendNumber(out, *value.real()); break;
    case Value::Kind::date: appendNumber(out, value.date()->secondsSinceReference); break;
    case Value::Kind::string: out.append(*value.string()); break;
    case Value::Kind::data:
        out.append("<");
        appendNumber(out, value.data()->size());
        out.append(" bytes>");
        break;
    case Value::Kind::array:
    case Value::Kind::dictionary:
        if (depth == maxDepth) {
            out.append("...");
        } else if (const Array* items = value.array()) {
            append(out, *items, depth + 1);
        } else {
            append(out, *value.dictionary(), depth + 1);
        }
        break;
    }
}

} // namespace

std::string Value::description() const {
    std::string out;
    Description description(out);
    appendDescription(description);
    return out;
}

void Value::appendDescription(Description& out) const {
    append(out, *this, 0);
}

} // namespace appsync
