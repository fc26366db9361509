// The rules for the path of an entry of an archive.
#pragma once

#include "archive/ArchiveLimits.h"

#include <optional>
#include <string_view>

namespace appsync {

/// The end of a sentence about an entry that no archive may hold.
inline constexpr std::string_view unsupportedKind = "is neither a file, a folder nor a symbolic link";

/// Why a path is not safe to create below a folder, as the end of a sentence about its entry; nullopt when it is. Safe
/// is a relative path of plain names, each at most 255 bytes long: no "..", no ".", no empty name, no backslash (which
/// some systems take for a separator), no control character, valid UTF-8.
[[nodiscard]] std::optional<std::string_view> findUnsafe(std::string_view path, const ArchiveLimits& limits) noexcept;

/// What stands before the last "/"; empty when there is none.
[[nodiscard]] inline std::string_view parentOf(std::string_view path) noexcept {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

[[nodiscard]] inline std::string_view lastNameOf(std::string_view path) noexcept {
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

} // namespace appsync
