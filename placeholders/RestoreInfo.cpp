// Turns the restore info that a desktop's restore left behind into placeholders, once.
#include "client/AppsClient.h"

#include "client/Paths.h"
#include "coordination/RestorePreparation.h"
#include "platform/PropertyListSerialization.h"

#include <unordered_set>

namespace appsync {

namespace {

constexpr int restoreFromDesktopBackup = 2;

/// How the apps of the demoted-apps file were demoted. The file's dictionary must outlive it unchanged.
class DemotedApps {
  public:
    explicit DemotedApps(const std::optional<Dictionary>& file)
        : _automatic(identifiers(file, "AutomaticDowngrades")),
          _intentional(identifiers(file, "IntentionalDowngrades")) {}

    /// An app of both lists counts as automatically demoted.
    [[nodiscard]] DemotionStatus statusOf(std::string_view identifier) const {
        return _automatic.contains(identifier)     ? automaticallyDemoted
               : _intentional.contains(identifier) ? intentionallyDemoted
                                                   : notDemoted;
    }

  private:
    using Identifiers = std::unordered_set<std::string_view>;

    static Identifiers identifiers(const std::optional<Dictionary>& file, std::string_view key) {
        Identifiers found;
        const Array* list = file ? file->array(key) : nullptr;
        for (std::size_t i = 0; list != nullptr && i < list->size(); ++i) {
            if (const auto identifier = (*list)[i].string()) {
                found.insert(*identifier);
            }
        }
        return found;
    }

    const Identifiers _automatic;
    const Identifiers _intentional;
};

} // namespace

bool AppsClient::reconcileRestoreOfType_withError(int type, ErrorPtr* error) noexcept {
    _log.message("reconcileRestoreOfType %d", type);
    _notifySkellan(true);
    _platform.files.createDirectory(paths::applicationSync, true, std::nullopt, nullptr);
    if (type == restoreFromDesktopBackup) {
        _processTamblinRestoreInfo();
    }
    if (error != nullptr) {
        *error = nullptr;
    }
    return true;
}

bool AppsClient::_processTamblinRestoreInfo() {
    if (!_platform.files.fileExists(paths::restoreInfo)) {
        _log.message("no tamblin restore plist found - skipping processing of tamblin restored apps");
        return true;
    }
    const auto restoreInfo = _loadRestoreInfo();
    const bool restored = restoreInfo && _restoreApps(*restoreInfo);
    _archiveRestoreInfo();
    return restored;
}

std::optional<Dictionary> AppsClient::_loadRestoreInfo() {
    ErrorPtr error;
    const auto bytes = _platform.files.readFile(paths::restoreInfo, &error);
    if (!bytes) {
        _log.message("failed to read tamblin app restore info. err=%{public}@", error);
        return std::nullopt;
    }
    _log.message("processing tamblin restore info");
    auto root = _platform.propertyLists.propertyListWithData(bytes->bytes(), &error);
    Dictionary* apps = root ? root->mutableDictionary() : nullptr;
    if (apps == nullptr) {
        _log.message("failed to parse tamblin app restore info. err=%{public}@", error);
        return std::nullopt;
    }
    return std::move(*apps);
}

/// What came of the last app that was not skipped; false when there was none.
bool AppsClient::_restoreApps(const Dictionary& restoreInfo) {
    const auto demotedAppsFile = _loadDemotedAppsPlist_withError(paths::demotedApps, nullptr);
    const DemotedApps demotedApps(demotedAppsFile);
    _log.oversize("Demoted Apps: %{public}@", demotedAppsFile);
    bool restored = false;
    for (const auto& [identifier, appInfo] : restoreInfo) {
        restored = _restoreApp(identifier, appInfo, demotedApps.statusOf(identifier)).value_or(restored);
    }
    return restored;
}

/// What came of the app; nothing when it is skipped.
std::optional<bool> AppsClient::_restoreApp(std::string_view bundleIdentifier, const Value& appInfo,
                                            std::uint64_t demotionStatus) {
    _log.message("processing tamblin restore info for '%{public}@' demotionStatus :%lu", bundleIdentifier,
                 demotionStatus);
    if (!paths::isFileName(bundleIdentifier)) {
        _log.message("Ignoring invalid path: %{public}@", bundleIdentifier);
        return std::nullopt;
    }
    if (_placeholderExistsForApplication(bundleIdentifier)) {
        _log.message("placeholder already exists for '%{public}@' - skiping'", bundleIdentifier);
        return std::nullopt;
    }
    const Dictionary* app = appInfo.dictionary();
    if (app == nullptr) {
        _log.message("no tamblin restore info for '%{public}@' - skipping", bundleIdentifier);
        return std::nullopt;
    }
    const auto metadata = app->data("TamblinMetadata");
    if (!metadata) {
        _log.message("no TamblinMetadata for '%{public}@' - ignoring", bundleIdentifier);
        return std::nullopt;
    }
    const auto sinf = app->data("ApplicationSINF");
    const auto icon = app->data("PlaceholderIcon");
    return _useInstallCoordinator
               ? prepareAppForRestoreUsingCoordination_TamblinMetadata_sinfData_iconData_demotionStatus(
                     bundleIdentifier, *metadata, sinf, icon, demotionStatus)
               : _processTamblinRestoreInfoForApp_tamblinMetaData_sinfData_iconData(bundleIdentifier, *metadata, sinf,
                                                                                    icon);
}

void AppsClient::_archiveRestoreInfo() {
    _platform.files.removeItem(paths::processedRestoreInfo, nullptr);
    ErrorPtr error;
    if (!_platform.files.moveItem(paths::restoreInfo, paths::processedRestoreInfo, &error)) {
        _log.message("failed to copy tamblin metadata. err=%{public}@", error);
    }
}

} // namespace appsync
