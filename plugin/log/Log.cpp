#include "plugin/log/Log.h"

namespace appsync {

namespace detail {

void appendUnsigned(Description& out, std::uint64_t number) {
    out.append(std::to_string(number));
}

void appendSigned(Description& out, std::int64_t number) {
    out.append(std::to_string(number));
}

void appendReal(Description& out, double number) {
    out.append(std::to_string(number)); // six decimals
}

} // namespace detail
} // namespace appsync
