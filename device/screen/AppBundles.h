// App folders on the device.
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

} // namespace appsync::device
