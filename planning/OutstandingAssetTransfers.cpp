// Download planning: merges what the desktop wants installed with the placeholders that the registry holds, drops what
// is under way or must be left alone, and readies one asset for each of the rest, in the order of the home screen.
#include "client/AppsClient.h"

#include "client/Paths.h"
#include "pipeline/InProgressAssetQuery.h"
#include "planning/Candidate.h"
#include "planning/RequestFilter.h"
#include "platform/Icons.h"

namespace appsync {

std::vector<QRAssetPtr> AppsClient::outstandingAssetTransfers() noexcept {
    std::vector<QRAssetPtr> result;
    result.reserve(16);
    const bool installationAllowed = _appInstallationAllowed();
    const auto toDoList = _loadPlist_withError(paths::toDoList, nullptr);
    std::set<std::string> requestedByClient;
    _log.oversize("outstandingAssetTransfers starting with todoList %{public}@", toDoList);

    Dictionary wanted;
    wanted.reserve(toDoList ? toDoList->size() : 0);
    const auto systemAppPlaceholders = _getSystemAppPlaceholders();
    const Dictionary preExisting = _preExistingPlaceholders();
    for (const auto& [identifier, entry] : preExisting) {
        wanted.set(identifier, entry);
    }
    _log.oversize("outstandingAssetTransfers preExistingPlaceHolders %{public}@, idsWeWant %{public}@", preExisting,
                  wanted);

    _addRequestedApps(toDoList.value_or(Array{}), wanted, requestedByClient);
    _dropAppsInProgress(wanted);
    const Array ordered = _orderTheItems(wanted);
    _renewIconDirectory();

    const RequestFilter filter{
        _log, installationAllowed, _useInstallCoordinator, _kplAppsToIgnore, systemAppPlaceholders, requestedByClient};
    for (const Value& item : ordered) {
        const Candidate candidate(*item.dictionary());
        const auto displayName = _displayNameOfBundle(candidate.path);
        if (!filter.admits(candidate)) {
            continue;
        }
        const QRAssetPtr asset = _assetForCandidate(candidate, displayName);
        const bool requested = _useInstallCoordinator
                                   ? _prepareCoordinatedInstall(asset)
                                   : _preparePlaceholder(asset, preExisting.contains(candidate.identifier));
        if (requested) {
            result.push_back(asset);
        }
    }
    return result;
}

Dictionary AppsClient::_preExistingPlaceholders() {
    Dictionary placeholders;
    _enumeratePlaceholdersWithBlock([&](const PDApplicationProxyPtr& placeholder, bool& /*stop*/) {
        placeholders.set(placeholder->applicationIdentifier(), candidate::fromPlaceholder(*placeholder));
    });
    return placeholders;
}

void AppsClient::_addRequestedApps(const Array& toDoList, Dictionary& wanted,
                                   std::set<std::string>& requestedByClient) {
    for (const Value& item : toDoList) {
        const Dictionary* record = item.dictionary();
        if (record == nullptr || record->string("operation") != "install") {
            continue;
        }
        const auto identifier = record->string("identifier");
        if (!paths::isSafe(identifier)) {
            _log.message("Ignoring invalid path: %{public}@", record->find("identifier"));
            continue;
        }
        requestedByClient.emplace(*identifier);
        if (wanted.contains(*identifier)) {
            _log.message("%{public}@ already has a placeholder - skipping", *identifier);
        } else {
            wanted.set(*identifier, candidate::fromToDoRecord(*identifier, *record));
        }
    }
}

void AppsClient::_dropAppsInProgress(Dictionary& wanted) {
    std::optional<std::vector<std::string>> inProgress;
    std::optional<std::vector<std::string>> restoring;
    InProgressAssetQuery::currentInProgressAssetIDs_restoringAssetIDs(_workspace(), _log, inProgress, restoring);
    dropAppsInProgress(_log, inProgress, restoring, wanted);
}

void AppsClient::_renewIconDirectory() {
    _platform.files.removeItem(paths::icons, nullptr);
    ErrorPtr error;
    if (!_platform.files.createDirectory(paths::icons, false, std::nullopt, &error)) {
        _log.error("Can't create icon scratch dir! %{public}@", error);
    }
}

std::optional<std::string> AppsClient::_displayNameOfBundle(const std::optional<std::string>& path) {
    const auto url = path ? FileURL::fileURLWithPath(*path, true) : std::nullopt;
    const auto bundle = url ? _platform.bundles.bundleWithURL(*url) : nullptr;
    const auto name = bundle != nullptr ? bundle->objectForInfoDictionaryKey("BXBundleDisplayName") : std::nullopt;
    const auto text = name ? name->string() : std::nullopt;
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

QRAssetPtr AppsClient::_assetForCandidate(const Candidate& candidate, const std::optional<std::string>& displayName) {
    const std::string& identifier = candidate.identifier;
    const std::string prettyName = displayName                 ? *displayName
                                   : candidate.nameFromTamblin ? *candidate.nameFromTamblin
                                                               : identifier;
    std::string iconPath = paths::join(paths::icons, identifier + ".png");
    if (!_makeIconFromBundlePath_saveTo(candidate.path, iconPath)) {
        iconPath = paths::join(candidate.container.value_or(""), "TamblinArtwork");
    }
    auto asset = QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(identifier, supportedDataclasses().front(),
                                                                           prettyName);
    asset->icon = FileURL::fileURLWithPath(iconPath, false);
    asset->isRestore = candidate.isRestore;

    const bool packageIsHere = _recoveredDownloadExists(identifier, candidate.version);
    const std::uint32_t packageOnly = kQRAssetPartApplicationPackage;
    const std::uint32_t dataOnly = kQRAssetPartApplicationData;
    Dictionary variantOptions;
    variantOptions.set("AssetParts", !asset->isRestore ? packageOnly
                                     : packageIsHere   ? dataOnly
                                                       : packageOnly | dataOnly);
    if (candidate.version) {
        variantOptions.set("Version", *candidate.version);
    }
    asset->variantOptions = std::move(variantOptions);
    asset->storePlist = paths::join(candidate.container.value_or(""), "TamblinMetadata.plist");
    asset->infoPlist = paths::join(candidate.path.value_or(""), "Info.plist");
    _log.message("Asset %{public}@ (pretty=%{public}@, version=%{public}@) prepped with icon %{public}@, at "
                 "%{public}@, meta at %{public}@, info at %{public}@, storePid=%lld, isRestore=%c",
                 identifier, prettyName, candidate.version, asset->icon, candidate.path, asset->storePlist,
                 asset->infoPlist, asset->storePID, asset->isRestore ? 'y' : 'n');
    return asset;
}

bool AppsClient::_recoveredDownloadExists(std::string_view identifier, const std::optional<std::string>& version) {
    const auto value = _restoreStatePropertyForKey_identifier_version("path", identifier, version);
    const auto path = value ? value->string() : std::nullopt;
    if (!path) {
        return false;
    }
    if (_platform.files.fileExists(*path)) {
        _log.message("Recovered download path for %{public}@ at %{public}@", identifier, *path);
        return true;
    }
    _log.message("Download path recovered for %{public}@ but the file is missing: %{public}@", identifier, *path);
    return false;
}

bool AppsClient::_prepareCoordinatedInstall(const QRAssetPtr& asset) {
    const std::string& identifier = asset->identifier;
    const auto proxy = _platform.applicationProxies.applicationProxyForIdentifier_placeholder(identifier, false);
    const bool existingApp = proxy != nullptr && proxy->isInstalled() && !proxy->isPlaceholder();
    if (existingApp) {
        _log.message("App %{public}@ is already installed and will be updated.", identifier);
    }
    if (!prepareAppForInstallUsingCoordination_existingApp(asset, existingApp)) {
        _log.error("Not requesting app asset for %{public}@", identifier);
        changeAssetID_toDo(identifier, "FAILED");
        return false;
    }
    _accessQueue.sync([&] {
        if (existingApp) {
            _updatingApps.insert(identifier);
        }
    });
    return true;
}

bool AppsClient::_preparePlaceholder(const QRAssetPtr& asset, bool hasPlaceholder) {
    if (hasPlaceholder) {
        _log.message("Not creating a placeholder app for %{public}@ because we already have one", asset->identifier);
        return false;
    }
    _createPlaceHolderApplication(asset);
    return true;
}

} // namespace appsync
