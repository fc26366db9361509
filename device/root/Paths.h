// Where things stand in a device, as paths of the device.
#pragma once

#include <string>
#include <string_view>

namespace appsync::device {

inline constexpr std::string_view temporaryFolder = "/tmp";
inline constexpr std::string_view databaseFolder = "/var/db";
inline constexpr std::string_view databaseFile = "/var/db/device.sqlite";
/// The apps' containers; each has a unique name.
inline constexpr std::string_view containersFolder = "/var/containers/Bundle/Application";
/// Containers on their way in; whatever stands here when the device is opened was cut short.
inline constexpr std::string_view stagingFolder = "/var/containers/Bundle/.staging";
/// The apps' data, in a folder named by the app's identifier each.
inline constexpr std::string_view dataContainersFolder = "/var/mobile/Containers/Data/Application";

[[nodiscard]] inline std::string dataContainerPath(std::string_view identifier) {
    return std::string(dataContainersFolder) + "/" + std::string(identifier);
}

} // namespace appsync::device
