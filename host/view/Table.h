// Text in columns.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

class Table {
  public:
    explicit Table(std::vector<std::string> headings);
    /// As many cells as there are headings.
    void add(std::vector<std::string> cells);
    /// The last column is not padded.
    void print(std::ostream& out) const;

  private:
    std::vector<std::vector<std::string>> _rows;
};

/// The columns that UTF-8 text takes on a terminal, one for each character.
[[nodiscard]] std::size_t displayWidth(std::string_view text);
/// The text without control characters, so that a name from a file cannot steer the terminal.
[[nodiscard]] std::string printable(std::string_view text);

/// "4.2 MB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

} // namespace appsync::host
