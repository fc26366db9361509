// The plug-in's own placeholder bundles: a folder with an icon and an Info file, registered until the app comes.
#include "plugin/client/AppsClient.h"

#include "platform/Icons.h"
#include "platform/Process.h"
#include "platform/TransactionLog.h"
#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"
#include "plugin/placeholders/PlaceholderBundle.h"

#include <cerrno>

namespace appsync {

namespace {

/// The placeholder's Info dictionary; without a version it has no version entry.
Dictionary placeholderInfo(const QRAsset& asset, std::string_view prettyName, const Dictionary& appInfo) {
    const Value* wendral = appInfo.find("UIWendralApp");
    Dictionary info;
    info.set("BXBundleIdentifier", asset.identifier);
    if (const auto version = asset.version()) {
        info.set("BXBundleVersion", *version);
    }
    info.set("BXBundleExecutable", prettyName);
    info.set("BXBundleDisplayName", prettyName);
    info.set("BXBundleIconFile", "Icon.png");
    info.set("UIWendralApp", wendral ? *wendral : Value(false));
    info.set("PDApplicationLaunchProhibited", appInfo.truth("PDApplicationLaunchProhibited"));
    return info;
}

} // namespace

bool AppsClient::_makeIconFromBundlePath_saveTo(const std::optional<std::string>& bundlePath, std::string_view path) {
    if (!bundlePath) {
        _log.error("missing bundlePath");
        return false;
    }
    const auto url = FileURL::fileURLWithPath(*bundlePath, true);
    if (!url) {
        _log.error("couldn't create URL");
        return false;
    }
    const auto bundle = _platform.bundles.bundleWithURL(*url);
    if (!bundle) {
        _log.error("couldn't create bundle from URL");
        return false;
    }
    const auto image = _platform.iconRenderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(bundle);
    if (!image) {
        _log.error("couldn't create SK icon from bundle");
        return false;
    }
    const auto destination = _platform.imageDestinations.destinationWithType_count("public.png", 1);
    if (!destination) {
        _log.error("couldn't create image");
        return false;
    }
    destination->addImage(image);
    const auto bytes = destination->finalize();
    if (!bytes) {
        _log.error("Couldn't finalize image");
        return false;
    }
    if (!_platform.files.writeFileAtomically(path, bytes->bytes(), nullptr)) {
        _log.error("Couldn't save image file to %{public}@", path);
        return false;
    }
    return true;
}

std::string AppsClient::placeholderAppPathForBundleIdentifier(std::string_view bundleIdentifier) {
    const std::string apps = paths::join(_platform.process.temporaryDirectory(), paths::placeholdersFolderName);
    return paths::join(apps, bundleIdentifier) + ".app";
}

bool AppsClient::createPlaceHolderPath_forBundleIdentifier_withAttributes(std::string_view path,
                                                                          std::string_view bundleIdentifier,
                                                                          const FileAttributes& attributes) {
    // What begins with "../" may be an identifier, and would lead out of the folder of the placeholders.
    ErrorPtr error = paths::climbs(path) ? Error::make(posixErrorDomain, EINVAL) : nullptr;
    const bool created = !error && _platform.files.createDirectory(path, true, attributes, &error);
    if (!created || error) {
        placeholderBundle::logAppRestore(_platform, false, bundleIdentifier, "Failed to create app directory");
    }
    _log.message("Created app directory for '%{public}@' at %{public}@ with err=%{public}@", bundleIdentifier, path,
                 error);
    return created;
}

bool AppsClient::writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
    const std::optional<Data>& icon, std::string_view path, std::uint64_t* fileSize, std::string_view bundleIdentifier,
    const FileAttributes& attributes) {
    if (fileSize) {
        *fileSize = 0;
    }
    if (!icon) {
        _log.error("no icon data for '%{public}@'", bundleIdentifier);
        return false;
    }
    const bool created = _platform.files.createFile(path, icon->bytes(), attributes);
    std::uint64_t size = 0;
    if (created) {
        const auto file = _platform.files.attributesOfItem(path, nullptr);
        size = file ? file->size : 0;
    }
    if (fileSize) {
        *fileSize = size;
    }
    _log.message("icon data for '%{public}@' was writen to %{public}@ with status:%d fileSize:%llu", bundleIdentifier,
                 path, created, size);
    return created;
}

void AppsClient::_createPlaceHolderApplication(const QRAssetPtr& asset) {
    const std::string& identifier = asset->identifier;
    const std::string prettyName = asset->prettyName.value_or("");
    _log.message("plist %{public}@", asset->infoPlist);
    const Dictionary appInfo = readDictionary(_platform, asset->infoPlist).value_or(Dictionary{});
    if (prettyName.empty() || identifier.empty()) {
        return;
    }
    const std::string bundlePath = placeholderAppPathForBundleIdentifier(identifier);
    if (!createPlaceHolderPath_forBundleIdentifier_withAttributes(bundlePath, identifier,
                                                                  placeholderBundle::attributes)) {
        return;
    }
    if (asset->icon) {
        const std::string destination = paths::join(bundlePath, "Icon.png");
        ErrorPtr error;
        if (!_platform.files.copyItem(asset->icon->path(), destination, &error)) {
            _log.error("Copying icon from %{public}@ to %{public}@ failed: %{public}@", asset->icon->path(),
                       destination, error);
        }
    }
    const Dictionary info = placeholderInfo(*asset, prettyName, appInfo);
    if (!placeholderBundle::writeInfo(_platform, bundlePath, info)) {
        return;
    }
    _log.message("creating placeholder for '%{public}@'. info.plist=%{public}@", bundlePath, info);
    const Dictionary options{{PDPackageTypeKey, PDPackageTypePlaceholder},
                             {PDBundleIdentifierKey, identifier},
                             {PDInstallTypeKey, std::uint64_t{PDInstallTypeSync}}};
    const bool installed = placeholderBundle::install(_platform, _log, bundlePath, info, options);
    _platform.transactionLog.logScenario_step_success_forBundleID_description(
        "Install placeholder", TransactionStep::none, installed, identifier,
        installed ? "Installed placeholder" : "Failed to install placeholder");
}

} // namespace appsync
