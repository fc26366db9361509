// A folder that is a device: its files at their fixed paths, its temporary directory and its database.
//
//   DIR/device-root               says that the folder is a device, and the version of its layout
//   DIR/device-lock               locked by the process that has the device open
//   DIR/var/db/device.sqlite      what the services remember
//   DIR/var/containers/Bundle/    the installed apps
//   DIR/var/mobile/               files of the person who owns the device
//   DIR/var/run/                  what holds while processes live: running apps, a running sync
//   DIR/tmp/                      the temporary directory
#pragma once

#include "device/root/DeviceFileSystem.h"
#include "values/Result.h"

#include <memory>
#include <string>

namespace appsync::device {

inline constexpr std::string_view RootErrorDomain = "DeviceRoot";
enum class RootError : std::int64_t {
    noSuchFolder = 1,
    notADevice = 2, // a folder without a layout version, or with one that cannot be read
    notEmpty = 3,   // `create`: the folder holds other files
    inUse = 4,      // another process, or another `Root`, has the device open
    notWritable = 5,
    newerLayout = 6, // made by a later version of this program
    failed = 7,      // anything else; the description has the system's reason
};

struct RootOptions {
    std::shared_ptr<FaultPoint> faultPoint; // may be null
};

/// An open device root; at most one exists per folder, in all processes. Any thread.
class Root {
  public:
    /// Makes a device of a folder that is empty or does not exist yet, and opens it. One that is a device is just
    /// opened.
    [[nodiscard]] static Result<std::unique_ptr<Root>> create(const std::string& folder, RootOptions options = {});
    [[nodiscard]] static Result<std::unique_ptr<Root>> open(const std::string& folder, RootOptions options = {});
    ~Root();
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;

    [[nodiscard]] DeviceFileSystem& files() noexcept { return *_files; }
    /// The temporary directory, as a path of the device.
    [[nodiscard]] std::string temporaryDirectory() const { return "/tmp"; }
    /// The root folder's absolute path on this machine.
    [[nodiscard]] const std::string& folder() const noexcept { return _folder; }
    /// Where a path of the device stood on this machine when the root was opened, for messages.
    [[nodiscard]] std::string hostPath(std::string_view devicePath) const;
    /// Where what stands at a path of the device stands on this machine now, for other processes.
    [[nodiscard]] Result<std::string> realPath(std::string_view devicePath);
    /// The database file's path on this machine, for messages.
    [[nodiscard]] std::string databasePath() const { return hostPath("/var/db/device.sqlite"); }
    /// The folder of the database, opened; never one outside of the root.
    [[nodiscard]] Result<Descriptor> openDatabaseFolder() noexcept;

  private:
    static Result<std::unique_ptr<Root>> _open(Descriptor opened, std::string absolute, RootOptions options);
    Root(std::string folder, Descriptor lock, std::unique_ptr<DeviceFileSystem> files);

    std::string _folder;
    Descriptor _lock;
    std::unique_ptr<DeviceFileSystem> _files;
};

} // namespace appsync::device
