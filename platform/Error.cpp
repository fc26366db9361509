#include "platform/Error.h"

namespace appsync {

std::string Error::description() const {
    std::string out = _domain + " " + std::to_string(_code);
    if (!_userInfo.empty()) {
        out += ' ';
        Value(_userInfo).appendDescription(out);
    }
    return out;
}

} // namespace appsync
