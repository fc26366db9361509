#include "propertylist/xml/XmlReader.h"

#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/Utf.h"
#include "propertylist/xml/Base64.h"
#include "propertylist/xml/IsoDate.h"
#include "propertylist/xml/XmlText.h"

#include <expat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <vector>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;

constexpr std::string_view whiteSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(whiteSpace);
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

bool isUtf8Name(std::string_view encoding) {
    constexpr std::string_view name = "utf-8";
    return std::equal(encoding.begin(), encoding.end(), name.begin(), name.end(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; });
}

/// Builds values from the events of the XML parser. A failure inside an event is kept and stops the parser, because no
/// exception may pass through it.
class XmlReader {
  public:
    explicit XmlReader(std::string_view bytes);
    Value read();

  private:
    enum class Element { plist, dictionary, array, key, string, integer, real, date, data, trueValue, falseValue };
    struct Level { // a container whose end has not come
        bool isDictionary;
        Array items;
        Dictionary entries;
        std::optional<Text> key;
    };
    struct Name {
        std::string_view name;
        Element element;
    };
    struct FreeParser {
        void operator()(XML_Parser parser) const noexcept { XML_ParserFree(parser); }
    };

    static const Name names[];

    template <class Event> static void guarded(void* self, Event event) noexcept;
    [[nodiscard]] std::size_t offset() const;
    void handleEvents();
    void start(std::string_view name, const char** attributes);
    void requirePlaceFor(Element element) const;
    void startPlist(const char** attributes);
    void startContainer(bool isDictionary);
    void end();
    void endContainer();
    void text(std::string_view piece);
    void takeKey();
    void take(Value value);
    Value leafValue();
    Value integer();
    Value real();
    [[noreturn]] void failMalformed();

    std::string_view _bytes;
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> _parser;
    std::optional<Failure> _failure;
    bool _ranOutOfMemory = false;

    bool _inPlist = false;
    std::optional<Element> _leaf; // the element whose text is being collected
    std::size_t _leafOffset = 0;
    std::string _text;
    std::vector<Level> _levels;
    std::optional<Value> _root;
};

const XmlReader::Name XmlReader::names[] = {
    {"string", Element::string},    {"key", Element::key},         {"dict", Element::dictionary},
    {"array", Element::array},      {"integer", Element::integer}, {"true", Element::trueValue},
    {"false", Element::falseValue}, {"real", Element::real},       {"date", Element::date},
    {"data", Element::data},        {"plist", Element::plist},
};

XmlReader::XmlReader(std::string_view bytes) : _bytes(bytes), _parser(XML_ParserCreate("UTF-8")) {
    if (_parser == nullptr) {
        throw std::bad_alloc();
    }
    const std::size_t wrong = invalidUtf8(bytes);
    if (wrong != allValid) {
        failReading(Code::invalidText, wrong, "a byte that is not valid UTF-8");
    }
    handleEvents();
}

template <class Event> void XmlReader::guarded(void* self, Event event) noexcept {
    auto& reader = *static_cast<XmlReader*>(self);
    if (reader._failure || reader._ranOutOfMemory) {
        return; // the parser may still deliver events after it was told to stop
    }
    try {
        event(reader);
        return;
    } catch (Failure& failure) {
        reader._failure = std::move(failure);
    } catch (const std::exception&) {
        reader._ranOutOfMemory = true;
    }
    XML_StopParser(reader._parser.get(), XML_FALSE);
}

void XmlReader::handleEvents() {
    XML_Parser parser = _parser.get();
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser,
        [](void* self, const char* name, const char** attributes) {
            guarded(self, [&](XmlReader& reader) { reader.start(name, attributes); });
        },
        [](void* self, const char*) { guarded(self, [](XmlReader& reader) { reader.end(); }); });
    XML_SetCharacterDataHandler(parser, [](void* self, const char* piece, int length) {
        guarded(self, [&](XmlReader& reader) { reader.text({piece, static_cast<std::size_t>(length)}); });
    });
    XML_SetXmlDeclHandler(parser, [](void* self, const char*, const char* encoding, int) {
        guarded(self, [&](XmlReader& reader) {
            if (encoding != nullptr && !isUtf8Name(encoding)) {
                failReading(Code::unsupportedEncoding, reader.offset(),
                            "the encoding " + quoted(encoding) + " instead of UTF-8");
            }
        });
    });
    XML_SetStartDoctypeDeclHandler(parser, [](void* self, const char*, const char*, const char*, int hasDefinitions) {
        guarded(self, [&](XmlReader& reader) {
            if (hasDefinitions != 0) {
                failReading(Code::typeDefinitions, reader.offset(),
                            "a document type with definitions of its own, such as entities,");
            }
        });
    });
    // Without this, a reference to an entity that the ignored document type may define would vanish from the text.
    XML_SetSkippedEntityHandler(parser, [](void* self, const char* name, int) {
        guarded(self, [&](XmlReader& reader) {
            failReading(Code::malformedXml, reader.offset(), "the undefined entity " + quoted(name));
        });
    });
}

