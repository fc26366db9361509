#include "device/root/Tree.h"

#include "device/root/FaultPoint.h"
#include "device/root/FolderReader.h"
#include "device/root/TreeWalk.h"
#include "files/Syscalls.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>

namespace appsync::device {

namespace {

constexpr std::string_view temporaryPrefix = ".";
constexpr std::string_view temporarySuffix = ".device-tmp";
/// Folders deeper than this are not descended into one inside the other: each level holds a descriptor.
constexpr int maximumDepth = 32;

int openFolder(int parent, const std::string& name, Descriptor& folder) {
    return openBeneath(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW, folder);
}

/// Removes what is in a folder. Folders at the maximum depth are moved up into the first one, where a later round finds
/// them.
class TreeRemover {
  public:
    TreeRemover(FaultPoint* faultPoint, std::string_view path) : _faultPoint(faultPoint), _path(path) {}

    int removeFolder(int parent, const std::string& name) {
        do {
            _movedUp = false;
            Descriptor folder;
            if (const int failed = _open(parent, name, folder)) {
                return failed;
            }
            _top = folder.get();
            if (const int failed = _empty(std::move(folder), 0)) {
                return failed;
            }
        } while (_movedUp);
        return errnoOf(::unlinkat(parent, name.c_str(), AT_REMOVEDIR));
    }

  private:
    static int _open(int parent, const std::string& name, Descriptor& folder) {
        const int failed = openFolder(parent, name, folder);
        if (failed == EACCES && ::fchmodat(parent, name.c_str(), 0700, 0) == 0) {
            return openFolder(parent, name, folder);
        }
        return failed;
    }

    int _empty(Descriptor folder, int depth) {
        bool madeWritable = false;
        FolderReader reader(std::move(folder));
        while (const auto entry = reader.next()) {
            int failed = _removeEntry(reader.folder(), *entry, depth);
            if (failed == EACCES && !madeWritable && ::fchmod(reader.folder(), 0700) == 0) {
                madeWritable = true;
                failed = _removeEntry(reader.folder(), *entry, depth);
            }
            if (failed != 0 && failed != ENOENT) {
                return failed;
            }
        }
        return reader.error();
    }

    int _removeEntry(int folder, const FolderReader::Entry& entry, int depth) {
        if (const int failed = beforeChange(_faultPoint, "unlink", _path)) {
            return failed;
        }
        const std::string name(entry.name);
        if (!entry.isFolder) {
            if (::unlinkat(folder, name.c_str(), 0) == 0) {
                return 0;
            }
            if (errno != EISDIR) {
                return errno;
            }
        }
        if (depth == maximumDepth) {
            _movedUp = true;
            return errnoOf(::renameat(folder, name.c_str(), _top, makeTemporaryName().c_str()));
        }
        Descriptor below;
        if (const int failed = _open(folder, name, below)) {
            return failed;
        }
        if (const int failed = _empty(std::move(below), depth + 1)) {
            return failed;
        }
        return errnoOf(::unlinkat(folder, name.c_str(), AT_REMOVEDIR));
    }

    FaultPoint* _faultPoint;
    std::string_view _path;
    int _top = -1;
    bool _movedUp = false;
};

class TemporaryFileRemover final : public TreeVisitor {
  public:
    explicit TemporaryFileRemover(FaultPoint* faultPoint) : _faultPoint(faultPoint) {}
    int visitFile(int parent, const std::string& name) override {
        if (isTemporaryName(name) && beforeChange(_faultPoint, "unlink", name) == 0) {
            ::unlinkat(parent, name.c_str(), 0);
        }
        return 0;
    }
    int failedToEnter(int /*failed*/, const std::string& /*name*/) override { return 0; }

  private:
    FaultPoint* _faultPoint;
};

class SizeAdder final : public TreeVisitor {
  public:
    explicit SizeAdder(std::uint64_t& bytes) : _bytes(bytes) {}
    int visitFile(int parent, const std::string& name) override {
        struct stat status {};
        if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
            _bytes += static_cast<std::uint64_t>(status.st_size);
        }
        return 0;
    }

  private:
    std::uint64_t& _bytes;
};

} // namespace

std::string makeTemporaryName() {
    std::uint64_t number = 0;
    while (::getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number)) {
    }
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016llx", static_cast<unsigned long long>(number));
    return std::string(temporaryPrefix).append(digits.data()).append(temporarySuffix);
}

bool isTemporaryName(std::string_view name) noexcept {
    return name.starts_with(temporaryPrefix) && name.ends_with(temporarySuffix);
}

int removeTree(int folder, const std::string& name, FaultPoint* faultPoint, std::string_view path) {
    if (const int failed = beforeChange(faultPoint, "unlink", path)) {
        return failed;
    }
    if (::unlinkat(folder, name.c_str(), 0) == 0) {
        return 0;
    }
    return errno == EISDIR ? TreeRemover(faultPoint, path).removeFolder(folder, name) : errno;
}

void removeTemporaryFiles(Descriptor folder, FaultPoint* faultPoint) {
    TemporaryFileRemover remover(faultPoint);
    (void)walkTree(std::move(folder), remover); // what stays is found the next time
}

int treeSize(Descriptor folder, std::uint64_t& bytes) {
    SizeAdder adder(bytes);
    return walkTree(std::move(folder), adder);
}

} // namespace appsync::device
