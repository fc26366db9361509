// Text in columns.
#pragma once

#include "host/view/Print.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace appsync::host {

class Table {
  public:
    explicit Table(std::vector<std::string> headings);
    /// As many cells as there are headings. A cell of any but the last column is cut when it is very long.
    void add(std::vector<std::string> cells);
    /// The words of this column say what became of something, and have its colour on a terminal.
    void setResults(std::size_t column) { _results = column; }
    /// On a terminal within the width of its window.
    void print(std::ostream& out) const;

    /// Within so many columns, if a number is given: the cells of the last column go on on further lines, and those of
    /// the widest others are cut where that does not suffice. Of a table in a very narrow window lines are longer.
    [[nodiscard]] std::vector<Line> lines(std::optional<std::size_t> columns) const;

  private:
    [[nodiscard]] std::vector<std::size_t> _widths(std::optional<std::size_t> columns) const;

    std::vector<std::vector<std::string>> _rows;
    std::optional<std::size_t> _results;
};

/// The colour of what became of an app, in whatever table it stands: done, to go on later, failed.
[[nodiscard]] Colour colourOfResult(const std::string& word);

/// "1 app", "2 apps".
[[nodiscard]] std::string appCountText(std::size_t count);

/// "4.2 MB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);
/// "0.3 of 4.2 MB".
[[nodiscard]] std::string sizeText(std::uint64_t part, std::uint64_t whole);

} // namespace appsync::host
