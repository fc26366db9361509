// Draws the icons of apps as this device's home screen shows them.
#pragma once

#include "platform/Icons.h"

namespace appsync {
class FileSystem;
} // namespace appsync

namespace appsync::device {

/// The side of a home screen icon, in pixels.
inline constexpr int iconSide = 120;
/// The radius of its corners as a part of its side.
inline constexpr double iconCorner = 0.225;
/// A larger icon file, in bytes, is not looked at.
inline constexpr std::uint64_t maxIconFileSize = 8U << 20;

class DeviceIconRenderer final : public IconRenderer {
  public:
    /// `files` must outlive the renderer.
    explicit DeviceIconRenderer(FileSystem& files) : _files(files) {}

    /// Reads the PNG that the Info dictionary names under "BXBundleIconFile", within the bundle's folder. Null for a
    /// bundle that was not made by `AppBundles`.
    [[nodiscard]] std::shared_ptr<Image>
    YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(const std::shared_ptr<Bundle>& bundle) noexcept override;

    /// The same for an icon whose file is known.
    [[nodiscard]] std::shared_ptr<Image> iconFromFile(const std::string& path) noexcept;

  private:
    FileSystem& _files;
};

} // namespace appsync::device
