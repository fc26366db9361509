#include "host/view/Print.h"

#include "host/view/Terminal.h"
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

std::string_view codeOf(Colour colour) {
    switch (colour) {
    case Colour::none: return "";
    case Colour::red: return "\x1b[31m";
    case Colour::yellow: return "\x1b[33m";
    case Colour::green: return "\x1b[32m";
    }
    return "";
}

std::string rendered(const Line& line, bool hasColours) {
    std::string out;
    for (const Piece& piece : line) {
        const bool isColoured = hasColours && piece.colour != Colour::none;
        out += isColoured ? codeOf(piece.colour) : "";
        out += printable(piece.text, maxLineLength);
        out += isColoured ? "\x1b[0m" : "";
    }
    return out;
}

std::string dumped(const nlohmann::ordered_json& json, int indent = -1) {
    return json.dump(indent, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace

void printLine(std::ostream& out, std::string_view line, std::size_t limit) {
    out << printable(line, limit) << '\n';
}

void printQuestion(std::ostream& out, std::string_view question) {
    out << printable(question, maxLineLength) << ' ' << std::flush;
}

void printJson(std::ostream& out, const nlohmann::ordered_json& json, int indent) {
    out << dumped(json, indent) << '\n';
}

void printEvent(std::ostream& out, const nlohmann::ordered_json& event) {
    nlohmann::ordered_json line{{"version", jsonVersion}};
    line.update(event);
    printJson(out, line);
    out.flush();
}

void JsonList::_begin() {
    _out << "{\"version\":" << jsonVersion << ",\"" << _name << "\":[";
    _hasBegun = true;
}

void JsonList::add(const nlohmann::ordered_json& element) {
    if (_hasBegun) {
        _out << ',';
    } else {
        _begin();
    }
    _out << '\n' << dumped(element);
}

void JsonList::end() {
    if (!_hasBegun) {
        _begin();
    }
    _out << "\n]}\n";
}

void printXml(std::ostream& out, std::string_view piece, bool forTerminal) {
    if (forTerminal) {
        out << shownXml(piece);
    } else {
        out << piece;
    }
}

Line fittedLine(Line line, std::size_t columns) {
    for (Piece& piece : line) {
        piece.text = fitted(piece.text, columns);
        columns -= displayWidth(piece.text);
    }
    while (!line.empty()) {
        std::string& last = line.back().text;
        last.erase(last.find_last_not_of(' ') + 1);
        if (!last.empty()) {
            break;
        }
        line.pop_back();
    }
    return line;
}

void printLine(std::ostream& out, const Line& line) {
    out << rendered(line, terminalOf(out).has_value()) << '\n';
}

void drawLines(std::ostream& out, const std::vector<Line>& lines) {
    std::string drawn(eraseFromCursor);
    for (const Line& line : lines) {
        drawn.append(&line == &lines.front() ? "" : "\n").append(rendered(line, true));
    }
    drawn += '\r';
    if (lines.size() > 1) {
        drawn += "\x1b[" + std::to_string(lines.size() - 1) + "A";
    }
    out << drawn << std::flush; // at once: a terminal shows no half of it
}

void eraseLines(std::ostream& out) {
    out << eraseFromCursor << std::flush;
}

} // namespace appsync::host
