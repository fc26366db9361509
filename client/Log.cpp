#include "client/Log.h"

namespace appsync {

namespace detail {

void appendUnsigned(std::string& out, std::uint64_t number) {
    out += std::to_string(number);
}

void appendSigned(std::string& out, std::int64_t number) {
    out += std::to_string(number);
}

void appendReal(std::string& out, double number) {
    out += std::to_string(number); // six decimals
}

} // namespace detail
} // namespace appsync
