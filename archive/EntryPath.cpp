#include "archive/EntryPath.h"

#include "propertylist/Utf.h"

#include <optional>

namespace appsync {

namespace {

/// What is wrong, as the end of a sentence about the entry; nullopt when nothing is.
using Fault = std::optional<std::string_view>;

Fault faultOfName(std::string_view name) noexcept {
    constexpr std::size_t maxNameBytes = 255;
    if (name.empty()) {
        return "has an empty name in its path";
    }
    if (name == "." || name == "..") {
        return "has \".\" or \"..\" in its path";
    }
    if (name.size() > maxNameBytes) {
        return "has a name of more than 255 bytes";
    }
    return std::nullopt;
}

Fault faultOf(std::string_view path, const ArchiveLimits& limits) noexcept {
    if (path.starts_with('/')) {
        return "has an absolute path";
    }
    if (path.size() > limits.pathBytes) {
        return "has too long a path";
    }
    for (const char byte : path) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x20 || value == 0x7f || byte == '\\') {
            return "has a control character or a backslash in its path";
        }
    }
    if (!propertylist::isUtf8(path)) {
        return "has a path that is not valid UTF-8";
    }
    std::uint64_t depth = 0;
    for (std::string_view rest = path;;) {
        const std::size_t slash = rest.find('/');
        if (const Fault fault = faultOfName(rest.substr(0, slash))) {
            return fault;
        }
        if (slash == std::string_view::npos) {
            return std::nullopt;
        }
        if (++depth > limits.pathDepth) {
            return "lies too many folders deep";
        }
        rest.remove_prefix(slash + 1);
    }
}

} // namespace

bool isSafePath(std::string_view path, const ArchiveLimits& limits) noexcept {
    return !faultOf(path, limits);
}

Result<void> checkPath(std::string_view path, const ArchiveLimits& limits, const Refusal& refuse,
                       std::string_view entry) {
    const Fault fault = faultOf(path, limits);
    return fault ? refuse(InstallerError::unsafePath, entry, *fault) : nullptr;
}

} // namespace appsync
