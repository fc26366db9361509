// The plug-in's own placeholder for an app that the desktop's restore info describes.
#include "client/AppsClient.h"

#include "client/Paths.h"
#include "coordination/StoreMetadata.h"
#include "platform/PropertyListSerialization.h"

namespace appsync {

namespace {

const FileAttributes mobileAttributes{"mobile", "mobile"};

Value orNull(const std::optional<std::string>& text) {
    return text ? Value(*text) : Value();
}

/// The placeholder's Info dictionary; null stands for what the metadata does not have.
Dictionary infoOfRestoredApp(std::string_view bundleIdentifier, const Dictionary& metadata) {
    const Value name = orNull(storeMetadata::name(metadata));
    const Value* wendral = metadata.find("UIWendralApp");
    return {{"BXBundleIdentifier", bundleIdentifier},
            {"BXBundleVersion", orNull(storeMetadata::bundleVersion(metadata))},
            {"BXBundleExecutable", name},
            {"BXBundleDisplayName", name},
            {"BXBundleIconFile", "Icon.png"},
            {"UIWendralApp", wendral != nullptr ? *wendral : Value(false)},
            {"PDApplicationLaunchProhibited", storeMetadata::launchProhibited(metadata)}};
}

} // namespace

bool AppsClient::_processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData(
    std::string_view bundleIdentifier, const Data& tamblinMetaData, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData) {
    _log.message("processing app restore info for '%{public}@'", bundleIdentifier);
    const auto metadata = _parseTamblinMetadata(bundleIdentifier, tamblinMetaData);
    if (!metadata) {
        _logAppRestore(false, bundleIdentifier, "Failed to parse tamblin metadata");
        return true; // does not count as a failure of the restore
    }
    const Dictionary options{{PDPackageTypeKey, PDPackageTypePlaceholder},
                             {PDBundleIdentifierKey, bundleIdentifier},
                             {PDInstallTypeKey, std::uint64_t{PDInstallTypeRestore}},
                             {PDTamblinMetadataKey, tamblinMetaData},
                             {PDApplicationSINFKey, sinfData ? Value(*sinfData) : Value()}};
    if (const char* failure = _buildRestorePlaceholder(bundleIdentifier, *metadata, iconData, options)) {
        _logAppRestore(false, bundleIdentifier, failure);
        _log.message("failed to process app restore info for '%{public}@'. tamblinMetadataDictionary=%{public}@",
                     bundleIdentifier, *metadata);
        return false;
    }
    _logAppRestore(true, bundleIdentifier, "Installed placeholder");
    return true;
}

std::optional<Dictionary> AppsClient::_parseTamblinMetadata(std::string_view bundleIdentifier,
                                                            const Data& tamblinMetaData) {
    ErrorPtr error;
    auto root = _platform.propertyLists.propertyListWithData(tamblinMetaData.bytes(), &error);
    Dictionary* metadata = root ? root->mutableDictionary() : nullptr;
    if (metadata == nullptr) {
        _log.message("failed to parse tamblin metadata for '%{public}@'. err=%{public}@", bundleIdentifier, error);
        return std::nullopt;
    }
    return std::move(*metadata);
}

/// Builds the bundle and installs it. Null on success, otherwise what failed.
const char* AppsClient::_buildRestorePlaceholder(std::string_view bundleIdentifier, const Dictionary& metadata,
                                                 const std::optional<Data>& iconData, const Dictionary& options) {
    const std::string bundlePath = placeholderAppPathForBundleIdentifier(bundleIdentifier);
    if (!createPlaceHolderPath_forBundleIdentifier_withAttributes(bundlePath, bundleIdentifier, mobileAttributes)) {
        // The message before this one has the reason.
        _log.message("failed to create app directory for '%{public}@'. err=%{public}@", bundleIdentifier, ErrorPtr());
        return "Failed to create app directory";
    }
    writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        iconData, paths::join(bundlePath, "Icon.png"), nullptr, bundleIdentifier, mobileAttributes);
    const Dictionary info = infoOfRestoredApp(bundleIdentifier, metadata);
    _log.message("creating placeholder for '%{public}@'. info.plist=%{public}@", bundlePath, info);
    if (!_writeInfoPlist(info, bundlePath)) {
        _log.message("failed to create placeholder info at %{public}@ with info %{public}@",
                     paths::join(bundlePath, "Info.plist"), info);
        return "Failed to create placeholder info";
    }
    return _installPlaceholder(bundlePath, info, options) ? nullptr : "Failed to install placeholder";
}

} // namespace appsync
