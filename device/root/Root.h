// A folder that is a device: its files at their fixed paths, its temporary directory and its database.
//
//   DIR/device-root               says that the folder is a device, and the version of its layout
//   DIR/device-lock               locked by the process that has the device open, and says what that does
//   DIR/var/db/device.sqlite      what the services remember
//   DIR/var/containers/Bundle/    the installed apps
//   DIR/var/mobile/               files of the person who owns the device
//   DIR/var/run/                  what holds while processes live: running apps, a running sync
//   DIR/tmp/                      the temporary directory
#pragma once

#include "device/root/DeviceFileSystem.h"
#include "device/root/Paths.h"

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace appsync::device {

inline constexpr std::string_view rootErrorDomain = "DeviceRoot";
enum class RootError : std::int64_t {
    noSuchFolder = 1,
    notADevice = 2, // a folder without a layout version, or with one that cannot be read
    notEmpty = 3,   // `create`: the folder holds other files
    inUse = 4,      // another process, or another `Root`, has the device open
    notWritable = 5,
    newerLayout = 6, // made by a later version of this program
    failed = 7,      // anything else; the description has the system's reason
};

/// The process that has a device open, as it says itself.
struct DeviceOwner {
    std::string purpose; // what it does, such as "a sync"
    pid_t process = 0;
    std::chrono::system_clock::time_point since = {};
};

/// An open device root; at most one exists per folder, in all processes, beside those that look. Any thread.
class Root {
  public:
    /// Makes a device of a folder that is empty or does not exist yet, and opens it. One that is a device is just
    /// opened. `faultPoint` may be null. `purpose` is what others are told who find the device in use.
    [[nodiscard]] static Result<std::unique_ptr<Root>> create(const std::string& folder,
                                                              std::shared_ptr<FaultPoint> faultPoint = nullptr,
                                                              std::string_view purpose = "another command");
    [[nodiscard]] static Result<std::unique_ptr<Root>> open(const std::string& folder,
                                                            std::shared_ptr<FaultPoint> faultPoint = nullptr,
                                                            std::string_view purpose = "another command");
    /// Opens a device to look at it, whoever has it open, and where nothing can be written: nothing is settled, and
    /// every change is refused with EROFS.
    [[nodiscard]] static Result<std::unique_ptr<Root>> look(const std::string& folder);
    /// Whether a folder is a device that this program knows. Opens nothing and changes nothing, so that it may be asked
    /// while another process has the device open.
    [[nodiscard]] static Result<void> check(const std::string& folder) { return look(folder).error(); }
    /// Who has a device open now; nullopt when nobody has, or when it cannot be found out. What is not told is empty.
    [[nodiscard]] static std::optional<DeviceOwner> owner(const std::string& folder);

    [[nodiscard]] DeviceFileSystem& files() noexcept { return *_files; }
    /// Where a path of the device stood on this machine when the root was opened, for messages.
    [[nodiscard]] std::string hostPath(std::string_view devicePath) const { return _folder + std::string(devicePath); }
    /// Where what stands at a path of the device stands on this machine now, for other processes.
    [[nodiscard]] Result<std::string> realPath(std::string_view devicePath);
    /// The database file's path on this machine, for messages.
    [[nodiscard]] std::string databasePath() const { return hostPath(databaseFile); }

  private:
    static Result<std::unique_ptr<Root>> _open(Descriptor host, std::shared_ptr<FaultPoint> faultPoint,
                                               std::string_view purpose);
    Root(std::string folder, Descriptor lock, std::unique_ptr<DeviceFileSystem> files)
        : _folder(std::move(folder)), _lock(std::move(lock)), _files(std::move(files)) {}

    const std::string _folder; // the absolute path on this machine
    const Descriptor _lock;    // not opened by one who looks
    const std::unique_ptr<DeviceFileSystem> _files;
};

} // namespace appsync::device
