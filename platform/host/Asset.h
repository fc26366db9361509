// The sync host's record of one item to transfer.
#pragma once

#include "values/FileURL.h"
#include "values/PropertyList.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace appsync {

class QRAsset;
using QRAssetPtr = std::shared_ptr<QRAsset>;

/// Bits of `AssetParts` in the variant options and of `completedAssetParts`.
inline constexpr std::uint32_t kQRAssetPartApplicationPackage = 1;
inline constexpr std::uint32_t kQRAssetPartApplicationData = 2;

/// Made by the plug-in, shared with the host, which fills in what a transfer brings. Whoever changes a field does so
/// only while no call with this asset is under way, and before the call that tells the other side; nothing here locks.
class QRAsset {
  public:
    /// A record of something that the host is to fetch for this device.
    [[nodiscard]] static QRAssetPtr
    downloadAssetWithIdentifier_dataclass_prettyName(std::string_view identifier, std::string_view dataclass,
                                                     std::optional<std::string> prettyName) {
        auto asset = std::make_shared<QRAsset>();
        asset->identifier = identifier;
        asset->dataclass = dataclass;
        asset->prettyName = std::move(prettyName);
        return asset;
    }

    // Set when it is made.
    std::string identifier; // the app's bundle identifier
    std::string dataclass;
    std::optional<std::string> prettyName; // the name to show
    bool isDownload = true;                // fetched for this device, not sent from it

    // Set by the plug-in when it requests the asset.
    std::optional<FileURL> icon;              // a PNG
    bool isRestore = false;                   // belongs to a restore
    std::optional<Dictionary> variantOptions; // "AssetParts" (bits above), "Version" (bundle version)
    std::optional<std::string> storePlist;    // path of the app's "TamblinMetadata.plist"
    std::optional<std::string> infoPlist;     // path of its "Info.plist"

    // Set by the host.
    std::optional<std::string> path;       // the received file, possibly relative to "/var/mobile/Media/PublicStaging"
    std::uint32_t completedAssetParts = 0; // bits above
    double downloadProgress = 0;           // 0 to 1
    double installProgress = 0;            // 0 to 1
    std::int64_t storePID = 0;             // the store's number of the product

    /// "Version" of the variant options, if it is there and a string.
    [[nodiscard]] std::optional<std::string> version() const {
        const auto version = variantOptions ? variantOptions->string("Version") : std::nullopt;
        return version ? std::optional<std::string>(*version) : std::nullopt;
    }
    /// Data class and identifier.
    [[nodiscard]] std::string shortDescription() const { return dataclass + ":" + identifier; }
    /// Short description, name, kind and path, on one line.
    [[nodiscard]] std::string description() const {
        return "<" + shortDescription() + " " + prettyName.value_or("(null)") + (isDownload ? " download" : " upload") +
               (isRestore ? " restore" : "") + " path=" + path.value_or("(null)") + ">";
    }
};

} // namespace appsync
