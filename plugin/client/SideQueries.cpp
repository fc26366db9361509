// The host's side queries: how much is installed, under which accounts, and what a backup needs to know.
#include "plugin/client/AppsClient.h"

#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"

namespace appsync {

namespace {

constexpr std::string_view accountKey = "zuvexId";
constexpr std::string_view downloadInfoKey = "com.zuvex.TamblinStore.downloadInfo";
constexpr std::string_view accountInfoKey = "accountInfo";
constexpr std::string_view downloadAccountKey = "ZuvexID";
constexpr std::string_view deviceBasedKey = "DeviceBasedKPL";
constexpr std::string_view autoDownloadKey = "is-auto-download";

/// Where an app keeps what the store says of it; nullopt when the registry knows no folder of the app.
std::optional<std::string> metadataPath(PDApplicationProxy& application) {
    const auto container = application.bundleContainerURL();
    return container ? std::optional(paths::join(container->path(), "TamblinMetadata.plist")) : std::nullopt;
}

/// The value of a key, of any kind; null without a dictionary.
const Value* valueIn(const Dictionary* dictionary, std::string_view key) {
    return dictionary ? dictionary->find(key) : nullptr;
}

/// The string, or nullopt; a value of another kind is logged with its label.
std::optional<std::string_view> stringOf(const PlugInLog& log, const Value* value, std::string_view label) {
    const auto text = value ? value->string() : std::nullopt;
    if (value && !text) {
        log.typeCheck("unexpected type for %{public}@", label);
    }
    return text;
}

/// The same for a dictionary.
const Dictionary* dictionaryOf(const PlugInLog& log, const Value* value, std::string_view label) {
    const Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (value && !dictionary) {
        log.typeCheck("unexpected type for %{public}@", label);
    }
    return dictionary;
}

void addAccountsOf(PDApplicationProxy& application, const Platform& platform, const PlugInLog& log,
                   std::set<std::string>& accounts) {
    const auto path = metadataPath(application);
    const auto metadata = readDictionary(platform, path);
    const Dictionary* root = metadata ? &*metadata : nullptr;
    const auto account = stringOf(log, valueIn(root, accountKey), "zuvexID");
    const Dictionary* downloadInfo = dictionaryOf(log, valueIn(root, downloadInfoKey), "downloadInfo");
    const Dictionary* accountInfo = dictionaryOf(log, valueIn(downloadInfo, accountInfoKey), "accountInfo");
    const auto downloadAccount = stringOf(log, valueIn(accountInfo, downloadAccountKey), "ZuvexID");

    if (account && downloadAccount && *account != *downloadAccount) {
        log.message("mismatched ZuvexID keys for %{public}@: %{public}@ vs %{public}@",
                    application.applicationIdentifier(), *account, *downloadAccount);
    }
    if (!account && !downloadAccount) {
        log.message("unknown ZuvexID for %{public}@ (plist at %{public}@)", application.applicationIdentifier(), path);
    }
    for (const auto& present : {account, downloadAccount}) {
        if (present) {
            accounts.emplace(*present);
        }
    }
}

void prepareMetadataForBackup(PDApplicationProxy& application, const Platform& platform, const PlugInLog& log) {
    const auto path = metadataPath(application);
    auto metadata = readDictionary(platform, path);
    if (!metadata) {
        return;
    }
    bool changed = false;
    const bool isDeviceBased = application.hasMIDBasedSINF();
    if (isDeviceBased || metadata->contains(deviceBasedKey)) {
        metadata->set(deviceBasedKey, isDeviceBased);
        log.message("Updated DeviceBasedKPL state for : %{public}@ to %d", application.bundleIdentifier(),
                    isDeviceBased);
        changed = true;
    }
    if (metadata->truth(autoDownloadKey)) {
        metadata->erase(autoDownloadKey);
        log.message("clearing is-auto-download value for %{public}@", application.bundleIdentifier());
        changed = true;
    }
    if (changed) {
        writePropertyList(platform, std::move(*metadata), PropertyListFormat::xml, *path);
    }
}

} // namespace

Dictionary AppsClient::installedAssetMetrics() noexcept {
    std::int64_t count = 0;
    std::uint64_t bytes = 0;
    const std::uint64_t purgeableBytes = 0; // no app's space is ever given up
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeInstalled, [&](const PDApplicationProxyPtr& application, bool& /*stop*/) {
            if (application->applicationType() == "User") {
                bytes += application->diskUsage().staticUsage;
                ++count;
            }
        });
    _log.message("found %ld apps using %lld bytes (%lld purgeable)", count, static_cast<std::int64_t>(bytes),
                 static_cast<std::int64_t>(purgeableBytes));
    return {
        {"_Count", static_cast<std::uint64_t>(count)}, {"_PhysicalSize", bytes}, {"_PurgeableSize", purgeableBytes}};
}

std::set<std::string> AppsClient::zuvexIDsForAssets() noexcept {
    _log.message("getting id's for assets");
    std::set<std::string> accounts;
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeInstalled, [&](const PDApplicationProxyPtr& application, bool& /*stop*/) {
            addAccountsOf(*application, _platform, _log, accounts);
        });
    _log.message("Returning zuvex ID set: %{public}@", accounts);
    return accounts;
}

void AppsClient::prepareForBackup() noexcept {
    _log.message("preparing for backup");
    _platform.workspaces.defaultWorkspace().enumerateBundlesOfType_block(
        PDBundleTypeInstalled, [&](const PDApplicationProxyPtr& application, bool& /*stop*/) {
            prepareMetadataForBackup(*application, _platform, _log);
        });
    _log.message("finished preparing for backup");
}

} // namespace appsync
