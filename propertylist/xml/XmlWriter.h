// Writes XML property lists.
//
// Foreign texts end up in such files, and no app may be lost over a character: of what XML cannot hold in a text (most
// control characters, U+FFFE, U+FFFF, bytes that are not UTF-8) each character becomes U+FFFD, and of keys that are the
// same after that the first one stays. Dates lose the fractions of their seconds. Reals that are no finite numbers and
// dates outside of the years 1 to 9999 are refused. The binary format holds all of these as they are, but for bytes
// that are not UTF-8, which it refuses.
#pragma once

#include "values/PropertyList.h"

#include <cstddef>
#include <functional>
#include <string_view>

namespace appsync::propertylist {

/// The file's bytes, at most `limit`; throws `Failure`.
[[nodiscard]] Data writeXml(const Value& root, std::size_t limit);

/// Hands the file's bytes to `take`, piece by piece, until it returns false; throws `Failure`.
void writeXml(const Value& root, const std::function<bool(std::string_view)>& take);

} // namespace appsync::propertylist
