#include "propertylist/xml/XmlWriter.h"

#include "propertylist/ByteBuffer.h"
#include "propertylist/Codec.h"
#include "propertylist/Failure.h"
#include "propertylist/xml/Base64.h"
#include "propertylist/xml/IsoDate.h"
#include "propertylist/xml/XmlText.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;

using Take = std::function<bool(std::string_view)>;

class XmlWriter {
  public:
    explicit XmlWriter(const Take& take) : _take(take) {}

    void write(const Value& root);

  private:
    struct NotWanted {}; // thrown when nobody takes what was written

    void append(const Value& value, std::size_t depth);
    void appendText(std::string_view text);
    void appendArray(const Array& items, std::size_t depth);
    void appendDictionary(const Dictionary& entries, std::size_t depth);
    void appendEntry(const Dictionary::Entry& entry, std::size_t depth);
    template <class Number> void appendNumber(Number number);
    void startLine(std::size_t depth) {
        constexpr std::size_t pieceSize = std::size_t{32} << 10;
        if (_out.size() >= pieceSize) {
            handOver();
        }
        _out += '\n';
        _out.append(depth, '\t');
    }
    void handOver() {
        if (!_take(_out)) {
            throw NotWanted();
        }
        _out.clear();
    }

    const Take& _take;
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
    if (!isXmlText(text)) {
        appendText(xmlTextFrom(text));
        return;
    }
    std::size_t written = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
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
    if (depth >= maxPropertyListDepth) {
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
    if (depth >= maxPropertyListDepth) {
        failWriting(Code::tooDeep, "containers are nested too deep");
    }
    if (entries.empty()) {
        _out += "<dict/>";
        return;
    }
    _out += "<dict>";
    const bool allAreHeld =
        std::ranges::all_of(entries, [](const Dictionary::Entry& entry) { return isXmlText(entry.key); });
    std::set<std::string> written; // keys, when some of them may become the same
    for (const Dictionary::Entry& entry : entries) {
        if (allAreHeld || written.insert(xmlTextFrom(entry.key)).second) {
            appendEntry(entry, depth + 1);
        }
    }
    startLine(depth);
    _out += "</dict>";
}

void XmlWriter::appendEntry(const Dictionary::Entry& entry, std::size_t depth) {
    try {
        startLine(depth);
        _out += "<key>";
        appendText(entry.key);
        _out += "</key>";
        append(entry.value, depth);
    } catch (Failure& failure) {
        prependKey(failure, entry.key);
        throw;
    }
}

void XmlWriter::write(const Value& root) {
    try {
        _out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
        append(root, 0);
        _out += "\n</plist>\n";
        handOver();
    } catch (const NotWanted&) {
        // Whoever took no more knows why.
    }
}

} // namespace

Data writeXml(const Value& root, std::size_t limit) {
    ByteBuffer file(limit);
    writeXml(root, [&](std::string_view piece) {
        piece.copy(file.room(piece.size()), piece.size());
        file.advance(piece.size());
        return true;
    });
    return file.finish();
}

void writeXml(const Value& root, const Take& take) {
    XmlWriter(take).write(root);
}

} // namespace appsync::propertylist
