// Makes an app archive of a folder.
#pragma once

#include "files/OutputFile.h"
#include "values/Result.h"

#include <memory>
#include <string>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::desktop {

/// An app's archive that is not in its place yet; gone with the object unless it is kept.
class PackedApp {
  public:
    /// Packs an app's folder `<Name>.app`, or a folder that holds one beside "TamblinMetadata.plist" and
    /// "TamblinArtwork". Entries are sorted and carry no times, so that the same folder gives the same bytes. Fails
    /// when the folder is no app, or the archive cannot be written; with an error of `TVInstallerErrorDomain` when the
    /// device would refuse it.
    [[nodiscard]] static Result<PackedApp> make(const std::string& folder, const std::string& archivePath,
                                                PropertyListSerialization& propertyLists);
    /// Puts it into its place, whole or not at all. Once.
    [[nodiscard]] Result<void> keep() { return _file->finish(); }

  private:
    explicit PackedApp(std::unique_ptr<OutputFile> file) : _file(std::move(file)) {}

    std::unique_ptr<OutputFile> _file;
};

/// The app's folder in what is to be packed; empty when there is none.
[[nodiscard]] std::string findAppFolder(const std::string& folder);

/// Makes and keeps it.
[[nodiscard]] Result<void> packApp(const std::string& folder, const std::string& archivePath,
                                   PropertyListSerialization& propertyLists);

} // namespace appsync::desktop
