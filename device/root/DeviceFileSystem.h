// The files below a device root. The kernel resolves every path inside the root, symbolic links and ".." included, so
// no path leads out of it.
#pragma once

#include "device/root/Accounts.h"
#include "device/root/FaultPoint.h"
#include "device/root/PosixError.h"
#include "files/Descriptor.h"
#include "platform/FileSystem.h"
#include "timeline/Timeline.h"
#include "values/Result.h"

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// The largest file that is read at once, in bytes; a larger one is refused with EFBIG, since memory is not the place
/// for it and its size may be a lie.
inline constexpr std::size_t maxReadSize = std::size_t{1} << 30;

/// Paths are absolute paths of the device. Errors are POSIX errors that name operation, path and reason.
///
/// An owner or group account is applied when the machine has an account of that name and the process may give files to
/// it; otherwise the file stays with the account that runs the device, so that a device works for an ordinary user.
class DeviceFileSystem final : public FileSystem {
  public:
    /// `root` is the descriptor of the root folder; `faultPoint` may be null.
    DeviceFileSystem(Descriptor root, std::shared_ptr<FaultPoint> faultPoint)
        : _root(std::move(root)), _faultPoint(std::move(faultPoint)) {}

    bool createDirectory(std::string_view path, bool withIntermediateDirectories,
                         const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept override;
    bool removeItem(std::string_view path, ErrorPtr* error) noexcept override;
    bool moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    bool copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    [[nodiscard]] bool fileExists(std::string_view path) noexcept override;
    [[nodiscard]] std::optional<Data> readFile(std::string_view path, ErrorPtr* error) noexcept override;
    bool writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept override;
    bool createFile(std::string_view path, std::string_view bytes, const FileAttributes& attributes) noexcept override;
    [[nodiscard]] std::optional<FileInformation> attributesOfItem(std::string_view path,
                                                                  ErrorPtr* error) noexcept override;
    int utimes(std::string_view path) noexcept override;
    [[nodiscard]] std::string errorText(int errorNumber) noexcept override;

    // For the device's own services.

    /// Opens what stands at a path, with the flags of `open`; the descriptor is closed on exec. Without O_DIRECTORY and
    /// O_PATH that is a regular file: anything else is refused at once, not waited for.
    [[nodiscard]] Result<Descriptor> open(std::string_view path, int flags, mode_t mode = 0644) noexcept;
    /// Gives a file a second name, where its file system can; a symbolic link itself, not what it leads to.
    [[nodiscard]] Result<void> link(std::string_view from, std::string_view to) noexcept;
    /// The content of a file; nullopt when there is none. Where the file is the only one of its kind, a failure to read
    /// it must not pass for that.
    [[nodiscard]] Result<std::optional<Data>> readIfThere(std::string_view path) noexcept;
    /// The names in a folder, sorted, without "." and "..".
    [[nodiscard]] Result<std::vector<std::string>> list(std::string_view path) noexcept;
    /// The sizes of the files in a folder and below it, added up. Neither the path's end nor anything below it is a
    /// link that is followed.
    [[nodiscard]] Result<std::uint64_t> treeSize(std::string_view path) noexcept;
    /// Whether nothing stands at a path. What is there but cannot be looked at just now is not gone.
    [[nodiscard]] bool isGone(std::string_view path) noexcept;
    /// Returns when everything written to the root's file system so far is durable.
    [[nodiscard]] Result<void> sync() noexcept;
    /// Bytes that an ordinary user can still write.
    [[nodiscard]] Result<std::uint64_t> freeSpace() noexcept;
    /// Removes the temporary files that interrupted writes left in a folder and below it.
    void removeLeftovers(std::string_view path) noexcept;
    [[nodiscard]] FaultPoint* faultPoint() const noexcept { return _faultPoint.get(); }
    /// Of all that the device does; null when nobody wants one.
    [[nodiscard]] Timeline* timeline() const noexcept { return _timeline; }
    /// Before anything else.
    void setTimeline(Timeline* timeline) noexcept { _timeline = timeline; }

  private:
    struct Place;
    class NewFile;

    // Each returns zero or an errno number.
    [[nodiscard]] int _findPlace(std::string_view path, int flags, Place& place);
    [[nodiscard]] int _open(std::string_view path, int flags, mode_t mode, Descriptor& opened);
    [[nodiscard]] int _createDirectory(std::string_view path, bool withIntermediateDirectories,
                                       const std::optional<FileAttributes>& attributes);

    const Descriptor _root;
    const std::shared_ptr<FaultPoint> _faultPoint;
    Timeline* _timeline = nullptr;
    Accounts _accounts;
};

} // namespace appsync::device
