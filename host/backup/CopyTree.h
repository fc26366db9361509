// Copies a folder with everything in it, between a device and this machine.
#pragma once

#include "platform/Error.h"

#include <string>

namespace appsync::device {
class Descriptor;
}

namespace appsync::host {

/// Copies what is in the folder `from`, opened for reading, into the folder `to`, which must be empty. Files, folders
/// and symbolic links keep their modes and texts; a link is never followed. Pipes, sockets and devices hold no data and
/// are left out. Null, or why it could not be copied whole; what has been copied by then stays. `name` is the folder's
/// in that sentence.
[[nodiscard]] ErrorPtr copyTree(device::Descriptor from, device::Descriptor to, const std::string& name);

} // namespace appsync::host
