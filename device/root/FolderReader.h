// The entries of an open folder, without "." and "..".
#pragma once

#include "files/Descriptor.h"

#include <dirent.h>

#include <optional>
#include <string_view>

namespace appsync::device {

class FolderReader {
  public:
    struct Entry {
        std::string_view name; // valid until the next one is read
        bool isFolder = false;
    };

    /// `folder` must be opened for reading.
    explicit FolderReader(Descriptor folder) noexcept;
    ~FolderReader();
    FolderReader(const FolderReader&) = delete;
    FolderReader& operator=(const FolderReader&) = delete;

    /// Nothing at the end, and after a failure.
    [[nodiscard]] std::optional<Entry> next() noexcept;
    /// The folder's descriptor.
    [[nodiscard]] int folder() const noexcept { return _stream ? ::dirfd(_stream) : -1; }
    /// How far it has been read, for a later reader of the same folder.
    [[nodiscard]] long position() const noexcept { return _stream ? ::telldir(_stream) : 0; }
    void goTo(long position) noexcept {
        if (_stream) {
            ::seekdir(_stream, position);
        }
    }
    /// Zero, or the errno number of the failure.
    [[nodiscard]] int error() const noexcept { return _error; }

  private:
    DIR* _stream = nullptr;
    int _error = 0;
};

} // namespace appsync::device
