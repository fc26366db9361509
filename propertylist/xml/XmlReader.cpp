#include "propertylist/xml/XmlReader.h"

#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/xml/Base64.h"
#include "propertylist/xml/IsoDate.h"
#include "propertylist/xml/XmlScanner.h"
#include "values/storage/ValueStorage.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <vector>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;

using detail::ArrayBox;
using detail::BoxArena;
using detail::Cell;
using detail::DictionaryBox;
using detail::Tag;

constexpr std::string_view whiteSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(whiteSpace);
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

/// Builds values from the elements and texts of a document.
class XmlReader {
  public:
    explicit XmlReader(std::string_view bytes) : _scanner(bytes) {}
    Value read();

  private:
    enum class Element { plist, dictionary, array, key, string, integer, real, date, data, trueValue, falseValue };
    struct Name {
        std::string_view name;
        Element element;
    };
    struct Item {
        Text key; // in a dictionary
        Value value;
        std::size_t offset; // of the key
    };
    struct Level { // a container whose end has not come
        bool isDictionary;
        bool hasKey; // for which no value has come
        std::size_t firstItem;
    };

    static const Name names[];

    bool takePlain();
    bool takeLeaf(Element element);
    void start();
    void requirePlaceFor(Element element) const;
    void startPlist();
    void startLeaf(Element element);
    void text(std::string_view piece, bool isInDocument);
    void end();
    void endLeaf();
    void requireNoKeyAlone() const;
    Cell* place();
    Cell array(std::size_t firstItem);
    Cell dictionary(std::size_t firstItem);
    Cell leaf();
    Value otherLeaf();
    Value integer();
    Value real();

    XmlScanner _scanner;
    bool _inPlist = false;
    std::optional<Element> _leaf; // the element whose text is being collected
    std::size_t _leafOffset = 0;
    std::string_view _text;  // of the leaf
    std::string _joinedText; // when it comes in pieces
    bool _isJoined = false;
    std::vector<Level> _levels;
    std::vector<Item> _items; // of all containers whose end has not come
    BoxArena _arena;
    std::optional<Value> _root;
};

const XmlReader::Name XmlReader::names[] = {
    {"key", Element::key},          {"string", Element::string},   {"dict", Element::dictionary},
    {"array", Element::array},      {"integer", Element::integer}, {"true", Element::trueValue},
    {"false", Element::falseValue}, {"real", Element::real},       {"date", Element::date},
    {"data", Element::data},        {"plist", Element::plist},
};

Value XmlReader::read() {
    for (;;) {
        if (!_leaf) {
            _scanner.skipSpace(); // in most places none that means anything
            if (takePlain()) {
                continue;
            }
        }
        switch (_scanner.next()) {
        case XmlScanner::Token::start: start(); break;
        case XmlScanner::Token::text: text(_scanner.text(), true); break;
        case XmlScanner::Token::character: text(_scanner.text(), false); break;
        case XmlScanner::Token::end: end(); break;
        case XmlScanner::Token::finish: return std::move(*_root);
        }
    }
}

/// Reads the element that comes next if it is one of the most frequent and simplest, in a container.
bool XmlReader::takePlain() {
    if (_levels.empty()) {
        return false;
    }
    if (const Level& level = _levels.back(); level.isDictionary && !level.hasKey) {
        return _scanner.takePlain("<key>", "</key>") && takeLeaf(Element::key);
    }
    return (_scanner.takePlain("<string>", "</string>") && takeLeaf(Element::string)) ||
           (_scanner.takePlain("<integer>", "</integer>") && takeLeaf(Element::integer));
}

bool XmlReader::takeLeaf(Element element) {
    startLeaf(element);
    _text = _scanner.text();
    endLeaf();
    return true;
}

