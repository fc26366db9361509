// Whole folders: removing them, and finding what interrupted writes left in them; and names that nothing else has.
#pragma once

#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace appsync::device {

/// A random identifier in its usual form, such as "1B4E28BA-2FA1-4D2E-883F-B9A761BDE3FB".
[[nodiscard]] std::string makeUniqueName();
/// A name that nothing else uses, for a file that is renamed to its real name once it is whole.
[[nodiscard]] std::string makeTemporaryName();
[[nodiscard]] bool isTemporaryName(std::string_view name) noexcept;

// None of these follows a symbolic link. Each returns zero or an errno number.

/// Removes a file, or a folder with everything in it, of any depth. `path` names it for the fault point.
[[nodiscard]] int removeTree(int folder, const std::string& name, FaultPoint* faultPoint, std::string_view path);
/// Removes files with a temporary name in a folder, opened for reading, and below it.
void removeTemporaryFiles(Descriptor folder, FaultPoint* faultPoint);
/// Adds up the sizes of the files in a folder, opened for reading, and below it.
[[nodiscard]] int treeSize(Descriptor folder, std::uint64_t& bytes);

} // namespace appsync::device
