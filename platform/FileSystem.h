// The device's file system. All paths are absolute paths of the device, without a zero byte; none can lead outside it:
// above the top is the top, an absolute link begins at the top, and one that would lead outside leads nowhere.
//
// The temporary folder, "/var/mobile/Library", "/var/mobile/Library/Logs/MediaServices" and "/var/mobile/Media" are
// there from the start; any other folder is made before something is written into it.
#pragma once

#include "values/Error.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace appsync {

/// Attributes that a created file or folder gets. What is absent takes the system's default.
/// An account that the device does not have is passed over.
struct FileAttributes {
    std::optional<std::string> ownerAccountName;
    std::optional<std::string> groupOwnerAccountName;
};

struct FileInformation {
    std::uint64_t size = 0; // bytes
};

/// Every operation may be called on any thread at any time. One that fails returns false or nullopt and puts the
/// reason, with its path, into `error` unless that is null: the POSIX error of what stands in the way (nothing there
/// ENOENT, something there EEXIST, a folder where a file is meant EISDIR, a file where a folder is meant ENOTDIR). What
/// is removed, moved or written over is a link itself, not what it names.
class FileSystem {
  public:
    virtual ~FileSystem() = default;

    /// Creates a folder. With intermediates, missing parents are created too and an existing folder is no error;
    /// without, the parent must exist and the folder must not.
    virtual bool createDirectory(std::string_view path, bool withIntermediateDirectories,
                                 const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept = 0;
    /// Removes a file, or a folder with everything in it. That nothing is there is an error.
    virtual bool removeItem(std::string_view path, ErrorPtr* error) noexcept = 0;
    /// Moves a file or folder to a place where nothing is yet.
    virtual bool moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept = 0;
    /// Copies a file, not a folder; a file that stands at the destination is replaced.
    virtual bool copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept = 0;
    [[nodiscard]] virtual bool fileExists(std::string_view path) noexcept = 0;
    /// The whole content, read past any cache of earlier reads.
    [[nodiscard]] virtual std::optional<Data> readFile(std::string_view path, ErrorPtr* error) noexcept = 0;
    /// Writes a file so that at every moment, a loss of power included, the old content or the new one stands there
    /// whole. When it returns true the new content is durable.
    virtual bool writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept = 0;
    /// Creates or replaces a file with the given attributes.
    virtual bool createFile(std::string_view path, std::string_view bytes,
                            const FileAttributes& attributes) noexcept = 0;
    [[nodiscard]] virtual std::optional<FileInformation> attributesOfItem(std::string_view path,
                                                                          ErrorPtr* error) noexcept = 0;
    /// Sets the access and modification times to now. Zero, or an errno number.
    virtual int utimes(std::string_view path) noexcept = 0;
    /// The system's text for an errno number.
    [[nodiscard]] virtual std::string errorText(int errorNumber) noexcept = 0;
};

} // namespace appsync