void XmlReader::start() {
    const auto isNamed = [&](const Name& candidate) { return candidate.name == _scanner.name(); };
    const Name* const known = std::find_if(std::begin(names), std::end(names), isNamed);
    const bool isPlist = known != std::end(names) && known->element == Element::plist;
    if (known == std::end(names) || _leaf || isPlist == _inPlist) {
        failReading(Code::unexpectedElement, _scanner.offset(), "an unexpected element " + quoted(_scanner.name()));
    }
    if (isPlist) {
        startPlist();
        return;
    }
    requirePlaceFor(known->element);
    if (known->element == Element::dictionary || known->element == Element::array) {
        if (_levels.size() >= maxPropertyListDepth) {
            failReading(Code::tooDeep, _scanner.offset(), "containers are nested too deep");
        }
        _levels.push_back({known->element == Element::dictionary, false, _items.size()});
        return;
    }
    startLeaf(known->element);
}

void XmlReader::startLeaf(Element element) {
    _leaf = element;
    _leafOffset = _scanner.offset();
    _text = {};
    _isJoined = false;
}

/// Keys and values take turns in dictionaries, keys stand nowhere else, and there is one root.
void XmlReader::requirePlaceFor(Element element) const {
    if (_levels.empty() && _root) {
        failReading(Code::unexpectedElement, _scanner.offset(), "a second root value");
    }
    const bool inDictionary = !_levels.empty() && _levels.back().isDictionary;
    if (element != Element::key) {
        if (inDictionary && !_levels.back().hasKey) {
            failReading(Code::missingKey, _scanner.offset(), "a value without a key");
        }
    } else if (!inDictionary) {
        failReading(Code::unexpectedElement, _scanner.offset(), "a key outside of a dictionary");
    } else {
        requireNoKeyAlone();
    }
}

void XmlReader::startPlist() {
    for (const XmlScanner::Attribute& attribute : _scanner.attributes()) {
        if (attribute.name == "version" && attribute.value != "1.0") {
            failReading(Code::unexpectedElement, _scanner.offset(),
                        "a property list of version " + quoted(attribute.value));
        }
    }
    _inPlist = true;
}

/// The text of a leaf is a view into the document unless it comes in pieces.
void XmlReader::text(std::string_view piece, bool isInDocument) {
    if (!_leaf) {
        if (const std::size_t at = piece.find_first_not_of(whiteSpace); at != std::string_view::npos) {
            failReading(Code::unexpectedText, _scanner.offset() + at, "text between elements");
        }
    } else if (_text.empty() && isInDocument) {
        _text = piece;
    } else {
        if (!_isJoined) {
            _joinedText = _text;
            _isJoined = true;
        }
        _joinedText += piece;
        _text = _joinedText;
    }
}

void XmlReader::endLeaf() {
    if (*_leaf == Element::key) {
        Item& item = _items.emplace_back();
        new (&ValueAccess::cell(item.key)) Cell(Cell::text(_text, _arena));
        item.offset = _leafOffset;
        _levels.back().hasKey = true;
    } else {
        new (place()) Cell(leaf());
    }
    _leaf.reset();
}

void XmlReader::end() {
    if (_leaf) {
        endLeaf();
    } else if (!_levels.empty()) {
        requireNoKeyAlone();
        const Level level = _levels.back();
        _levels.pop_back();
        Cell container = level.isDictionary ? dictionary(level.firstItem) : array(level.firstItem);
        _items.resize(level.firstItem);
        new (place()) Cell(std::move(container));
    } else if (!_root) {
        failReading(Code::missingValue, _scanner.offset(), "no root value");
    }
}

void XmlReader::requireNoKeyAlone() const {
    if (_levels.back().hasKey) {
        failReading(Code::missingValue, _scanner.offset(), "no value after the key " + quoted(_items.back().key));
    }
}

/// Where the next value goes: a cell that holds null.
Cell* XmlReader::place() {
    if (_levels.empty()) {
        return &ValueAccess::cell(_root.emplace());
    }
    Level& level = _levels.back();
    if (!level.isDictionary) {
        return &ValueAccess::cell(_items.emplace_back().value);
    }
    level.hasKey = false;
    return &ValueAccess::cell(_items.back().value);
}