std::size_t XmlReader::offset() const {
    const XML_Index index = XML_GetCurrentByteIndex(_parser.get());
    return index < 0 ? 0 : static_cast<std::size_t>(index);
}

Value XmlReader::read() {
    static_assert(maxPropertyListSize <= std::numeric_limits<int>::max());
    const XML_Status status = XML_Parse(_parser.get(), _bytes.data(), static_cast<int>(_bytes.size()), XML_TRUE);
    if (_failure) {
        throw std::move(*_failure);
    }
    if (_ranOutOfMemory || XML_GetErrorCode(_parser.get()) == XML_ERROR_NO_MEMORY) {
        throw std::bad_alloc();
    }
    if (status != XML_STATUS_OK) {
        failMalformed();
    }
    return std::move(*_root);
}

void XmlReader::failMalformed() {
    const std::size_t at = offset();
    const XML_Error error = XML_GetErrorCode(_parser.get());
    const bool atForbidden = at < _bytes.size() && isForbiddenInXml(_bytes, at);
    if (error == XML_ERROR_BAD_CHAR_REF || (error == XML_ERROR_INVALID_TOKEN && atForbidden)) {
        failReading(Code::invalidText, at, "a character that XML cannot hold");
    }
    failReading(Code::malformedXml, at, std::string("it is not well-formed XML (") + XML_ErrorString(error) + ")");
}

void XmlReader::start(std::string_view name, const char** attributes) {
    const auto isNamed = [&](const Name& candidate) { return candidate.name == name; };
    const Name* const known = std::find_if(std::begin(names), std::end(names), isNamed);
    const bool isPlist = known != std::end(names) && known->element == Element::plist;
    if (known == std::end(names) || _leaf || isPlist == _inPlist) {
        failReading(Code::unexpectedElement, offset(), "an unexpected element " + quoted(name));
    }
    if (isPlist) {
        startPlist(attributes);
        return;
    }
    requirePlaceFor(known->element);
    if (known->element == Element::dictionary || known->element == Element::array) {
        startContainer(known->element == Element::dictionary);
        return;
    }
    _leaf = known->element;
    _leafOffset = offset();
    _text.clear();
}

/// Keys and values take turns in dictionaries, keys stand nowhere else, and there is one root.
void XmlReader::requirePlaceFor(Element element) const {
    if (_levels.empty() && _root) {
        failReading(Code::unexpectedElement, offset(), "a second root value");
    }
    const bool inDictionary = !_levels.empty() && _levels.back().isDictionary;
    if (element != Element::key) {
        if (inDictionary && !_levels.back().key) {
            failReading(Code::missingKey, offset(), "a value without a key");
        }
    } else if (!inDictionary) {
        failReading(Code::unexpectedElement, offset(), "a key outside of a dictionary");
    } else if (_levels.back().key) {
        failReading(Code::missingValue, offset(), "no value after the key " + quoted(*_levels.back().key));
    }
}

void XmlReader::startPlist(const char** attributes) {
    for (const char** attribute = attributes; *attribute != nullptr; attribute += 2) {
        if (std::strcmp(attribute[0], "version") == 0 && std::strcmp(attribute[1], "1.0") != 0) {
            failReading(Code::unexpectedElement, offset(), "a property list of version " + quoted(attribute[1]));
        }
    }
    _inPlist = true;
}

void XmlReader::startContainer(bool isDictionary) {
    if (_levels.size() >= maxPropertyListDepth) {
        failReading(Code::tooDeep, offset(), "containers are nested too deep");
    }
    _levels.push_back({isDictionary, {}, {}, {}});
}

void XmlReader::text(std::string_view piece) {
    if (_leaf) {
        _text += piece;
    } else if (const std::size_t at = piece.find_first_not_of(whiteSpace); at != std::string_view::npos) {
        failReading(Code::unexpectedText, offset() + at, "text between elements");
    }
}

void XmlReader::end() {
    if (_leaf) {
        if (*_leaf == Element::key) {
            takeKey();
        } else {
            take(leafValue());
        }
        _leaf.reset();
    } else if (!_levels.empty()) {
        endContainer();
    } else if (!_root) {
        failReading(Code::missingValue, offset(), "no root value");
    }
}

void XmlReader::endContainer() {
    Level level = std::move(_levels.back());
    if (level.key) {
        failReading(Code::missingValue, offset(), "no value after the key " + quoted(*level.key));
    }
    _levels.pop_back();
    take(level.isDictionary ? Value(std::move(level.entries)) : Value(std::move(level.items)));
}

void XmlReader::takeKey() {
    Level& level = _levels.back();
    if (level.entries.contains(_text)) {
        failReading(Code::duplicateKey, _leafOffset, "the key " + quoted(_text) + " for the second time");
    }
    level.key = Text(_text);
}

void XmlReader::take(Value value) {
    if (_levels.empty()) {
        _root = std::move(value);
    } else if (Level& level = _levels.back(); level.isDictionary) {
        level.entries.insert(std::move(*level.key), std::move(value));
        level.key.reset();
    } else {
        level.items.push_back(std::move(value));
    }
}

Value XmlReader::leafValue() {
    switch (*_leaf) {
    case Element::string: return _text;
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
