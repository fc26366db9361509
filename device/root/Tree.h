// Whole folders: removing them, and finding what interrupted writes left in them.
#pragma once

#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace appsync::device {

/// A name that nothing else uses, for a file that is renamed to its real name once it is whole.
[[nodiscard]] std::string makeTemporaryName();
[[nodiscard]] bool isTemporaryName(std::string_view name) noexcept;

// None of these follows a symbolic link. Each answers zero or an errno number.

/// Removes a file, or a folder with everything in it, of any depth. `path` names it for the fault point.
[[nodiscard]] int removeTree(int folder, const std::string& name, FaultPoint* faultPoint, std::string_view path);
/// Removes files with a temporary name in a folder, opened for reading, and below it.
void removeTemporaryFiles(Descriptor folder, FaultPoint* faultPoint);
/// Adds up the sizes of the files in a folder, opened for reading, and below it.
[[nodiscard]] int treeSize(Descriptor folder, std::uint64_t& bytes);

} // namespace appsync::device
