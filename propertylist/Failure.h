// How the readers and writers of this folder give up: they throw a `Failure`, which the codec turns into an `Error`.
#pragma once

#include "propertylist/PropertyListError.h"
#include "values/Error.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace appsync::propertylist {

struct Failure {
    PropertyListErrorCode code;
    std::string reason;                // a clause: what is wrong
    std::optional<std::size_t> offset; // set in reading
    std::string keyPath;               // set in writing
};

[[noreturn]] void failReading(PropertyListErrorCode code, std::size_t offset, std::string reason);
[[noreturn]] void failWriting(PropertyListErrorCode code, std::string reason);

/// Puts the way through one more container in front of a key path.
void prependKey(Failure& failure, std::string_view key);
void prependIndex(Failure& failure, std::size_t index);

/// A text as it can be quoted in a message: shortened, on one line, always valid UTF-8.
[[nodiscard]] std::string quoted(std::string_view text);

[[nodiscard]] ErrorPtr errorFromFailure(const Failure& failure);

} // namespace appsync::propertylist
