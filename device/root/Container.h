// A new app container: filled in the staging folder, then put in its place.
#pragma once

#include "files/Descriptor.h"
#include "values/PropertyList.h"
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
    /// Writes a file beside the app's folder, in place of one that stands there; what is absent is left out.
    [[nodiscard]] Result<void> writeFile(std::string_view name, const std::optional<Data>& content);
    /// Moves it from the staging folder among the others.
    [[nodiscard]] Result<void> putInPlace();
    /// It belongs to an app now.
    void keep() noexcept { _files = nullptr; }
    [[nodiscard]] bool isKept() const noexcept { return !_files; }

  private:
    Container(DeviceFileSystem& files, std::string name) : _files(&files), _name(std::move(name)) {}

    DeviceFileSystem* _files; // null when it is kept
    std::string _name;
    Descriptor _folder;
    bool _isInPlace = false;
};

} // namespace appsync::device
