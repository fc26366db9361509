// Creates the files of an app in a new folder, each in as few system calls as can be.
#pragma once

#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"
#include "values/Result.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace appsync::device {

/// Paths are relative to the folder and safe (`isSafePath`); no two are alike and none lies below a file or link. What
/// fails has an error of `posixErrorDomain`.
class BundleWriter {
  public:
    /// The descriptor must stay open as long as the object is used; the fault point may be null.
    BundleWriter(int folder, FaultPoint* faultPoint) : _folder(folder), _faultPoint(faultPoint) {}

    /// For another thread: makes files in folders that are there by now.
    [[nodiscard]] BundleWriter another() const {
        BundleWriter writer(_folder, _faultPoint);
        writer._made = _made;
        return writer;
    }

    /// Makes a folder and those above it, as far as they do not exist yet.
    [[nodiscard]] Result<void> makeFolder(std::string_view path);
    /// Makes an empty file and the folders above it, opened for writing, with room for the bytes expected.
    [[nodiscard]] Result<Descriptor> makeFile(std::string_view path, bool isExecutable, std::uint64_t expectedBytes);
    /// Appends to a file that `makeFile` has made.
    [[nodiscard]] Result<void> write(const Descriptor& file, std::string_view bytes, std::string_view path);
    /// Remembers a symbolic link; `makeLinks` makes it, so that no file is written through it.
    void addLink(std::string_view path, std::string_view target) { _links.emplace_back(path, target); }
    [[nodiscard]] Result<void> makeLinks();
    [[nodiscard]] const std::vector<std::pair<std::string, std::string>>& links() const noexcept { return _links; }

  private:
    /// Makes a folder the current one.
    [[nodiscard]] Result<void> _enter(std::string_view path);
    /// Makes the last folder of a path, whose parent is the current one, and opens it.
    [[nodiscard]] Result<Descriptor> _make(std::string_view path);
    /// Asks the fault point before a change.
    [[nodiscard]] Result<void> _before(std::string_view operation, std::string_view path);
    [[nodiscard]] int _here() const noexcept { return _current.isOpen() ? _current.get() : _folder; }

    const int _folder;
    FaultPoint* const _faultPoint;
    std::unordered_set<std::string> _made; // folders
    Descriptor _current;                   // the folder of the last file; closed for the topmost one
    std::string _currentPath;
    std::vector<std::pair<std::string, std::string>> _links;
};

} // namespace appsync::device
