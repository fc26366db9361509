// The placeholder of a restored app: icon, attributes, store metadata and protection record.
#include "plugin/client/AppsClient.h"

#include "plugin/client/Paths.h"
#include "plugin/coordination/Coordination.h"
#include "plugin/coordination/DemotionStatus.h"
#include "plugin/coordination/StoreMetadata.h"
#include "plugin/placeholders/PlaceholderBundle.h"

namespace appsync {

namespace {

std::uint64_t installTypeFor(std::uint64_t demotionStatus) {
    switch (demotionStatus) {
    case intentionallyDemoted: return PDInstallTypeIntentionalDowngrade;
    case automaticallyDemoted: return PDInstallTypeDowngrade;
    default: return PDInstallTypeRestore;
    }
}

/// Sets attributes, store metadata, protection record and completion; false at the first that fails.
bool configure(KXPlaceholder& placeholder, const PlugInLog& log, std::string_view bundleIdentifier,
               const Dictionary& metadata, const std::optional<Data>& sinfData) {
    ErrorPtr error;
    auto attributes = KXPlaceholderAttributes::init();
    attributes.setLaunchProhibited(storeMetadata::launchProhibited(metadata));
    attributes.setBundleVersion(storeMetadata::bundleVersion(metadata));
    if (!placeholder.setPlaceholderAttributes_error(attributes, &error)) {
        log.error("Error %{public}@ setting placeholder attributes for '%{public}@'", error, bundleIdentifier);
        return false;
    }
    log.message("set %{public}@ placeholder attributes for %{public}@", attributes, bundleIdentifier);
    if (!placeholder.setMetadata_error(TVStoreMetadata{metadata}, &error)) {
        log.error("Error %{public}@ setting store metadata for '%{public}@'", error, bundleIdentifier);
        return false;
    }
    log.message("set store metadata on placeholder for %{public}@", bundleIdentifier);
    if (sinfData) {
        if (!placeholder.setSinfData_error(*sinfData, &error)) {
            log.error("Error %{public}@ setting SINF data for '%{public}@'", error, bundleIdentifier);
            return false;
        }
        log.message("set SINF data on placeholder for %{public}@", bundleIdentifier);
    }
    if (!placeholder.setConfigurationCompleteWithError(&error)) {
        log.error("Error %{public}@ setting placeholder configuration as complete for '%{public}@'", error,
                  bundleIdentifier);
        return false;
    }
    log.message("set placeholder configuration complete for %{public}@", bundleIdentifier);
    return true;
}

} // namespace

KXPlaceholderPtr AppsClient::_placeHolderForBundleIdentifier_withTamblinMetadata_sinfData_iconData_demotionStatus(
    std::string_view bundleIdentifier, const Dictionary& metadata, const std::optional<Data>& sinfData,
    const std::optional<Data>& iconData, std::uint64_t demotionStatus) {
    const std::string name = storeMetadata::name(metadata).value_or(std::string(bundleIdentifier));
    const std::string directory = placeholderAppPathForBundleIdentifier(bundleIdentifier);
    if (!createPlaceHolderPath_forBundleIdentifier_withAttributes(directory, bundleIdentifier,
                                                                  placeholderBundle::attributes)) {
        return nullptr;
    }
    const std::string iconPath = paths::join(directory, "Icon.png");
    std::uint64_t iconSize{};
    writeIconData_atPath_returningFileSize_forBundleIdentifier_withAttributes(
        iconData, iconPath, &iconSize, bundleIdentifier, placeholderBundle::attributes);
    auto placeholder =
        _placeHolderForBundleIdentifier_name_installType(bundleIdentifier, name, installTypeFor(demotionStatus));
    if (!placeholder) {
        return nullptr;
    }
    const bool iconIsSettled =
        iconSize == 0 ||
        _createIconPromiseForBundleIdentifier_transferPath_diskSpaceNeeded_andAddToPlaceHolder_forAppInstall(
            bundleIdentifier, iconPath, iconSize, placeholder, false);
    if (iconIsSettled && configure(*placeholder, _log, bundleIdentifier, metadata, sinfData)) {
        return placeholder;
    }
    placeholder->cancelForReason_client_error(coordination::cancellation(QRErrorCode::restoreFailed), KXClientSyncHost,
                                              nullptr);
    return nullptr;
}

} // namespace appsync
