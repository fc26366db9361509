// Copies a folder with everything in it, between a device and this machine.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <cstddef>
#include <functional>
#include <string>

namespace appsync::host {

/// Copies what is in the folder `from`, opened for reading, into the folder `to`, which must be empty; of any depth.
/// Files, folders and symbolic links keep their content and texts; a link is never followed. Of a mode stays what an
/// unpacked app may have: the owner's bits, reading and executing by others, and nothing that gives a program its
/// owner's rights. Pipes, sockets and devices hold no data and are left out. After an error, what
/// has been copied stays. `name` is the folder's in the error's sentence. `isCancelled` may be empty; it is asked
/// again and again, and ends the copying. `copied` may be empty; it is told the bytes of each piece.
[[nodiscard]] Result<void> copyTree(Descriptor from, Descriptor to, const std::string& name,
                                    const std::function<bool()>& isCancelled = {},
                                    const std::function<void(std::size_t)>& copied = {});

} // namespace appsync::host
