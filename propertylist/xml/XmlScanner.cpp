#include "propertylist/xml/XmlScanner.h"

#include "propertylist/Failure.h"
#include "propertylist/Utf.h"
#include "propertylist/xml/XmlText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

namespace appsync::propertylist {

namespace {

using Code = PropertyListErrorCode;
using namespace std::string_view_literals;

constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::string_view digits = "0123456789";

/// A set of bytes.
class Bytes {
  public:
    template <class... Texts> explicit constexpr Bytes(Texts... texts) {
        for (const std::string_view text : std::initializer_list<std::string_view>{texts...}) {
            for (const char c : text) {
                _has[static_cast<unsigned char>(c)] = true;
            }
        }
    }
    [[nodiscard]] constexpr Bytes others() const {
        Bytes others;
        for (std::size_t i = 0; i < _has.size(); ++i) {
            others._has[i] = !_has[i];
        }
        return others;
    }
    [[nodiscard]] constexpr bool has(char c) const noexcept { return _has[static_cast<unsigned char>(c)]; }

  private:
    std::array<bool, 256> _has{};
};

constexpr Bytes runEnds("<&\r");
constexpr Bytes spaces(" \t\r\n");
constexpr Bytes nameStarts(letters, "_:");
constexpr Bytes nameParts(letters, digits, "_:-.");
constexpr Bytes publicIdentifierParts(letters, digits, " \r\n-'()+,./:=?;!*#@$_%");
/// All but what means something else than itself in a text, or may be or begin what XML cannot hold.
constexpr Bytes plainText =
    Bytes("<&\r]\xEF"sv, "\0\1\2\3\4\5\6\7\10\13\14\16\17\20\21\22\23\24\25\26\27\30\31\32\33\34\35\36\37"sv).others();

/// Where the first byte from `begin` on stands that the set lacks.
std::size_t endOf(const Bytes& set, std::string_view text, std::size_t begin) noexcept {
    std::size_t at = begin;
    while (at < text.size() && set.has(text[at])) {
        ++at;
    }
    return at;
}

bool hasOnly(std::string_view text, const Bytes& allowed) {
    return endOf(allowed, text, 0) == text.size();
}

bool isAnyCase(std::string_view text, std::string_view lowerCase) {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; });
}

} // namespace

XmlScanner::XmlScanner(std::string_view document) : _document(document) {
    if (const std::size_t wrong = invalidUtf8(document); wrong != allValid) {
        failReading(Code::invalidText, wrong, "a byte that is not valid UTF-8");
    }
    skip("\xEF\xBB\xBF"); // the byte order mark
    declaration();
}

void XmlScanner::fail(std::size_t at, std::string_view reason) const {
    requireCharacters(at, std::min(at + 1, _document.size()));
    failReading(Code::malformedXml, at, "it is not well-formed XML (" + std::string(reason) + ")");
}

XmlScanner::Token XmlScanner::next() {
    if (_endFollows) {
        _endFollows = false;
        return Token::end;
    }
    for (;;) {
        _offset = _at;
        if (_verbatimEnd != 0) {
            if (_at != _verbatimEnd) {
                return current() == '\r' ? lineEnd() : run();
            }
            _at += 3; // of "]]>"
            _verbatimEnd = 0;
        } else if (isAtEnd()) {
            if (!_hasRoot || !_open.empty()) {
                fail(_at, "it ends too early");
            }
            return Token::finish;
        } else if (current() == '&') {
            return reference();
        } else if (_open.empty() && current() != '<') {
            if (!skipSpace()) {
                fail(_at, "text outside of the root element");
            }
        } else if (current() == '\r') {
            return lineEnd();
        } else if (current() != '<') {
            return run();
        } else if (const char second = charAt(_at + 1); second != '!' && second != '?') {
            return second == '/' ? endTag() : startTag();
        } else if (skip("<?")) {
            instruction();
        } else if (skip("<!--")) {
            comment();
        } else if (skip("<![CDATA[")) {
            characterData();
        } else {
            documentType();
        }
    }
}

// Words.

std::size_t XmlScanner::endOfPlainText(std::size_t begin) const noexcept {
    return endOf(plainText, _document, begin);
}

bool XmlScanner::skip(std::string_view words) noexcept {
    if (!isAt(words)) {
        return false;
    }
    _at += words.size();
    return true;
}

bool XmlScanner::skipSpace() noexcept {
    const std::size_t begin = _at;
    _at = endOf(spaces, _document, begin);
    return _at != begin;
}

