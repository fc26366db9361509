#include "platform/Asset.h"

namespace appsync {

QRAssetPtr QRAsset::downloadAssetWithIdentifier_dataclass_prettyName(std::string_view identifier,
                                                                     std::string_view dataclass,
                                                                     std::optional<std::string> prettyName) {
    auto asset = std::make_shared<QRAsset>();
    asset->identifier = identifier;
    asset->dataclass = dataclass;
    asset->prettyName = std::move(prettyName);
    return asset;
}

std::optional<std::string> QRAsset::version() const {
    const auto version = variantOptions ? variantOptions->string("Version") : std::nullopt;
    return version ? std::optional<std::string>(*version) : std::nullopt;
}

std::string QRAsset::shortDescription() const {
    return dataclass + ":" + identifier;
}

std::string QRAsset::description() const {
    return "<" + shortDescription() + " " + prettyName.value_or("(null)") + (isDownload ? " download" : " upload") +
           (isRestore ? " restore" : "") + " path=" + path.value_or("(null)") + ">";
}

} // namespace appsync
