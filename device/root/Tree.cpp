#include "device/root/Tree.h"

#include "device/root/TreeWalk.h"
#include "files/Syscalls.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <array>

namespace appsync::device {

namespace {

constexpr std::string_view temporaryPrefix = ".";
constexpr std::string_view temporarySuffix = ".device-tmp";
/// Folders deeper than this are not descended into one inside the other: each level holds a descriptor.
constexpr int maxDepth = 32;

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
        if (depth == maxDepth) {
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

std::string makeUniqueName() {
    std::array<unsigned char, 16> bytes{};
    while (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40); // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    std::string text;
    for (std::size_t place = 0; place < bytes.size(); ++place) {
        if (place == 4 || place == 6 || place == 8 || place == 10) {
            text += '-';
        }
        text += "0123456789ABCDEF"[bytes[place] >> 4];
        text += "0123456789ABCDEF"[bytes[place] & 15];
    }
    return text;
}

std::string makeTemporaryName() {
    return std::string(temporaryPrefix) + makeUniqueName() + std::string(temporarySuffix);
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
