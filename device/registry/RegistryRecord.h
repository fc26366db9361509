// What the registry knows of one version or placeholder of an app, and where it stands on disk.
#pragma once

#include "device/archive/Extraction.h"
#include "platform/ApplicationRegistry.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace appsync::device {

inline constexpr std::string_view bundleFolder = "/var/containers/Bundle";
inline constexpr std::string_view containersFolder = "/var/containers/Bundle/Application";
/// Containers on their way in; whatever stands here when the device is opened was cut short.
inline constexpr std::string_view stagingFolder = "/var/containers/Bundle/.staging";
inline constexpr std::string_view dataContainersFolder = "/var/mobile/Containers/Data/Application";

struct RegistryRecord {
    std::string identifier;
    bool isPlaceholder = false;
    bool isSystem = false;
    std::uint64_t installType = 0;
    std::string name; // never empty
    std::optional<std::string> version;
    std::string container;               // name of its folder
    std::string bundle;                  // "<Name>.app"
    std::optional<std::string> iconFile; // path in the bundle
    std::uint64_t bytes = 0;             // of the files in the bundle
    bool hasDeviceSinf = false;          // its protection record is bound to this device

    /// Whether it is the placeholder of a demoted app.
    [[nodiscard]] bool isDemoted() const noexcept {
        return isPlaceholder &&
               (installType == PDInstallTypeDowngrade || installType == PDInstallTypeIntentionalDowngrade);
    }
    [[nodiscard]] std::string containerPath() const { return std::string(containersFolder) + "/" + container; }
    [[nodiscard]] std::string bundlePath() const { return containerPath() + "/" + bundle; }
    [[nodiscard]] std::optional<std::string> iconPath() const {
        return iconFile ? std::optional(bundlePath() + "/" + *iconFile) : std::nullopt;
    }
};
using RegistryRecordPtr = std::shared_ptr<const RegistryRecord>;

[[nodiscard]] inline std::string dataContainerPath(std::string_view identifier) {
    return std::string(dataContainersFolder) + "/" + std::string(identifier);
}

} // namespace appsync::device
