// What one coordinated install is prepared from, and what its preparation has obtained so far.
#pragma once

#include "platform/Asset.h"
#include "platform/InstallCoordinator.h"

#include <optional>
#include <string>

namespace appsync {

struct InstallPreparation {
    explicit InstallPreparation(const QRAsset& asset)
        : bundleIdentifier(asset.identifier), displayName(asset.prettyName), version(asset.version()),
          iconPath(asset.icon ? std::optional(asset.icon->path()) : std::nullopt) {}

    const std::string bundleIdentifier;
    const std::optional<std::string> displayName;
    const std::optional<std::string> version;
    const std::optional<std::string> iconPath;
    std::optional<Dictionary> infoPlist;
    std::optional<Dictionary> storePlist;
    bool launchProhibited = false;

    KXAppInstallCoordinatorPtr coordinator;
    KXPlaceholderPtr placeholder;
    std::optional<TVStoreMetadata> storeMetadata; // made only when the coordinator needs install options
    ErrorPtr error;                               // the last one that a service reported
};

} // namespace appsync
