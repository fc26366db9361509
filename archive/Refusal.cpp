#include "archive/Refusal.h"

#include "text/Printable.h"

namespace appsync {

ErrorPtr Refusal::operator()(InstallerError code, std::string_view reason) const {
    return makeInstallerError(code, std::string(_what) + " " + _path + " was refused: " + std::string(reason), _path);
}

ErrorPtr Refusal::operator()(InstallerError code, std::string_view entry, std::string_view reason) const {
    return (*this)(code, "its entry \"" + printable(entry) + "\" " + std::string(reason));
}

} // namespace appsync
