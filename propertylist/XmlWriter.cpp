#include "propertylist/XmlWriter.h"

#include "propertylist/Base64.h"
#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/IsoDate.h"
#include "propertylist/Utf.h"
#include "propertylist/XmlText.h"

#include <charconv>
#include <cmath>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;

class XmlWriter {
  public:
    explicit XmlWriter(std::size_t limit) : _limit(limit) {}

    Data write(const Value& root);

  private:
    void append(const Value& value, std::size_t depth);
    void appendText(std::string_view text);
    void appendArray(const Array& items, std::size_t depth);
    void appendDictionary(const Dictionary& entries, std::size_t depth);
    template <class Number> void appendNumber(Number number);
    void startLine(std::size_t depth) {
        checkLimit();
        _out += '\n';
        _out.append(depth, '\t');
    }
    void checkLimit() const {
        if (_out.size() > _limit) {
            failWriting(Code::tooLarge, "more than " + std::to_string(_limit) + " bytes");
        }
    }

    std::size_t _limit;
    std::string _out;
};

/// What stands for a byte in text; empty when it stands for itself.
std::string_view escaped(char c) {
    switch (c) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";   // because of "]]>"
    case '\r': return "&#13;"; // a bare one would be read as a line feed
    default: return {};
    }
}

void XmlWriter::appendText(std::string_view text) {
    if (invalidUtf8(text) != allValid) {
        failWriting(Code::invalidText, "a text that is not valid UTF-8, " + quoted(text) + ",");
    }
    std::size_t written = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isForbiddenInXml(text, i)) {
            failWriting(Code::invalidText, "a text with a character that XML cannot hold, " + quoted(text) + ",");
        }
        const std::string_view replacement = escaped(text[i]);
        if (!replacement.empty()) {
            _out += text.substr(written, i - written);
            _out += replacement;
            written = i + 1;
        }
    }
    _out += text.substr(written);
}

template <class Number> void XmlWriter::appendNumber(Number number) {
    char digits[32];
    _out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

void XmlWriter::append(const Value& value, std::size_t depth) {
    startLine(depth);
    switch (value.kind()) {
    case Value::Kind::null: failWriting(Code::nullValue, "a null value, which no property list can hold,");
    case Value::Kind::boolean: _out += *value.truth() ? "<true/>" : "<false/>"; break;
    case Value::Kind::integer:
    case Value::Kind::unsignedInteger:
        _out += "<integer>";
        if (const auto number = value.unsignedInteger()) {
            appendNumber(*number);
        } else {
            appendNumber(*value.integer());
        }
        _out += "</integer>";
        break;
    case Value::Kind::real:
        if (!std::isfinite(*value.real())) {
            failWriting(Code::numberOutOfRange, "a real that is no finite number, which XML cannot hold,");
        }
        _out += "<real>";
        appendNumber(*value.real());
        _out += "</real>";
        break;
    case Value::Kind::date: {
        const auto text = textFromDate(*value.date());
        if (!text) {
            failWriting(Code::invalidDate, "a date outside of the years 1 to 9999, which XML cannot hold,");
        }
        _out += "<date>" + *text + "</date>";
        break;
    }
    case Value::Kind::string:
        _out += "<string>";
        appendText(*value.string());
        _out += "</string>";
        break;
    case Value::Kind::data:
        _out += "<data>";
        appendBase64(_out, value.data()->bytes());
        _out += "</data>";
        break;
    case Value::Kind::array: appendArray(*value.array(), depth); break;
    case Value::Kind::dictionary: appendDictionary(*value.dictionary(), depth); break;
    }
}

void XmlWriter::appendArray(const Array& items, std::size_t depth) {
    if (depth >= PropertyListDepthLimit) {
        failWriting(Code::tooDeep, "containers are nested too deep");
    }
    if (items.empty()) {
        _out += "<array/>";
        return;
    }
    _out += "<array>";
    std::size_t i = 0;
    try {
        for (; i < items.size(); ++i) {
            append(items[i], depth + 1);
        }
    } catch (Failure& failure) {
        prependIndex(failure, i);
        throw;
    }
    startLine(depth);
    _out += "</array>";
}

void XmlWriter::appendDictionary(const Dictionary& entries, std::size_t depth) {
    if (depth >= PropertyListDepthLimit) {
        failWriting(Code::tooDeep, "containers are nested too deep");
    }
    if (entries.empty()) {
        _out += "<dict/>";
        return;
    }
    _out += "<dict>";
    for (const auto& [key, value] : entries) {
        try {
            startLine(depth + 1);
            _out += "<key>";
            appendText(key);
            _out += "</key>";
            append(value, depth + 1);
        } catch (Failure& failure) {
            prependKey(failure, key);
            throw;
        }
    }
    startLine(depth);
    _out += "</dict>";
}

Data XmlWriter::write(const Value& root) {
    _out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
    append(root, 0);
    _out += "\n</plist>\n";
    checkLimit();
    return Data(std::move(_out));
}

} // namespace

Data writeXml(const Value& root, std::size_t limit) {
    return XmlWriter(limit).write(root);
}

} // namespace appsync::propertylist
