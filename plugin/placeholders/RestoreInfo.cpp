// Turns the restore info that a desktop's restore left behind into placeholders, once.
#include "plugin/client/AppsClient.h"

#include "platform/PropertyListSerialization.h"
#include "plugin/client/Paths.h"
#include "plugin/coordination/DemotionStatus.h"

#include <unordered_set>

namespace appsync {

namespace {

constexpr int restoreFromDesktopBackup = 2;

/// How the apps of the demoted-apps file were demoted. The file's dictionary must outlive it unchanged.
class DemotedApps {
  public:
    explicit DemotedApps(const std::optional<Dictionary>& file)
        : _automatic(_identifiers(file, "AutomaticDowngrades")),
          _intentional(_identifiers(file, "IntentionalDowngrades")) {}

    /// An app of both lists counts as automatically demoted.
    [[nodiscard]] DemotionStatus statusOf(std::string_view identifier) const {
        return _automatic.contains(identifier)     ? automaticallyDemoted
               : _intentional.contains(identifier) ? intentionallyDemoted
                                                   : notDemoted;
    }

  private:
    using Identifiers = std::unordered_set<std::string_view>;

    static Identifiers _identifiers(const std::optional<Dictionary>& file, std::string_view key) {
        Identifiers found;
        const Array* list = file ? file->array(key) : nullptr;
        for (std::size_t i = 0; list && i < list->size(); ++i) {
            if (const auto identifier = (*list)[i].string()) {
                found.insert(*identifier);
            }
        }
        return found;
    }

    const Identifiers _automatic;
    const Identifiers _intentional;
};

std::optional<Dictionary> loadRestoreInfo(const Platform& platform, const PlugInLog& log) {
    ErrorPtr error;
    const auto bytes = platform.files.readFile(paths::restoreInfo, &error);
    if (!bytes) {
        log.message("failed to read tamblin app restore info. err=%{public}@", error);
        return std::nullopt;
    }
    log.message("processing tamblin restore info");
    auto root = platform.propertyLists.propertyListWithData(bytes->bytes(), &error);
    Dictionary* apps = root ? root->mutableDictionary() : nullptr;
    if (!apps) {
        log.message("failed to parse tamblin app restore info. err=%{public}@", error);
        return std::nullopt;
    }
    return std::move(*apps);
}

/// What came of the app; nullopt when it is skipped.
std::optional<bool> restoreApp(AppsClient& client, const PlugInLog& log, bool useInstallCoordinator,
                               std::string_view bundleIdentifier, const Value& appInfo, std::uint64_t demotionStatus) {
    log.message("processing tamblin restore info for '%{public}@' demotionStatus :%lu", bundleIdentifier,
                demotionStatus);
    if (!paths::isFileName(bundleIdentifier)) {
        log.message("Ignoring invalid path: %{public}@", bundleIdentifier);
        return std::nullopt;
    }
    if (client._placeholderExistsForApplication(bundleIdentifier)) {
        log.message("placeholder already exists for '%{public}@' - skiping'", bundleIdentifier);
        return std::nullopt;
    }
    const Dictionary* app = appInfo.dictionary();
    if (!app) {
        log.message("no tamblin restore info for '%{public}@' - skipping", bundleIdentifier);
        return std::nullopt;
    }
    const auto metadata = app->data("TamblinMetadata");
    if (!metadata) {
        log.message("no TamblinMetadata for '%{public}@' - ignoring", bundleIdentifier);
        return std::nullopt;
    }
    const auto sinf = app->data("ApplicationSINF");
    const auto icon = app->data("PlaceholderIcon");
    return useInstallCoordinator
               ? client.prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
                     bundleIdentifier, *metadata, sinf, icon, demotionStatus)
               : client._processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData(bundleIdentifier, *metadata,
                                                                                           sinf, icon);
}

void archiveRestoreInfo(FileSystem& files, const PlugInLog& log) {
    files.removeItem(paths::processedRestoreInfo, nullptr);
    ErrorPtr error;
    if (!files.moveItem(paths::restoreInfo, paths::processedRestoreInfo, &error)) {
        log.message("failed to copy tamblin metadata. err=%{public}@", error);
    }
}

} // namespace

bool AppsClient::reconcileRestoreOfType_withError(int type, ErrorPtr* error) noexcept {
    _log.message("reconcileRestoreOfType %d", type);
    _notifySkellan(true);
    _platform.files.createDirectory(paths::applicationSync, true, std::nullopt, nullptr);
    if (type == restoreFromDesktopBackup) {
        _processTamblinRestoreInfo();
    }
    if (error) {
        *error = nullptr;
    }
    return true;
}

bool AppsClient::_processTamblinRestoreInfo() {
    if (!_platform.files.fileExists(paths::restoreInfo)) {
        _log.message("no tamblin restore plist found - skipping processing of tamblin restored apps");
        return true;
    }
    bool restored = false;
    if (const auto restoreInfo = loadRestoreInfo(_platform, _log)) {
        const auto demotedAppsFile = _loadDemotedAppsPlist_withError(paths::demotedApps, nullptr);
        const DemotedApps demotedApps(demotedAppsFile);
        _log.oversize("Demoted Apps: %{public}@", demotedAppsFile);
        for (const auto& [identifier, appInfo] : *restoreInfo) {
            restored =
                restoreApp(*this, _log, _useInstallCoordinator, identifier, appInfo, demotedApps.statusOf(identifier))
                    .value_or(restored);
        }
    }
    archiveRestoreInfo(_platform.files, _log);
    return restored;
}

} // namespace appsync
