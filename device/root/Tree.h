// Whole folders: going through one and all below it, of any depth, with few descriptors, and never over a symbolic
// link; removing them, and finding what interrupted writes left in them; and names that nothing else has.
#pragma once

#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// A random identifier in its usual form, such as "1B4E28BA-2FA1-4D2E-883F-B9A761BDE3FB".
[[nodiscard]] std::string makeUniqueName();
/// A name that nothing else uses, for a file that is renamed to its real name once it is whole.
[[nodiscard]] std::string makeTemporaryName();
[[nodiscard]] bool isTemporaryName(std::string_view name) noexcept;

// None of these follows a symbolic link. Each returns zero or an errno number.

/// Removes a file, or a folder with everything in it, of any depth. `path` names it for the fault point.
[[nodiscard]] int removeTree(int folder, const std::string& name, FaultPoint* faultPoint, std::string_view path);
/// Removes files with a temporary name in a folder, opened for reading, and below it.
void removeTemporaryFiles(Descriptor folder, FaultPoint* faultPoint);
/// Adds up the sizes of the files in a folder, opened for reading, and below it.
[[nodiscard]] int treeSize(Descriptor folder, std::uint64_t& bytes);

/// The entries of an open folder, without "." and "..".
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

    /// Nullopt at the end, and after a failure.
    [[nodiscard]] std::optional<Entry> next() noexcept;
    /// The folder's descriptor.
    [[nodiscard]] int folder() const noexcept { return _stream ? ::dirfd(_stream) : -1; }
    /// Goes back to the first entry, from where another reader of the same descriptor has left it.
    void rewind() noexcept {
        if (_stream) {
            ::rewinddir(_stream);
        }
    }
    /// Zero, or the errno number of the failure.
    [[nodiscard]] int error() const noexcept { return _error; }

  private:
    DIR* _stream = nullptr;
    int _error = 0;
};

/// The folders from the top of a tree down to the present one. Only the lowest ones are held open; one further up is
/// opened again through ".." and must then be the folder that it was.
class FolderPath {
  public:
    /// How many folders are held open at most.
    static constexpr std::size_t maxOpen = 16;

    // Each returns zero or an errno number.
    [[nodiscard]] int enter(Descriptor folder) noexcept;
    /// Goes up by one; ESTALE when that folder was moved away meanwhile. `left` gets the folder that was the present
    /// one.
    [[nodiscard]] int leave(Descriptor* left = nullptr) noexcept;
    /// The present one's descriptor.
    [[nodiscard]] int folder() const noexcept { return _levels.back().folder.get(); }

  private:
    struct Level {
        Descriptor folder; // closed while it is far up
        dev_t device = 0;
        ino_t number = 0;
    };
    std::vector<Level> _levels;
};

/// What is done on the way. Each operation returns zero, or an errno number, which ends the walk.
class TreeVisitor {
  public:
    virtual ~TreeVisitor() = default;
    /// Anything but a folder.
    [[nodiscard]] virtual int visitFile(int parent, const std::string& name) = 0;
    /// Before what is in it; `folder` is open for reading.
    [[nodiscard]] virtual int enterFolder(int /*folder*/, const std::string& /*name*/) { return 0; }
    /// A folder that cannot be opened; zero passes over it.
    [[nodiscard]] virtual int failedToEnter(int failed, const std::string& /*name*/) { return failed; }
    /// After what is in it.
    [[nodiscard]] virtual int leaveFolder(int /*folder*/) { return 0; }
};

/// Visits everything below a folder that is open for reading, in no particular order; zero, or why it ended early.
[[nodiscard]] int walkTree(Descriptor top, TreeVisitor& visitor);

} // namespace appsync::device
