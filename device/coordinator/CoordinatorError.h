// Why the install coordinator refused or gave up.
#pragma once

#include "values/Result.h"

namespace appsync::device {

inline constexpr std::string_view coordinatorErrorDomain = "DeviceInstallCoordinator";
enum class CoordinatorError : std::int64_t {
    invalidArgument = 1, // an identifier that cannot be one, an object of another device, null
    otherKind = 2,       // the app has a coordinator of another kind
    noKind = 3,          // the base class was asked to create a coordinator
    alreadySet = 4,      // what was to be set is there already, or belongs to another coordinator
    notConfigured = 5,   // something is missing that has to be set first
    ended = 6,           // the coordinator, placeholder or promise has ended or was cancelled
    tooLate = 7,         // it could not be cancelled any more; the app has been installed
    unsupported = 8,     // on-demand resources, confirmation by a person
    fileMissing = 9,     // the transferred file is gone, or none was named
    placeholderMissing = 10,
    cancelledByPerson = 11,
    uninstalled = 12, // the app was uninstalled while it was being installed
};

[[nodiscard]] inline ErrorPtr makeCoordinatorError(CoordinatorError code, std::string_view description,
                                                   std::string_view path = {}) {
    return makeError(coordinatorErrorDomain, static_cast<std::int64_t>(code), description, path);
}

} // namespace appsync::device
