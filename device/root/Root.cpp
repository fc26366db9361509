#include "device/root/Root.h"

#include "device/root/Tree.h"
#include "files/Syscalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <filesystem>

namespace appsync::device {

namespace {

constexpr std::string_view markerPath = "/device-root";
constexpr std::string_view lockPath = "/device-lock";
/// The marker file: this text, the number of the layout, a line end.
constexpr std::string_view markerText = "application device root, layout ";
constexpr unsigned layoutVersion = 1;

constexpr std::array<std::string_view, 6> layoutFolders{temporaryFolder,
                                                        databaseFolder,
                                                        containersFolder,
                                                        "/var/mobile/Library",
                                                        "/var/mobile/Library/Logs/MediaServices",
                                                        "/var/mobile/Media"};
/// Where an interrupted write leaves its temporary file: where files are replaced over and over, and where the icons of
/// placeholders are copied to.
constexpr std::array<std::string_view, 2> writtenFolders{"/var/mobile/Library", temporaryFolder};

ErrorPtr rootError(RootError code, const std::string& folder, const std::string& text) {
    return makeError(rootErrorDomain, static_cast<std::int64_t>(code), text, folder);
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

Result<void> checkMarker(DeviceFileSystem& files, const std::string& folder) {
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
    return {};
}

/// The lock is the open file's.
struct flock wholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET; // from the beginning, of any length
    return lock;
}

// What the owner writes into the locked file: "process 1234 since 1795347727: a sync", the time in seconds since 1970.

std::string ownerText(std::string_view purpose) {
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    return "process " + std::to_string(::getpid()) + " since " + std::to_string(now) + ": " + std::string(purpose) +
           "\n";
}

/// Of a locked file; anybody may have written it.
DeviceOwner readOwner(int lock) {
    constexpr std::size_t maxOwnerSize = 200;
    std::string bytes;
    std::array<char, maxOwnerSize> purpose{};
    DeviceOwner owner;
    long seconds = 0;
    char end = 0; // of the line
    if (readAll(lock, maxOwnerSize, bytes) == 0 && std::sscanf(bytes.c_str(), "process %9d since %18ld: %199[^\n]%c",
                                                               &owner.process, &seconds, purpose.data(), &end) == 4) {
        owner.since = std::chrono::system_clock::from_time_t(seconds);
        owner.purpose = purpose.data();
    }
    return owner;
}

ErrorPtr inUseError(int lock, const std::string& folder) {
    const DeviceOwner owner = readOwner(lock);
    const std::string process = owner.process > 0 ? " (process " + std::to_string(owner.process) + ")" : "";
    return rootError(RootError::inUse, folder,
                     "the device " + folder + " is in use by " +
                         (owner.purpose.empty() ? "another command" : owner.purpose) + process +
                         "; only one process at a time can change it: end that one, or wait for it");
}

/// Takes the device for this process until the lock's descriptor is closed.
Result<Descriptor> takeLock(DeviceFileSystem& files, const std::string& folder, std::string_view purpose) {
    auto lock = files.open(lockPath, O_RDWR | O_CREAT | O_NOFOLLOW, 0644);
    if (!lock) {
        const int failed = static_cast<int>(lock.error()->code());
        return isPermission(failed) ? systemError(failed, folder, "cannot lock the device")
                                    : rootError(RootError::failed, folder,
                                                "cannot lock the device " + folder + ": " + errorText(lock.error()));
    }
    struct flock whole = wholeFile();
    int failed = errnoOf(::fcntl(lock->get(), F_OFD_SETLK, &whole));
    if (failed == EAGAIN || failed == EACCES) {
        return inUseError(lock->get(), folder);
    }
    if (failed == 0) {
        failed = errnoOf(::ftruncate(lock->get(), 0));
    }
    if (failed == 0) {
        failed = writeAll(lock->get(), ownerText(purpose));
    }
    if (failed != 0) {
        return systemError(failed, folder, "cannot lock the device");
    }
    return lock;
}

Result<void> makeLayout(DeviceFileSystem& files, const std::string& folder) {
    for (const std::string_view path : layoutFolders) {
        ErrorPtr error;
        if (!files.createDirectory(path, true, std::nullopt, &error)) {
            return systemError(static_cast<int>(error->code()), folder,
                               "cannot create " + std::string(path) + " in the device");
        }
    }
    return {};
}

/// Whether a folder holds only what may stand in any new one.
bool isVacant(const std::vector<std::string>& names) {
    return std::ranges::all_of(names,
                               [](const std::string& name) { return name == "lost+found" || isTemporaryName(name); });
}

/// Makes a device of a folder, unless it is one.
Result<void> writeMarker(DeviceFileSystem& files, const std::string& folder) {
    if (files.fileExists(markerPath)) {
        return {};
    }
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
    const bool isWritten = files.writeFileAtomically(markerPath, marker, &error);
    return isWritten ? Result<void>()
                     : systemError(static_cast<int>(error->code()), folder, "cannot create a device in");
}

/// The folder on this machine. From when it is opened the descriptor is the device, whatever becomes of the path.
Result<Descriptor> openHostFolder(const std::string& folder) {
    Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.isOpen()) {
        return opened;
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return rootError(RootError::noSuchFolder, folder,
                         "there is no folder " + folder + "; name an existing device, or create one first");
    }
    return systemError(errno, folder, "cannot open the device");
}

} // namespace