void XmlScanner::require(char wanted) {
    if (current() != wanted) {
        fail(_at, std::string("no \"") + wanted + "\"");
    }
    ++_at;
}

void XmlScanner::requireSpace() {
    if (!skipSpace()) {
        fail(_at, "no space");
    }
}

std::string_view XmlScanner::takeName() {
    const std::size_t begin = _at;
    if (isAtEnd() || !nameStarts.has(_document[_at])) {
        fail(_at, "no name");
    }
    _at = endOf(nameParts, _document, begin);
    return _document.substr(begin, _at - begin);
}

void XmlScanner::requireCharacters(std::size_t begin, std::size_t end) const {
    for (std::size_t at = begin; at < end; ++at) {
        if (isForbiddenInXml(_document, at)) {
            failReading(Code::invalidText, at, "a character that XML cannot hold");
        }
    }
}

/// What stands between here and `end`, which is skipped.
std::string_view XmlScanner::takeUntil(std::string_view end) {
    const std::size_t begin = _at;
    const std::size_t found = _document.find(end, begin);
    if (found == std::string_view::npos) {
        fail(_offset, "no \"" + std::string(end) + "\" follows");
    }
    requireCharacters(begin, found);
    _at = found + end.size();
    return _document.substr(begin, found - begin);
}

std::string_view XmlScanner::takeQuoted() {
    if (current() != '"' && current() != '\'') {
        fail(_at, "no quotation mark");
    }
    return takeUntil(_document.substr(_at++, 1));
}

// What stands around the elements.

void XmlScanner::declaration() {
    _offset = _at;
    if (!skip("<?xml") || !spaces.has(current())) {
        _at = _offset; // another instruction
        return;
    }
    constexpr Bytes versionParts(letters, digits, "_.-");
    if (const std::string_view version = declared("version"); version.empty() || !hasOnly(version, versionParts)) {
        fail(_offset, "a declaration without a version");
    }
    if (const std::string_view encoding = declared("encoding"); !encoding.empty() && !isAnyCase(encoding, "utf-8")) {
        failReading(Code::unsupportedEncoding, _offset, "the encoding " + quoted(encoding) + " instead of UTF-8");
    }
    if (const std::string_view alone = declared("standalone"); !alone.empty() && alone != "yes" && alone != "no") {
        fail(_offset, "a declaration that stands alone neither yes nor no");
    }
    skipSpace();
    if (!skip("?>")) {
        fail(_at, "a declaration that does not end");
    }
}

/// What the declaration says of something, or an empty text when that does not come next.
std::string_view XmlScanner::declared(std::string_view name) {
    const std::size_t begin = _at;
    if (!skipSpace() || !skip(name)) {
        _at = begin;
        return {};
    }
    skipSpace();
    require('=');
    skipSpace();
    const std::string_view value = takeQuoted();
    if (value.empty()) {
        fail(_offset, "an empty text in the declaration");
    }
    return value;
}

void XmlScanner::documentType() {
    if (_hasRoot || _hasDocumentType) {
        fail(_at, "markup that has no place here");
    }
    _hasDocumentType = true;
    if (!skip("<!DOCTYPE")) {
        fail(_at, "markup that has no meaning");
    }
    requireSpace();
    takeName();
    const bool hasSpace = skipSpace();
    const bool isPublic = hasSpace && skip("PUBLIC");
    if (isPublic) {
        requireSpace();
        if (!hasOnly(takeQuoted(), publicIdentifierParts)) {
            fail(_at, "a public identifier with other characters than it may have");
        }
    }
    if (isPublic || (hasSpace && skip("SYSTEM"))) {
        requireSpace();
        takeQuoted();
        skipSpace();
    }
    if (current() == '[') {
        failReading(Code::typeDefinitions, _at, "a document type with definitions of its own, such as entities,");
    }
    require('>');
}

void XmlScanner::comment() {
    takeUntil("--");
    require('>');
}

void XmlScanner::instruction() {
    if (isAnyCase(takeName(), "xml")) {
        fail(_offset, "a declaration that is not at the beginning");
    }
    if (!isAt("?>")) {
        requireSpace();
    }
    takeUntil("?>");
}

// Elements.