Cell XmlReader::array(std::size_t firstItem) {
    Array items;
    items.reserve(_items.size() - firstItem);
    for (std::size_t i = firstItem; i < _items.size(); ++i) {
        items.push_back(std::move(_items[i].value));
    }
    return Cell::boxed(Tag::array, ArrayBox::make(std::move(items), _arena));
}

Cell XmlReader::dictionary(std::size_t firstItem) {
    DictionaryBox* box = DictionaryBox::make(_items.size() - firstItem, _arena);
    Cell made = Cell::boxed(Tag::dictionary, box);
    ValueAccess::fillCapacity(box->entries);
    Item* item = _items.data() + firstItem;
    for (Dictionary::Entry& entry : ValueAccess::entries(box->entries)) {
        new (&ValueAccess::cell(entry.key)) Cell(std::move(ValueAccess::cell(item->key)));
        new (&ValueAccess::cell(entry.value)) Cell(std::move(ValueAccess::cell(item->value)));
        ++item;
    }
    if (const std::size_t duplicate = ValueAccess::indexUnlessDuplicate(box->entries);
        duplicate != box->entries.size()) {
        failReading(Code::duplicateKey, _items[firstItem + duplicate].offset,
                    "the key " + quoted(box->entries.begin()[duplicate].key) + " for the second time");
    }
    return made;
}

Cell XmlReader::leaf() {
    if (*_leaf == Element::string) {
        return Cell::text(_text, _arena);
    }
    Value value = otherLeaf();
    return std::move(ValueAccess::cell(value));
}

Value XmlReader::otherLeaf() {
    switch (*_leaf) {
    case Element::integer: return integer();
    case Element::real: return real();
    case Element::date:
        if (const auto date = dateFromText(trimmed(_text))) {
            return *date;
        }
        failReading(Code::invalidDate, _leafOffset, "a date that is not of the form 2001-01-31T23:59:59Z");
    case Element::data:
        if (auto bytes = bytesFromBase64(_text)) {
            return Data(std::move(*bytes));
        }
        failReading(Code::invalidData, _leafOffset, "data that is not in base 64");
    default: break;
    }
    if (!trimmed(_text).empty()) {
        failReading(Code::unexpectedText, _leafOffset, "text in a boolean");
    }
    return *_leaf == Element::trueValue;
}

Value XmlReader::integer() {
    std::string_view digits = trimmed(_text);
    if (digits.starts_with('+') && !digits.starts_with("+-")) {
        digits.remove_prefix(1);
    }
    const char* const last = digits.data() + digits.size();
    std::int64_t number = 0;
    auto [end, problem] = std::from_chars(digits.data(), last, number);
    if (problem == std::errc{} && end == last) {
        return number;
    }
    std::uint64_t large = 0;
    if (problem == std::errc::result_out_of_range && end == last) {
        if (std::from_chars(digits.data(), last, large).ec == std::errc{}) {
            return large;
        }
        failReading(Code::numberOutOfRange, _leafOffset, "an integer beyond 64 bits");
    }
    failReading(Code::invalidNumber, _leafOffset, "an integer that is not written in decimal digits");
}

Value XmlReader::real() {
    std::string_view digits = trimmed(_text);
    if (digits.starts_with('+') && !digits.starts_with("+-")) {
        digits.remove_prefix(1);
    }
    const char* const last = digits.data() + digits.size();
    double number = 0;
    const auto [end, problem] = std::from_chars(digits.data(), last, number);
    if (end != last || problem == std::errc::invalid_argument) {
        failReading(Code::invalidNumber, _leafOffset, "a real that is not written as a decimal number");
    }
    if (problem != std::errc{} || !std::isfinite(number)) {
        failReading(Code::numberOutOfRange, _leafOffset, "a real that is no number of 64 bits");
    }
    return number;
}

} // namespace

Value readXml(std::string_view bytes) {
    return XmlReader(bytes).read();
}

} // namespace appsync::propertylist
