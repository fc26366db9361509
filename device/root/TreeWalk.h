// Going through a folder and all folders below it: of any depth, with few descriptors, and never over a symbolic link.
#pragma once

#include "device/root/FolderReader.h"
#include "files/Descriptor.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace appsync::device {

/// The folders from the top of a tree down to the present one. Only the lowest ones are held open; one further up is
/// opened again through ".." and must then be the folder that it was.
class FolderPath {
  public:
    /// How many folders are held open at most.
    static constexpr std::size_t mostOpen = 16;

    // Each answers zero or an errno number.
    [[nodiscard]] int enter(Descriptor folder) noexcept;
    /// Goes up by one; ESTALE when that folder was moved away meanwhile. `left` gets the folder that was the present
    /// one.
    [[nodiscard]] int leave(Descriptor* left = nullptr) noexcept;
    /// The present one's descriptor.
    [[nodiscard]] int folder() const noexcept { return _levels.back().folder.get(); }
    [[nodiscard]] std::size_t depth() const noexcept { return _levels.size(); }

  private:
    struct Level {
        Descriptor folder; // closed while it is far up
        dev_t device = 0;
        ino_t number = 0;
    };
    std::vector<Level> _levels;
};

/// What is done on the way. Each operation answers zero, or an errno number, which ends the walk.
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

/// Visits everything below a folder that is open for reading, in the order in which the file system lists it; zero, or
/// why it ended early.
[[nodiscard]] int walkTree(Descriptor top, TreeVisitor& visitor);

} // namespace appsync::device
