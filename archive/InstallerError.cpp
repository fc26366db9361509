#include "archive/InstallerError.h"

namespace appsync {

ErrorPtr makeInstallerError(InstallerError code, std::string_view description, std::string_view path) {
    return makeError(TVInstallerErrorDomain, static_cast<std::int64_t>(code), description, path);
}

ErrorPtr makeCancelledError(const std::string& identifier, const std::string& archive) {
    return makeInstallerError(InstallerError::cancelled,
                              "the install of " + identifier + " from " + archive + " was cancelled", archive);
}

} // namespace appsync
