// The word that a person may have meant.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

/// The choice that is fewest changes of a letter away from the word; nullopt when more than a third of it would have to
/// change.
[[nodiscard]] std::optional<std::string> nearestTo(std::string_view word, const std::vector<std::string>& choices);

/// " Did you mean 'nearest'?", or nothing to add when no choice is near.
[[nodiscard]] std::string suggestion(std::string_view word, const std::vector<std::string>& choices);

} // namespace appsync::host
