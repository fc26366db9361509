#include "device/archive/Refusal.h"

#include "device/text/Printable.h"

namespace appsync::device {

ErrorPtr Refusal::operator()(InstallerError code, std::string_view reason) const {
    return makeInstallerError(code, "the archive " + _archive + " was refused: " + std::string(reason), _archive);
}

ErrorPtr Refusal::operator()(InstallerError code, std::string_view entry, std::string_view reason) const {
    return (*this)(code, "its entry \"" + printable(entry) + "\" " + std::string(reason));
}

} // namespace appsync::device
