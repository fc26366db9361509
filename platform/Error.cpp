#include "platform/Error.h"

namespace appsync {

std::string Error::description() const {
    std::string out = _domain + " " + std::to_string(_code);
    if (!_userInfo.empty()) {
        out += ' ';
        Description userInfo(out);
        Value(_userInfo).appendDescription(userInfo);
    }
    return out;
}

} // namespace appsync
