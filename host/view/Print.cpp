#include "host/view/Print.h"

#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <ostream>

namespace appsync::host {

namespace {

std::string reference(char32_t character) {
    char text[16];
    std::snprintf(text, sizeof text, "&#x%X;", static_cast<unsigned>(character));
    return text;
}

/// XML without what a terminal should not get. Line ends and tabs are its layout.
std::string shownXml(std::string_view piece) {
    std::string out;
    while (!piece.empty()) {
        const std::string_view from = piece;
        const char32_t character = takeCharacter(piece);
        const bool isShown = character == '\n' || character == '\t' || isPrintable(character);
        out += isShown ? std::string(from.substr(0, from.size() - piece.size())) : reference(character);
    }
    return out;
}

} // namespace

void printLine(std::ostream& out, std::string_view line, std::size_t limit) {
    out << printable(line, limit) << '\n';
}

void printQuestion(std::ostream& out, std::string_view question) {
    out << printable(question, maxLineLength) << ' ' << std::flush;
}

void printJson(std::ostream& out, const nlohmann::ordered_json& json, int indent) {
    out << json.dump(indent, ' ', true, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

void printXml(std::ostream& out, std::string_view piece, bool forTerminal) {
    if (forTerminal) {
        out << shownXml(piece);
    } else {
        out << piece;
    }
}

void eraseLines(std::ostream& out, std::size_t count) {
    out << "\x1b[" << count << "A\x1b[J";
}

} // namespace appsync::host
