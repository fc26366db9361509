#include "device/root/Root.h"

#include "device/root/PosixError.h"
#include "device/root/Tree.h"
#include "files/Syscalls.h"

#include <sys/file.h>

#include <array>
#include <charconv>
#include <filesystem>

namespace appsync::device {

namespace {

constexpr std::string_view markerPath = "/device-root";
constexpr std::string_view lockPath = "/device-lock";
constexpr std::string_view databaseFolder = "/var/db";
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

bool isPermission(int failed) {
    return failed == EACCES || failed == EROFS || failed == EPERM;
}

ErrorPtr systemError(int failed, const std::string& folder, const std::string& text) {
    if (isPermission(failed)) {
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
ErrorPtr takeLock(DeviceFileSystem& files, const std::string& folder, Descriptor& lock) {
    auto opened = files.open(lockPath, O_RDWR | O_CREAT | O_NOFOLLOW, 0644);
    if (!opened) {
        const int failed = static_cast<int>(opened.error()->code());
        return isPermission(failed) ? systemError(failed, folder, "cannot lock the device")
                                    : rootError(RootError::failed, folder,
                                                "cannot lock the device " + folder + ": " + errorText(opened.error()));
    }
    lock = std::move(*opened);
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

/// Opens a folder of this machine and finds its absolute path without symbolic links. From here on the descriptor is
/// the device, whatever becomes of the path.
ErrorPtr openHostFolder(const std::string& folder, Descriptor& opened, std::string& absolute) {
    opened = Descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.isOpen()) {
        absolute = hostPathOf(opened.get());
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
        DeviceFileSystem files(Descriptor(::fcntl(opened.get(), F_DUPFD_CLOEXEC, 0)), options.faultPoint);
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
    return _open(std::move(opened), std::move(absolute), std::move(options));
}

Result<std::unique_ptr<Root>> Root::open(const std::string& folder, RootOptions options) {
    Descriptor opened;
    std::string absolute;
    if (ErrorPtr error = openHostFolder(folder, opened, absolute)) {
        return error;
    }
    return _open(std::move(opened), std::move(absolute), std::move(options));
}

Result<std::unique_ptr<Root>> Root::_open(Descriptor opened, std::string absolute, RootOptions options) {
    auto files = std::make_unique<DeviceFileSystem>(std::move(opened), std::move(options.faultPoint));
    if (ErrorPtr error = checkMarker(*files, absolute)) {
        return error;
    }
    Descriptor lock;
    if (ErrorPtr error = takeLock(*files, absolute, lock)) {
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

Result<std::string> Root::realPath(std::string_view devicePath) {
    const auto found = _files->open(devicePath, O_PATH);
    if (!found) {
        return found.error();
    }
    std::string path = hostPathOf(found->get());
    return path.empty() ? Result<std::string>(makePosixError(ENOENT, "looking for", devicePath)) : std::move(path);
}

std::string Root::hostPath(std::string_view devicePath) const {
    return _folder + std::string(devicePath);
}

Result<Descriptor> Root::openDatabaseFolder() noexcept {
    return _files->open(databaseFolder, O_PATH | O_DIRECTORY | O_NOFOLLOW);
}

} // namespace appsync::device
