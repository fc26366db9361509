#include "values/Error.h"

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

ErrorPtr makeError(std::string_view domain, std::int64_t code, std::string_view description, std::string_view path) {
    Dictionary facts{{errorDescriptionKey, description}};
    if (!path.empty()) {
        facts.set(errorPathKey, path);
    }
    return Error::make(domain, code, std::move(facts));
}

std::string errorText(const ErrorPtr& error) {
    if (!error) {
        return "no error";
    }
    const auto description = error->userInfo().string(errorDescriptionKey);
    return description ? std::string(*description) : error->description();
}

} // namespace appsync
