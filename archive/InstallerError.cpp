#include "archive/InstallerError.h"

#include "text/Printable.h"

namespace appsync {

ErrorPtr makeInstallerError(InstallerError code, std::string_view description, std::string_view path) {
    return makeError(TVInstallerErrorDomain, static_cast<std::int64_t>(code), description, path);
}

ErrorPtr makeCancelledError(const std::string& identifier, const std::string& archive) {
    return makeInstallerError(InstallerError::cancelled,
                              "the install of " + identifier + " from " + archive + " was cancelled", archive);
}

ErrorPtr Refusal::operator()(InstallerError code, std::string_view reason) const {
    return makeInstallerError(code, std::string(_what) + " " + _path + " was refused: " + std::string(reason), _path);
}

ErrorPtr Refusal::operator()(InstallerError code, std::string_view entry, std::string_view reason) const {
    return (*this)(code, "its entry \"" + printable(entry) + "\" " + std::string(reason));
}

} // namespace appsync
