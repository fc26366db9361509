#include "platform/InstallCoordinator.h"

namespace appsync {

std::string KXPlaceholderAttributes::description() const {
    std::string out = "<launchProhibited=";
    out += launchProhibited ? '1' : '0';
    out += " bundleVersion=" + bundleVersion.value_or("(null)") + " infoPlist=";
    return out + (infoPlist ? Value(*infoPlist) : Value()).description() + ">";
}

} // namespace appsync
