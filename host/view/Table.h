// Text in columns.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace appsync::host {

class Table {
  public:
    explicit Table(std::vector<std::string> headings);
    /// As many cells as there are headings. A cell of any but the last column is cut when it is very long.
    void add(std::vector<std::string> cells);
    /// The last column is not padded.
    void print(std::ostream& out) const;

  private:
    std::vector<std::vector<std::string>> _rows;
};

/// "4.2 MB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

} // namespace appsync::host