Result<std::unique_ptr<Root>> Root::create(const std::string& folder, std::shared_ptr<FaultPoint> faultPoint,
                                           std::string_view purpose) {
    std::error_code failed;
    std::filesystem::create_directories(folder, failed);
    auto host = openHostFolder(folder);
    if (!host) {
        return failed ? systemError(failed.value(), folder, "cannot create the folder") : host.error();
    }
    DeviceFileSystem files(Descriptor(::fcntl(host->get(), F_DUPFD_CLOEXEC, 0)), faultPoint);
    if (const auto written = writeMarker(files, folder); !written) {
        return written.error();
    }
    return _open(std::move(*host), std::move(faultPoint), purpose);
}

Result<std::unique_ptr<Root>> Root::open(const std::string& folder, std::shared_ptr<FaultPoint> faultPoint,
                                         std::string_view purpose) {
    auto host = openHostFolder(folder);
    if (!host) {
        return host.error();
    }
    return _open(std::move(*host), std::move(faultPoint), purpose);
}

Result<std::unique_ptr<Root>> Root::look(const std::string& folder) {
    auto host = openHostFolder(folder);
    if (!host) {
        return host.error();
    }
    std::string path = hostPathOf(host->get());
    auto files = std::make_unique<DeviceFileSystem>(std::move(*host), std::make_shared<NoChanges>());
    if (const auto checked = checkMarker(*files, path); !checked) {
        return checked.error();
    }
    return std::unique_ptr<Root>(new Root(std::move(path), Descriptor(), std::move(files)));
}

std::optional<DeviceOwner> Root::owner(const std::string& folder) {
    auto host = openHostFolder(folder);
    if (!host) {
        return std::nullopt;
    }
    DeviceFileSystem files(std::move(*host), nullptr);
    const auto lock = files.open(lockPath, O_RDONLY | O_NOFOLLOW);
    struct flock whole = wholeFile(); // asked for, not taken
    const bool isLocked = lock && ::fcntl(lock->get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
    return isLocked ? std::optional(readOwner(lock->get())) : std::nullopt;
}

Result<std::unique_ptr<Root>> Root::_open(Descriptor host, std::shared_ptr<FaultPoint> faultPoint,
                                          std::string_view purpose) {
    std::string path = hostPathOf(host.get());
    auto files = std::make_unique<DeviceFileSystem>(std::move(host), std::move(faultPoint));
    if (const auto checked = checkMarker(*files, path); !checked) {
        return checked.error();
    }
    auto lock = takeLock(*files, path, purpose);
    if (!lock) {
        return lock.error();
    }
    if (const auto made = makeLayout(*files, path); !made) {
        return made.error();
    }
    for (const std::string_view folder : writtenFolders) {
        files->removeLeftovers(folder);
    }
    return std::unique_ptr<Root>(new Root(std::move(path), std::move(*lock), std::move(files)));
}

Result<std::string> Root::realPath(std::string_view devicePath) {
    const auto found = _files->open(devicePath, O_PATH);
    if (!found) {
        return found.error();
    }
    std::string path = hostPathOf(found->get());
    return path.empty() ? Result<std::string>(makePosixError(ENOENT, "looking for", devicePath)) : std::move(path);
}

} // namespace appsync::device
