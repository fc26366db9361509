// Bytes as text in base 64.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace appsync::propertylist {

void appendBase64(std::string& out, std::string_view bytes);

/// The bytes that a text stands for; white space is skipped. Nullopt when it is not padded base 64.
[[nodiscard]] std::optional<std::string> bytesFromBase64(std::string_view text);

} // namespace appsync::propertylist
