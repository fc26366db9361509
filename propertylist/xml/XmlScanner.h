// Takes an XML document apart into elements and text.
//
// It knows as much of XML as documents without definitions of their own need: elements, attributes, text, the
// predefined entities, character references, character data, comments, processing instructions, the declaration, and a
// document type line, which it ignores. It never looks outside of the document and expands nothing, so its time and
// memory are bounded by the document's size and depth.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::propertylist {

/// Throws `Failure` where the document is not well-formed UTF-8 XML.
class XmlScanner {
  public:
    enum class Token {
        start,     // of an element
        end,       // of an element; one without content starts and ends
        text,      // a piece of text that stands in the document as it is
        character, // a character that a reference or a line end stands for
        finish,    // after which nothing may be asked for
    };
    struct Attribute {
        std::string_view name;
        std::string value;
    };
    static constexpr std::size_t maxAttributes = 32; // of an element

    /// The document must outlive the scanner.
    explicit XmlScanner(std::string_view document);

    Token next();
    /// Skips the white space that comes next; false when there is none. For where it means nothing.
    bool skipSpace() noexcept;
    /// A shortcut for what most elements are: reads a whole element, given by its tags, if it comes next and its
    /// content is nothing but text that stands in the document as it is. False, and nothing changes, otherwise.
    template <std::size_t startSize, std::size_t endSize>
    [[nodiscard]] bool takePlain(const char (&start)[startSize], const char (&end)[endSize]) noexcept {
        const std::size_t begin = _at + startSize - 1;
        const bool isNext = isAt(start) && !_endFollows && _verbatimEnd == 0;
        const std::size_t after = isNext ? endOfPlainText(begin) : _document.size();
        if (!_document.substr(after).starts_with(end)) {
            return false;
        }
        _offset = _at;
        _text = _document.substr(begin, after - begin);
        _at = after + endSize - 1;
        return true;
    }
    /// Where the token begins, in bytes.
    [[nodiscard]] std::size_t offset() const noexcept { return _offset; }
    /// Of the element that starts or ends.
    [[nodiscard]] std::string_view name() const noexcept { return _name; }
    /// Of the element that starts; valid until the next token.
    [[nodiscard]] const std::vector<Attribute>& attributes() const noexcept { return _attributes; }
    /// Of a text, or a character; the latter is valid until the next token. Never empty.
    [[nodiscard]] std::string_view text() const noexcept { return _text; }

  private:
    [[noreturn]] void fail(std::size_t at, std::string_view reason) const;
    [[nodiscard]] bool isAtEnd() const noexcept { return _at == _document.size(); }
    [[nodiscard]] char charAt(std::size_t at) const noexcept { return at < _document.size() ? _document[at] : '\0'; }
    [[nodiscard]] char current() const noexcept { return charAt(_at); }
    [[nodiscard]] bool isAt(std::string_view words) const noexcept { return _document.substr(_at).starts_with(words); }
    bool skip(std::string_view words) noexcept;
    void require(char wanted);
    void requireSpace();
    void requireCharacters(std::size_t begin, std::size_t end) const;
    std::string_view takeName();
    std::string_view takeQuoted();
    std::string_view takeUntil(std::string_view end);

    void declaration();
    std::string_view declared(std::string_view name);
    void documentType();
    void comment();
    void instruction();

    Token startTag();
    void attribute();
    std::string valueOfAttribute(std::size_t begin, std::size_t end);
    Token endTag();
    Token run();
    Token lineEnd();
    void characterData();
    [[nodiscard]] std::size_t endOfPlainText(std::size_t begin) const noexcept;
    Token reference();
    void appendReference(std::string& out);

    std::string_view _document;
    std::size_t _at = 0;
    std::size_t _offset = 0;
    std::size_t _verbatimEnd = 0; // of the character data that is being read, or 0
    std::string_view _name;
    std::string_view _text;
    std::string _decoded; // what a reference stands for
    std::vector<Attribute> _attributes;
    std::vector<std::string_view> _open; // elements that have not ended
    bool _endFollows = false;            // of an element without content
    bool _hasRoot = false;
    bool _hasDocumentType = false;
};

} // namespace appsync::propertylist
