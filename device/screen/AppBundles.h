// App folders on the device, and their icons as its home screen shows them.
#pragma once

#include "platform/Icons.h"

#include <memory>
#include <mutex>
#include <string>

namespace appsync {
class FileSystem;
class PropertyListSerialization;
} // namespace appsync

namespace appsync::device {

/// Its Info file is read when it is first asked for, and once. Any thread.
class AppBundle final : public Bundle {
  public:
    AppBundle(FileSystem& files, PropertyListSerialization& propertyLists, std::string path)
        : _files(files), _propertyLists(propertyLists), _path(std::move(path)) {}

    [[nodiscard]] std::optional<Value> objectForInfoDictionaryKey(std::string_view key) noexcept override;
    /// The name of its program, a file in its folder; nullopt when its Info file names none there.
    [[nodiscard]] std::optional<std::string> executableName() noexcept;
    /// The folder.
    [[nodiscard]] const std::string& path() const noexcept { return _path; }

  private:
    FileSystem& _files;
    PropertyListSerialization& _propertyLists;
    const std::string _path;
    std::once_flag _loaded;
    Dictionary _info;
};

class AppBundles final : public BundleClass {
  public:
    /// Both must outlive the bundles.
    AppBundles(FileSystem& files, PropertyListSerialization& propertyLists)
        : _files(files), _propertyLists(propertyLists) {}

    [[nodiscard]] std::shared_ptr<Bundle> bundleWithURL(const FileURL& url) noexcept override;

  private:
    FileSystem& _files;
    PropertyListSerialization& _propertyLists;
};

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
