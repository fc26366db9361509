// The rules for the path of an entry of an archive.
#pragma once

#include "archive/ArchiveLimits.h"
#include "archive/InstallerError.h"
#include "values/Result.h"

#include <string_view>

namespace appsync {

/// The end of a sentence about an entry that no archive may hold.
inline constexpr std::string_view unsupportedKind = "is neither a file, a folder nor a symbolic link";

/// Whether a path is safe to create below a folder: a relative path of plain names, each at most 255 bytes long: no
/// "..", no ".", no empty name, no backslash (which some systems take for a separator), no control character, valid
/// UTF-8.
[[nodiscard]] bool isSafePath(std::string_view path, const ArchiveLimits& limits) noexcept;
/// Refuses an entry whose path is not safe.
[[nodiscard]] Result<void> checkPath(std::string_view path, const ArchiveLimits& limits, const Refusal& refuse,
                                     std::string_view entry);

/// What stands before the last "/"; empty when there is none.
[[nodiscard]] inline std::string_view parentOf(std::string_view path) noexcept {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

[[nodiscard]] inline std::string_view lastNameOf(std::string_view path) noexcept {
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

} // namespace appsync
