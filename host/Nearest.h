// The word that a person may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

/// " Did you mean '…'?" with the choice that is fewest changes of a letter away from the word; empty when more than a
/// third of the word would have to change for each.
[[nodiscard]] std::string suggestion(std::string_view word, const std::vector<std::string>& choices);

} // namespace appsync::host
