#include "host/view/Table.h"

#include "host/view/Print.h"
#include "text/Printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace appsync::host {

namespace {

constexpr std::size_t maxCellLength = 60; // characters of a cell that has cells behind it

} // namespace

Table::Table(std::vector<std::string> headings) : _rows{std::move(headings)} {}

void Table::add(std::vector<std::string> cells) {
    for (std::string& cell : cells) {
        cell = printable(cell, &cell == &cells.back() ? maxLineLength : maxCellLength);
    }
    _rows.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
    const std::size_t columns = _rows.front().size();
    std::vector<std::size_t> widths(columns);
    for (const auto& row : _rows) {
        for (std::size_t column = 0; column < columns; ++column) {
            widths[column] = std::max(widths[column], displayWidth(row[column]));
        }
    }
    for (const auto& row : _rows) {
        std::string line;
        for (std::size_t column = 0; column < columns; ++column) {
            line += row[column];
            line.append(widths[column] - displayWidth(row[column]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        printLine(out, line, std::string::npos);
    }
}

std::string sizeText(std::uint64_t bytes) {
    constexpr std::array units = {"bytes", "kB", "MB", "GB", "TB"};
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (size >= 1000 && unit + 1 < units.size()) {
        size /= 1000;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", size, units[unit]);
    return text;
}

} // namespace appsync::host
