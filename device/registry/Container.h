// A new app container: filled in the staging folder, then put in its place.
#pragma once

#include "device/registry/RegistryRecord.h"
#include "files/Descriptor.h"
#include "values/Result.h"

#include <string>
#include <string_view>

namespace appsync::device {

class DeviceFileSystem;

/// Used by one thread. A container that nobody has kept vanishes with the object.
class Container {
  public:
    /// Makes an empty one in the staging folder.
    [[nodiscard]] static Result<Container> make(DeviceFileSystem& files);
    Container(Container&& other) noexcept;
    Container& operator=(Container&&) = delete;
    ~Container();

    /// Its name, which it keeps.
    [[nodiscard]] const std::string& name() const noexcept { return _name; }
    /// Its folder, opened.
    [[nodiscard]] int folder() const noexcept { return _folder.get(); }
    [[nodiscard]] std::string path() const;
    /// Writes a file beside the app's folder, in place of one that stands there.
    [[nodiscard]] Result<void> writeFile(std::string_view name, std::string_view content);
    /// Moves it from the staging folder among the others.
    [[nodiscard]] Result<void> putInPlace();
    /// It belongs to an app now.
    void keep() noexcept { _files = nullptr; }

  private:
    Container(DeviceFileSystem& files, std::string name) : _files(&files), _name(std::move(name)) {}

    DeviceFileSystem* _files; // null when there is nothing to remove
    std::string _name;
    Descriptor _folder;
    bool _isInPlace = false;
};

/// A random identifier in its usual form, such as "1B4E28BA-2FA1-4D2E-883F-B9A761BDE3FB".
[[nodiscard]] std::string makeUniqueName();

} // namespace appsync::device
