#include "archive/AppInArchive.h"

#include "archive/EntryPath.h"
#include "files/Syscalls.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"

#include <algorithm>

namespace appsync {

namespace {

/// The files beside the app's folder.
Result<void> checkCompanion(const ZipDirectory& directory, std::string_view path, std::uint64_t maxBytes,
                            const Refusal& refuse) {
    const auto kind = directory.kindOf(path);
    if (!kind) {
        return {};
    }
    if (*kind != ZipDirectory::Kind::file) {
        return refuse(InstallerError::unsupportedEntry, path, "must be a file");
    }
    return directory.find(path)->unpackedBytes <= maxBytes
               ? Result<void>()
               : refuse(InstallerError::archiveTooLarge, path,
                        "is larger than the device reads, " + std::to_string(maxBytes) + " bytes");
}

/// The one folder "<Name>.app" at the top.
Result<std::string_view> findBundle(const ZipDirectory& directory, const Refusal& refuse) {
    std::string_view found;
    for (const ZipDirectory::Entry& entry : directory.entries()) {
        const std::string_view top = entry.path.substr(0, entry.path.find('/'));
        const bool isFolder = top.size() < entry.path.size() || entry.kind == ZipDirectory::Kind::folder;
        if (!isFolder || !top.ends_with(bundleExtension) || top.size() == bundleExtension.size() || top == found) {
            continue;
        }
        if (!found.empty()) {
            return refuse(InstallerError::noApplication, "it holds two apps, \"" + printable(found) + "\" and \"" +
                                                             printable(top) + "\"; an archive holds one");
        }
        found = top;
    }
    if (found.empty()) {
        return refuse(InstallerError::noApplication, "it holds no folder \"<Name>.app\" at its top");
    }
    return found;
}

} // namespace

Result<AppInArchive> findApplication(const ZipDirectory& directory, const ArchiveLimits& limits,
                                     const Refusal& refuse) {
    const auto bundle = findBundle(directory, refuse);
    if (!bundle) {
        return bundle.error();
    }
    AppInArchive app{std::string(*bundle), std::string(*bundle) + "/" + std::string(infoFileName)};
    const ZipDirectory::Entry* info = directory.find(app.infoPath);
    if (!info || info->kind != ZipDirectory::Kind::file || info->unpackedBytes > limits.listBytes) {
        return refuse(InstallerError::infoMissing, "it has no usable file \"" + printable(app.infoPath) + "\"");
    }
    for (const auto& [path, maxBytes] :
         {std::pair(metadataFileName, limits.listBytes), std::pair(artworkFileName, limits.pictureBytes)}) {
        if (const auto checked = checkCompanion(directory, path, maxBytes, refuse); !checked) {
            return checked.error();
        }
    }
    return app;
}

Result<Dictionary> readInfo(std::string_view bytes, const AppInArchive& app, PropertyListSerialization& propertyLists,
                            const Refusal& refuse) {
    ErrorPtr reason;
    auto list = propertyLists.propertyListWithData(bytes, &reason);
    Dictionary* info = list ? list->mutableDictionary() : nullptr;
    if (!info) {
        return refuse(InstallerError::infoMissing, app.infoPath,
                      list ? "is a property list but no dictionary" : "cannot be read: " + errorText(reason));
    }
    if (!info->string("BXBundleIdentifier")) {
        return refuse(InstallerError::infoMissing, app.infoPath, "has no \"BXBundleIdentifier\"");
    }
    return std::move(*info);
}

Result<void> checkLinkTarget(std::string_view path, std::string_view target, const Refusal& refuse) {
    if (target.empty()) {
        return refuse(InstallerError::archiveDamaged, path, "is a symbolic link without a target");
    }
    if (target.starts_with('/')) {
        return refuse(InstallerError::unsafePath, path, "is a symbolic link with an absolute target");
    }
    return {};
}

Result<void> checkLink(int bundle, std::string_view path, std::string_view target, const Refusal& refuse) {
    Descriptor reached;
    const std::string inBundle(path.substr(path.find('/') + 1));
    return openBeneath(bundle, inBundle, O_PATH, reached) == 0
               ? Result<void>()
               : refuse(InstallerError::unsafePath, path,
                        "is a symbolic link to \"" + printable(target) + "\", which is not in the app");
}

} // namespace appsync
