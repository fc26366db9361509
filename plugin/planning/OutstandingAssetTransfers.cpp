// Download planning: merges what the desktop wants installed with the placeholders that the registry holds, drops what
// is under way or must be left alone, and readies one asset for each of the rest, in the order of the home screen.
#include "plugin/client/AppsClient.h"

#include "platform/Icons.h"
#include "plugin/client/Paths.h"
#include "plugin/pipeline/InProgressAssetQuery.h"
#include "plugin/planning/Candidate.h"
#include "plugin/planning/RequestFilter.h"

namespace appsync {

namespace {

Dictionary preExistingPlaceholders(AppsClient& client) {
    Dictionary placeholders;
    client._enumeratePlaceholdersWithBlock([&](const PDApplicationProxyPtr& placeholder, bool& /*stop*/) {
        placeholders.set(placeholder->applicationIdentifier(), candidate::fromPlaceholder(*placeholder));
    });
    return placeholders;
}

/// Adds what the to-do list wants installed; the identifiers of all that it names.
std::set<std::string> addRequestedApps(const Array& toDoList, const PlugInLog& log, Dictionary& wanted) {
    std::set<std::string> requested;
    for (const Value& item : toDoList) {
        const Dictionary* record = item.dictionary();
        if (!record || record->string("operation") != "install") {
            continue;
        }
        const auto identifier = record->string("identifier");
        if (!paths::isSafe(identifier)) {
            log.message("Ignoring invalid path: %{public}@", record->find("identifier"));
            continue;
        }
        requested.emplace(*identifier);
        if (wanted.contains(*identifier)) {
            log.message("%{public}@ already has a placeholder - skipping", *identifier);
        } else {
            wanted.set(*identifier, candidate::fromToDoRecord(*identifier, *record));
        }
    }
    return requested;
}

void dropWhatIsInProgress(const Platform& platform, const PlugInLog& log, Dictionary& wanted) {
    std::optional<std::vector<std::string>> inProgress;
    std::optional<std::vector<std::string>> restoring;
    InProgressAssetQuery::currentInProgressAssetIDs_restoringAssetIDs(platform.workspaces.defaultWorkspace(), log,
                                                                      inProgress, restoring);
    dropAppsInProgress(log, inProgress, restoring, wanted);
}

void renewIconDirectory(FileSystem& files, const PlugInLog& log) {
    files.removeItem(paths::icons, nullptr);
    ErrorPtr error;
    if (!files.createDirectory(paths::icons, false, std::nullopt, &error)) {
        log.error("Can't create icon scratch dir! %{public}@", error);
    }
}

std::optional<std::string> displayNameOfBundle(BundleClass& bundles, const std::optional<std::string>& path) {
    const auto url = path ? FileURL::fileURLWithPath(*path, true) : std::nullopt;
    const auto bundle = url ? bundles.bundleWithURL(*url) : nullptr;
    const auto name = bundle ? bundle->objectForInfoDictionaryKey("BXBundleDisplayName") : std::nullopt;
    const auto text = name ? name->string() : std::nullopt;
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

bool recoveredDownloadExists(AppsClient& client, FileSystem& files, const PlugInLog& log, std::string_view identifier,
                             const std::optional<std::string>& version) {
    const auto value = client._restoreStatePropertyForKey_identifier_version("path", identifier, version);
    const auto path = value ? value->string() : std::nullopt;
    if (!path) {
        return false;
    }
    if (files.fileExists(*path)) {
        log.message("Recovered download path for %{public}@ at %{public}@", identifier, *path);
        return true;
    }
    log.message("Download path recovered for %{public}@ but the file is missing: %{public}@", identifier, *path);
    return false;
}

QRAssetPtr assetForCandidate(AppsClient& client, FileSystem& files, const PlugInLog& log, const Candidate& candidate,
                             const std::optional<std::string>& displayName) {
    const std::string& identifier = candidate.identifier;
    const std::string prettyName = displayName                 ? *displayName
                                   : candidate.nameFromTamblin ? *candidate.nameFromTamblin
                                                               : identifier;
    std::string iconPath = paths::join(paths::icons, identifier + ".png");
    if (!client._makeIconFromBundlePath_saveTo(candidate.path, iconPath)) {
        iconPath = paths::join(candidate.container.value_or(""), "TamblinArtwork");
    }
    auto asset = QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(
        identifier, client.supportedDataclasses().front(), prettyName);
    asset->icon = FileURL::fileURLWithPath(iconPath, false);
    asset->isRestore = candidate.isRestore;

    const bool packageIsHere = recoveredDownloadExists(client, files, log, identifier, candidate.version);
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
    log.message("Asset %{public}@ (pretty=%{public}@, version=%{public}@) prepped with icon %{public}@, at "
                "%{public}@, meta at %{public}@, info at %{public}@, storePid=%lld, isRestore=%c",
                identifier, prettyName, candidate.version, asset->icon, candidate.path, asset->storePlist,
                asset->infoPlist, asset->storePID, asset->isRestore ? 'y' : 'n');
    return asset;
}

/// Whether an app is there that the install would update.
bool isInstalled(const Platform& platform, const PlugInLog& log, const std::string& identifier) {
    const auto proxy = platform.applicationProxies.applicationProxyForIdentifier_placeholder(identifier, false);
    const bool existingApp = proxy && proxy->isInstalled() && !proxy->isPlaceholder();
    if (existingApp) {
        log.message("App %{public}@ is already installed and will be updated.", identifier);
    }
    return existingApp;
}

} // namespace

std::vector<QRAssetPtr> AppsClient::outstandingAssetTransfers() noexcept {
    std::vector<QRAssetPtr> result;
    result.reserve(16);
    const bool installationAllowed = _appInstallationAllowed();
    const auto toDoList = _loadPlist_withError(paths::toDoList, nullptr);
    _log.oversize("outstandingAssetTransfers starting with todoList %{public}@", toDoList);

    Dictionary wanted;
    wanted.reserve(toDoList ? toDoList->size() : 0);
    const auto systemAppPlaceholders = _getSystemAppPlaceholders();
    const Dictionary preExisting = preExistingPlaceholders(*this);
    for (const auto& [identifier, entry] : preExisting) {
        wanted.set(identifier, entry);
    }
    _log.oversize("outstandingAssetTransfers preExistingPlaceHolders %{public}@, idsWeWant %{public}@", preExisting,
                  wanted);

    const auto requestedByClient = addRequestedApps(toDoList.value_or(Array{}), _log, wanted);
    dropWhatIsInProgress(_platform, _log, wanted);
    const Array ordered = _orderTheItems(wanted);
    renewIconDirectory(_platform.files, _log);

    const RequestFilter filter{
        _log, installationAllowed, _useInstallCoordinator, _kplAppsToIgnore, systemAppPlaceholders, requestedByClient};
    for (const Value& item : ordered) {
        const Candidate candidate(*item.dictionary());
        const auto displayName = displayNameOfBundle(_platform.bundles, candidate.path);
        if (!filter.admits(candidate)) {
            continue;
        }
        const QRAssetPtr asset = assetForCandidate(*this, _platform.files, _log, candidate, displayName);
        const std::string& identifier = asset->identifier;
        if (_useInstallCoordinator) {
            const bool existingApp = isInstalled(_platform, _log, identifier);
            if (!prepareAppForInstallUsingCoordination_existingApp(asset, existingApp)) {
                _log.error("Not requesting app asset for %{public}@", identifier);
                changeAssetID_toDo(identifier, "FAILED");
                continue;
            }
            _accessQueue.sync([&]() REQUIRES(_accessQueue) {
                if (existingApp) {
                    _updatingApps.insert(identifier);
                }
            });
        } else if (preExisting.contains(identifier)) {
            _log.message("Not creating a placeholder app for %{public}@ because we already have one", identifier);
            continue;
        } else {
            _createPlaceHolderApplication(asset);
        }
        result.push_back(asset);
    }
    return result;
}

} // namespace appsync
