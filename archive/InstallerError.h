// Why the installer refused or failed: the codes of `TVInstallerErrorDomain`, and its sentences.
#pragma once

#include "platform/InstallationService.h"
#include "values/Result.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace appsync {

enum class InstallerError : std::int64_t {
    // The archive.
    archiveMissing = 1,      // no such file, or not readable
    archiveDamaged = 2,      // truncated, not an archive, wrong checksum, contradicting itself
    archiveUnsupported = 3,  // encrypted, in several parts, compressed in a way the device does not know
    archiveTooLarge = 4,     // beyond a limit (archive/ArchiveLimits.h)
    unsafePath = 5,          // an absolute path, "..", a name that is no text, a link that leaves the app
    unsupportedEntry = 6,    // neither file, folder nor symbolic link
    duplicateEntry = 7,      // two entries of one name, or a file where a folder is needed
    noApplication = 8,       // not exactly one app folder
    infoMissing = 9,         // no Info.plist, or one that cannot be read
    identifierMismatch = 10, // another app than the one asked for
    // The install.
    invalidRequest = 20,
    invalidIdentifier = 21,
    notEnoughSpace = 22,
    cancelled = 23,
    nothingToRemove = 24,
    placeholderInvalid = 25, // its folder is missing or no bundle
    failed = 26,             // the disk or the database; the description has the reason
};

/// An error of `TVInstallerErrorDomain`; `path` is the archive or bundle that is meant.
[[nodiscard]] ErrorPtr makeInstallerError(InstallerError code, std::string_view description,
                                          std::string_view path = {});

/// The error of an install that was cancelled.
[[nodiscard]] ErrorPtr makeCancelledError(const std::string& identifier, const std::string& archive);

/// Says why an archive is refused, or a folder that is to become one: which, which entry of it, and what is wrong.
class Refusal {
  public:
    /// `path` must outlive the object; `what` is there, such as "the archive".
    explicit Refusal(const std::string& path, std::string_view what = "the archive") : _path(path), _what(what) {}

    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view reason) const;
    [[nodiscard]] ErrorPtr operator()(InstallerError code, std::string_view entry, std::string_view reason) const;

  private:
    const std::string& _path;
    const std::string_view _what;
};

} // namespace appsync
