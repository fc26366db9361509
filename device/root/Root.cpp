#include "device/root/Root.h"

#include "device/root/Syscalls.h"
#include "device/root/Tree.h"

#include <sys/file.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <filesystem>

namespace appsync::device {

namespace {

constexpr std::string_view markerPath = "/device-root";
constexpr const char* lockName = "device-lock";
/// The marker file: this text, the number of the layout, a line end.
constexpr std::string_view markerText = "application device root, layout ";
constexpr unsigned layoutVersion = 1;

constexpr std::array<std::string_view, 6> layoutFolders{"/tmp",
                                                        "/var/db",
                                                        "/var/containers/Bundle/Application",
                                                        "/var/mobile/Library",
                                                        "/var/mobile/Library/Logs/MediaServices",
                                                        "/var/mobile/Media"};
/// Where an interrupted write leaves its temporary file: where files are replaced over and over, and where the icons of
/// placeholders are copied to.
constexpr std::array<std::string_view, 2> writtenFolders{"/var/mobile/Library", "/tmp"};

ErrorPtr rootError(RootError code, const std::string& folder, const std::string& text) {
    return makeError(RootErrorDomain, static_cast<std::int64_t>(code), text, folder);
}

ErrorPtr systemError(int failed, const std::string& folder, const std::string& text) {
    if (failed == EACCES || failed == EROFS || failed == EPERM) {
        return rootError(RootError::notWritable, folder,
                         text + " " + folder + ": " + systemText(failed) +
                             "; use a folder that this account may write, or change its permissions");
    }
    return rootError(RootError::failed, folder, text + " " + folder + ": " + systemText(failed));
}

ErrorPtr checkMarker(DeviceFileSystem& files, const std::string& folder) {
    ErrorPtr error;
    const auto marker = files.readFile(markerPath, &error);
    if (!marker) {
        const std::string reason = error->code() == ENOENT ? "it has no layout file" : errorText(error);
        return rootError(RootError::notADevice, folder,
                         folder + " is not a device (" + reason +
                             "); name the folder of a device, or create one first");
    }
    std::string_view text = marker->bytes();
    unsigned version = 0;
    if (text.starts_with(markerText)) {
        text.remove_prefix(markerText.size());
        std::from_chars(text.data(), text.data() + text.size(), version);
    }
    if (version == 0) {
        return rootError(RootError::notADevice, folder,
                         folder + " is not a device (its layout file \"device-root\" cannot be understood)");
    }
    if (version > layoutVersion) {
        return rootError(RootError::newerLayout, folder,
                         folder + " has layout " + std::to_string(version) + ", this program knows layouts up to " +
                             std::to_string(layoutVersion) + "; use the program that made the device");
    }
    return nullptr;
}

ErrorPtr inUseError(int lock, const std::string& folder) {
    constexpr std::size_t largestOwner = 100;
    std::string owner;
    if (readAll(lock, largestOwner, owner) != 0 || owner.empty()) {
        owner = "another process\n";
    }
    owner.pop_back();
    return rootError(RootError::inUse, folder,
                     "the device " + folder + " is in use by " + owner +
                         "; only one process at a time can have it open: end that one, or wait for it");
}

/// Takes the device for this process until the lock's descriptor is closed.
ErrorPtr takeLock(int root, const std::string& folder, Descriptor& lock) {
    lock = Descriptor(::openat(root, lockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!lock.isOpen()) {
        return systemError(errno, folder, "cannot lock the device");
    }
    int failed = 0;
    do {
        failed = errnoOf(::flock(lock.get(), LOCK_EX | LOCK_NB));
    } while (failed == EINTR);
    if (failed == EWOULDBLOCK) {
        return inUseError(lock.get(), folder);
    }
    if (failed == 0) {
        failed = errnoOf(::ftruncate(lock.get(), 0));
    }
    if (failed == 0) {
        failed = writeAll(lock.get(), "process " + std::to_string(::getpid()) + "\n");
    }
    return failed == 0 ? nullptr : systemError(failed, folder, "cannot lock the device");
}

ErrorPtr makeLayout(DeviceFileSystem& files, const std::string& folder) {
    for (const std::string_view path : layoutFolders) {
        ErrorPtr error;
        if (!files.createDirectory(path, true, std::nullopt, &error)) {
            return systemError(static_cast<int>(error->code()), folder,
                               "cannot create " + std::string(path) + " in the device");
        }
    }
    return nullptr;
}

/// Whether nothing stands in a folder but what may be in any new one.
bool isVacant(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (name != "lost+found" && !isTemporaryName(name)) {
            return false;
        }
    }
    return true;
}

/// Opens a folder of this machine and finds its absolute path without symbolic links.
ErrorPtr openHostFolder(const std::string& folder, Descriptor& opened, std::string& absolute) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(folder.c_str(), nullptr), &std::free);
    if (resolved) {
        absolute = resolved.get();
        opened = Descriptor(::open(absolute.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (opened.isOpen()) {
        return nullptr;
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return rootError(RootError::noSuchFolder, folder,
                         "there is no folder " + folder + "; name an existing device, or create one first");
    }
    return systemError(errno, folder, "cannot open the device");
}

} // namespace

Root::Root(std::string folder, Descriptor lock, std::unique_ptr<DeviceFileSystem> files)
    : _folder(std::move(folder)), _lock(std::move(lock)), _files(std::move(files)) {}

Root::~Root() = default;

Result<std::unique_ptr<Root>> Root::create(const std::string& folder, RootOptions options) {
    std::error_code failed;
    std::filesystem::create_directories(folder, failed);
    Descriptor opened;
    std::string absolute;
    if (ErrorPtr error = openHostFolder(folder, opened, absolute)) {
        return failed ? systemError(failed.value(), folder, "cannot create the folder") : error;
    }
    {
        DeviceFileSystem files(std::move(opened), options.faultPoint);
        if (!files.fileExists(markerPath)) {
            const auto names = files.list("/");
            if (!names) {
                return systemError(static_cast<int>(names.error()->code()), folder, "cannot read the folder");
            }
            if (!isVacant(*names)) {
                return rootError(RootError::notEmpty, folder,
                                 folder + " is not empty and not a device; create the device in an empty folder");
            }
            ErrorPtr error;
            const std::string marker = std::string(markerText) + std::to_string(layoutVersion) + "\n";
            if (!files.writeFileAtomically(markerPath, marker, &error)) {
                return systemError(static_cast<int>(error->code()), folder, "cannot create a device in");
            }
        }
    }
    return open(folder, std::move(options));
}

Result<std::unique_ptr<Root>> Root::open(const std::string& folder, RootOptions options) {
    Descriptor opened;
    std::string absolute;
    if (ErrorPtr error = openHostFolder(folder, opened, absolute)) {
        return error;
    }
    const int root = opened.get();
    auto files = std::make_unique<DeviceFileSystem>(std::move(opened), std::move(options.faultPoint));
    if (ErrorPtr error = checkMarker(*files, absolute)) {
        return error;
    }
    Descriptor lock;
    if (ErrorPtr error = takeLock(root, absolute, lock)) {
        return error;
    }
    if (ErrorPtr error = makeLayout(*files, absolute)) {
        return error;
    }
    for (const std::string_view path : writtenFolders) {
        files->removeLeftovers(path);
    }
    return std::unique_ptr<Root>(new Root(std::move(absolute), std::move(lock), std::move(files)));
}

std::string Root::hostPath(std::string_view devicePath) const {
    return _folder + std::string(devicePath);
}

} // namespace appsync::device
