#include "host/Nearest.h"

#include <algorithm>
#include <numeric>

namespace appsync::host {

namespace {

constexpr std::size_t maxWordLength = 200; // what is longer is no word of a command line

/// How many letters have to be changed, added or left out, or two neighbours exchanged, to make one word the other.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> beforeLast(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        beforeLast.swap(last);
        last.swap(row);
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
            }
        }
    }
    return row[b.size()];
}

} // namespace

std::string suggestion(std::string_view word, const std::vector<std::string>& choices) {
    const std::string* nearest = nullptr;
    std::size_t fewest = word.size() / 3 + 1;
    for (const std::string& choice : choices) {
        if (word.size() > maxWordLength || choice.size() > maxWordLength) {
            continue;
        }
        if (const std::size_t changes = distance(word, choice); changes < fewest) {
            nearest = &choice;
            fewest = changes;
        }
    }
    return nearest ? " Did you mean '" + *nearest + "'?" : "";
}

} // namespace appsync::host
