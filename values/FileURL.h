// The location of a file or folder on the device.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace appsync {

class FileURL {
  public:
    /// Nullopt when the path is empty or holds a zero byte, since no file can be there.
    [[nodiscard]] static std::optional<FileURL> fileURLWithPath(std::string_view path, bool isDirectory) {
        if (path.empty() || path.find('\0') != std::string_view::npos) {
            return std::nullopt;
        }
        return FileURL(path, isDirectory);
    }

    /// The path as it was given, without the trailing slash of a folder.
    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    [[nodiscard]] bool isDirectory() const noexcept { return _isDirectory; }
    [[nodiscard]] std::string description() const { return "file://" + _path + (_isDirectory ? "/" : ""); }
    friend bool operator==(const FileURL&, const FileURL&) = default;

  private:
    FileURL(std::string_view path, bool isDirectory) : _path(path), _isDirectory(isDirectory) {}

    std::string _path;
    bool _isDirectory;
};

} // namespace appsync
