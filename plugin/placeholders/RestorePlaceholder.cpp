// The plug-in's own placeholder for an app that the desktop's restore info describes.
#include "plugin/client/AppsClient.h"

#include "platform/PropertyListSerialization.h"
#include "plugin/client/Paths.h"
#include "plugin/coordination/StoreMetadata.h"
#include "plugin/placeholders/PlaceholderBundle.h"

namespace appsync {

namespace {

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
            {"UIWendralApp", wendral ? *wendral : Value(false)},
            {"PDApplicationLaunchProhibited", storeMetadata::launchProhibited(metadata)}};
}

std::optional<Dictionary> parseMetadata(const Platform& platform, const PlugInLog& log,
                                        std::string_view bundleIdentifier, const Data& tamblinMetaData) {
    ErrorPtr error;
    auto root = platform.propertyLists.propertyListWithData(tamblinMetaData.bytes(), &error);
    Dictionary* metadata = root ? root->mutableDictionary() : nullptr;
    if (!metadata) {
        log.message("failed to parse tamblin metadata for '%{public}@'. err=%{public}@", bundleIdentifier, error);
        return std::nullopt;
    }
    return std::move(*metadata);
}

/// Builds the bundle and installs it. Nullopt on success, otherwise what failed.
std::optional<std::string_view> buildPlaceholder(AppsClient& client, const Platform& platform, const PlugInLog& log,
                                                 std::string_view bundleIdentifier, const Dictionary& metadata,
                                                 const std::optional<Data>& iconData, const Dictionary& options) {
    const std::string bundlePath = client.placeholderAppPathForBundleIdentifier(bundleIdentifier);
    if (!client.createPlaceHolderPath_forBundleIdentifier_withAttributes(bundlePath, bundleIdentifier,
                                                                         placeholderBundle::attributes)) {
        // The message before this one has the reason.
        log.message("failed to create app directory for '%{public}@'. err=%{public}@", bundleIdentifier, ErrorPtr());
        return "Failed to create app directory";
    }
    client.writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        iconData, paths::join(bundlePath, "Icon.png"), nullptr, bundleIdentifier, placeholderBundle::attributes);
    const Dictionary info = infoOfRestoredApp(bundleIdentifier, metadata);
    log.message("creating placeholder for '%{public}@'. info.plist=%{public}@", bundlePath, info);
    if (!placeholderBundle::writeInfo(platform, bundlePath, info)) {
        log.message("failed to create placeholder info at %{public}@ with info %{public}@",
                    paths::join(bundlePath, "Info.plist"), info);
        return "Failed to create placeholder info";
    }
    if (!placeholderBundle::install(platform, log, bundlePath, info, options)) {
        return "Failed to install placeholder";
    }
    return std::nullopt;
}

} // namespace

bool AppsClient::_processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData(
    std::string_view bundleIdentifier, const Data& tamblinMetaData, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData) {
    _log.message("processing app restore info for '%{public}@'", bundleIdentifier);
    const auto metadata = parseMetadata(_platform, _log, bundleIdentifier, tamblinMetaData);
    if (!metadata) {
        placeholderBundle::logAppRestore(_platform, false, bundleIdentifier, "Failed to parse tamblin metadata");
        return true; // does not count as a failure of the restore
    }
    const Dictionary options{{PDPackageTypeKey, PDPackageTypePlaceholder},
                             {PDBundleIdentifierKey, bundleIdentifier},
                             {PDInstallTypeKey, std::uint64_t{PDInstallTypeRestore}},
                             {PDTamblinMetadataKey, tamblinMetaData},
                             {PDApplicationSINFKey, sinfData ? Value(*sinfData) : Value()}};
    if (const auto failure = buildPlaceholder(*this, _platform, _log, bundleIdentifier, *metadata, iconData, options)) {
        placeholderBundle::logAppRestore(_platform, false, bundleIdentifier, *failure);
        _log.message("failed to process app restore info for '%{public}@'. tamblinMetadataDictionary=%{public}@",
                     bundleIdentifier, *metadata);
        return false;
    }
    placeholderBundle::logAppRestore(_platform, true, bundleIdentifier, "Installed placeholder");
    return true;
}

} // namespace appsync
