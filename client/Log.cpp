#include "client/Log.h"

#include <cstdio>

namespace appsync {

namespace detail {

void appendUnsigned(std::string& out, std::uint64_t number) {
    out += std::to_string(number);
}

void appendSigned(std::string& out, std::int64_t number) {
    out += std::to_string(number);
}

void appendReal(std::string& out, double number) {
    char digits[400];
    const int length = std::snprintf(digits, sizeof digits, "%f", number);
    out.append(digits, static_cast<std::size_t>(length));
}

} // namespace detail
} // namespace appsync
