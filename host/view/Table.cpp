#include "host/view/Table.h"

#include "host/view/Terminal.h"
#include "text/Printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <span>

namespace appsync::host {

namespace {

constexpr std::size_t maxCellLength = 60;   // characters of a cell that has cells behind it
constexpr std::size_t gap = 2;              // between two columns
constexpr std::size_t minWidth = 10;        // of a column in a window that is too narrow for all
constexpr std::size_t wishedLastWidth = 30; // likewise: what the last has before others are cut
constexpr std::size_t minWrapWidth = 12;    // narrower it would be a column of letters

/// At blanks where there are any. In too narrow a room it stays one piece, which the terminal wraps.
std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
    std::vector<std::string> pieces;
    while (width >= minWrapWidth && displayWidth(text) > width) {
        std::string_view piece = frontOf(text, width);
        if (piece.empty()) {
            break; // what is seen as one character can be that wide
        }
        const std::size_t blank = text[piece.size()] == ' ' ? piece.size() : piece.rfind(' ');
        piece = piece.substr(0, blank == 0 ? piece.size() : blank);
        pieces.emplace_back(piece);
        text.remove_prefix(piece.size());
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    }
    if (!text.empty() || pieces.empty()) {
        pieces.emplace_back(text);
    }
    return pieces;
}

struct Unit {
    const char* name;
    double size;
};

Unit unitFor(std::uint64_t bytes) {
    constexpr std::array names = {"bytes", "kB", "MB", "GB", "TB"};
    const auto size = static_cast<double>(bytes);
    std::size_t place = 0;
    double unit = 1;
    while (size >= 1000 * unit && place + 1 < names.size()) {
        unit *= 1000;
        ++place;
    }
    return {names[place], unit};
}

std::string number(std::uint64_t bytes, const Unit& unit) {
    char text[32];
    std::snprintf(text, sizeof text, unit.size == 1 ? "%.0f" : "%.1f", static_cast<double>(bytes) / unit.size);
    return text;
}

} // namespace

Table::Table(std::vector<std::string> headings) : _rows{std::move(headings)} {}

void Table::add(std::vector<std::string> cells) {
    for (std::string& cell : cells) {
        cell = printable(cell, &cell == &cells.back() ? maxLineLength : maxCellLength);
    }
    _rows.push_back(std::move(cells));
}

std::vector<std::size_t> Table::_widths(std::optional<std::size_t> columns) const {
    std::vector<std::size_t> widths(_rows.front().size());
    for (const auto& row : _rows) {
        for (std::size_t column = 0; column < widths.size(); ++column) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    const auto firsts = std::span(widths).first(widths.size() - 1);
    std::size_t needed = std::min(widths.back(), wishedLastWidth);
    for (const std::size_t width : firsts) {
        needed += width + gap;
    }
    for (; columns && needed > *columns && !firsts.empty(); --needed) {
        std::size_t& widest = *std::ranges::max_element(firsts);
        if (widest <= minWidth) {
            break;
        }
        --widest;
    }
    return widths;
}

std::vector<Line> Table::lines(std::optional<std::size_t> columns) const {
    const auto widths = _widths(columns);
    const std::size_t last = widths.size() - 1;
    std::vector<Line> lines;
    for (const auto& row : _rows) {
        Line line;
        std::size_t start = 0; // of the last cell
        for (std::size_t column = 0; column < last; ++column) {
            const bool isResult = _results == column && &row != &_rows.front();
            const std::string cell = fitted(row[column], widths[column]);
            line.push_back({cell, isResult ? colourOfResult(row[column]) : Colour::none});
            line.push_back({std::string(widths[column] - displayWidth(cell) + gap, ' ')});
            start += widths[column] + gap;
        }
        auto pieces = columns ? wrapped(row[last], *columns - std::min(*columns, start)) : std::vector{row[last]};
        const bool isResult = _results == last && &row != &_rows.front();
        line.push_back({pieces.front(), isResult ? colourOfResult(row[last]) : Colour::none});
        lines.push_back(fittedLine(std::move(line), std::string::npos));
        for (std::size_t place = 1; place < pieces.size(); ++place) {
            lines.push_back({{std::string(start, ' ') + pieces[place]}});
        }
    }
    return lines;
}

void Table::print(std::ostream& out) const {
    const auto terminal = terminalOf(out);
    for (const Line& line : lines(terminal ? std::optional(windowOf(*terminal).columns) : std::nullopt)) {
        printLine(out, line);
    }
}

Colour colourOfResult(const std::string& word) {
    for (const char* good : {"done", "installed", "updated", "removed", "restored"}) {
        if (word == good) {
            return Colour::green;
        }
    }
    if (word == "failed" || word == "refused") {
        return Colour::red;
    }
    const bool goesOn = word.starts_with("waiting") || word == "cancelled" || word == "not sent" || word == "demoted";
    return goesOn ? Colour::yellow : Colour::none;
}

std::string appCountText(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " app" : " apps");
}

std::string sizeText(std::uint64_t bytes) {
    const Unit unit = unitFor(bytes);
    return number(bytes, unit) + " " + unit.name;
}

std::string sizeText(std::uint64_t part, std::uint64_t whole) {
    const Unit unit = unitFor(whole);
    return number(part, unit) + " of " + number(whole, unit) + " " + unit.name;
}

} // namespace appsync::host