XmlScanner::Token XmlScanner::startTag() {
    if (_open.empty() && _hasRoot) {
        fail(_at, "a second root element");
    }
    ++_at;
    const std::string_view name = takeName();
    _name = name;
    _hasRoot = true;
    _attributes.clear();
    if (current() != '>') {
        while (skipSpace() && current() != '>' && current() != '/') {
            attribute();
        }
        _endFollows = current() == '/';
        _at += _endFollows ? 1 : 0;
    }
    require('>');
    if (!_endFollows) {
        _open.emplace_back(name.data(), name.size());
    }
    return Token::start;
}

void XmlScanner::attribute() {
    const std::size_t begin = _at;
    const std::string_view name = takeName();
    if (std::any_of(_attributes.begin(), _attributes.end(), [&](const Attribute& a) { return a.name == name; })) {
        fail(begin, "an attribute for the second time");
    }
    if (_attributes.size() == maxAttributes) {
        fail(begin, "more attributes than an element may have");
    }
    skipSpace();
    require('=');
    skipSpace();
    const std::size_t quotedAt = _at;
    takeQuoted();
    _attributes.push_back({name, valueOfAttribute(quotedAt + 1, _at - 1)});
}

std::string XmlScanner::valueOfAttribute(std::size_t begin, std::size_t end) {
    std::string value;
    for (_at = begin; _at < end;) {
        const char c = _document[_at];
        if (c == '<') {
            fail(_at, "a \"<\" in an attribute");
        }
        if (c == '&') {
            appendReference(value); // ends before the quotation mark, which no reference holds
        } else {
            value += spaces.has(c) ? ' ' : c;
            ++_at;
        }
    }
    _at = end + 1;
    return value;
}

XmlScanner::Token XmlScanner::endTag() {
    _at += 2;
    if (_open.empty() || !skip(_open.back()) || nameParts.has(current())) {
        fail(_offset + 2, "the end of another element than the one that is open");
    }
    _name = _open.back();
    _open.pop_back();
    skipSpace();
    require('>');
    return Token::end;
}

// Text.

/// Up to the next byte that means something else than itself.
XmlScanner::Token XmlScanner::run() {
    const std::size_t begin = _at;
    if (_verbatimEnd != 0) {
        _at = std::min(_document.find('\r', begin), _verbatimEnd);
    } else {
        for (_at = endOfPlainText(begin); !isAtEnd() && !runEnds.has(current()); _at = endOfPlainText(_at + 1)) {
            if (isAt("]]>")) {
                fail(_at, "\"]]>\" in a text");
            }
            requireCharacters(_at, _at + 1);
        }
    }
    _text = _document.substr(begin, _at - begin);
    return Token::text;
}

/// All kinds of line ends are read as a line feed.
XmlScanner::Token XmlScanner::lineEnd() {
    if (!skip("\r\n")) {
        ++_at;
    }
    _text = "\n";
    return Token::character;
}

/// Checks character data to its end; its text is read next.
void XmlScanner::characterData() {
    if (_open.empty()) {
        fail(_offset, "text outside of the root element");
    }
    const std::size_t begin = _at;
    takeUntil("]]>");
    _verbatimEnd = std::exchange(_at, begin) - 3;
}

XmlScanner::Token XmlScanner::reference() {
    if (_open.empty()) {
        fail(_at, "text outside of the root element");
    }
    _decoded.clear();
    appendReference(_decoded);
    _text = _decoded;
    return Token::character;
}

void XmlScanner::appendReference(std::string& out) {
    const std::size_t begin = _at;
    ++_at;
    if (skip("#")) {
        const int base = skip("x") ? 16 : 10;
        std::uint32_t character = 0;
        const char* const from = _document.data() + _at;
        const auto [to, problem] = std::from_chars(from, _document.data() + _document.size(), character, base);
        _at += static_cast<std::size_t>(to - from);
        if (problem == std::errc::invalid_argument) {
            fail(_at, "a reference without a number");
        }
        require(';');
        const std::size_t size = out.size();
        if (problem == std::errc{} && character <= 0x10FFFF && (character < 0xD800 || character >= 0xE000)) {
            appendCharacter(out, character);
        }
        if (out.size() == size || isForbiddenInXml(out, size)) {
            failReading(Code::invalidText, begin, "a character that XML cannot hold");
        }
        return;
    }
    struct Entity {
        std::string_view name;
        char character;
    };
    constexpr Entity entities[] = {{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    const std::string_view name = takeName();
    require(';');
    for (const Entity& entity : entities) {
        if (entity.name == name) {
            out += entity.character;
            return;
        }
    }
    failReading(Code::malformedXml, begin, "the undefined entity " + quoted(name));
}

} // namespace appsync::propertylist
