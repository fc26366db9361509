// The low-level installation service: what an install is made from, and the list of uninstalled apps.
#pragma once

#include "values/Error.h"
#include "values/PropertyList.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace appsync {

/// Domain of the low-level installer's errors.
inline constexpr std::string_view TVInstallerErrorDomain = "TVInstallerErrorDomain";

/// What the store says of an app: the content of its "TamblinMetadata.plist".
struct TVStoreMetadata {
    Dictionary dictionary;
};

/// How an app is to be installed.
struct TVInstallOptions {
    std::optional<TVStoreMetadata> tamblinMetadata;
    std::optional<Data> sinfData;          // the app's protection record
    std::uint32_t registryInstallType = 0; // an install type of the application registry
    std::uint32_t installTargetType = 0;

    void setTamblinMetadata(std::optional<TVStoreMetadata> metadata) { tamblinMetadata = std::move(metadata); }
    void setSinfData(std::optional<Data> sinf) { sinfData = std::move(sinf); }
    void setRegistryInstallType(std::uint32_t type) { registryInstallType = type; }
    void setInstallTargetType(std::uint32_t type) { installTargetType = type; }
};

/// Every operation may be called on any thread at any time.
class TevrinInstallationService {
  public:
    virtual ~TevrinInstallationService() = default;
    /// A dictionary keyed by the bundle identifiers of the apps that a person, not the sync, has uninstalled; nullopt
    /// when the service cannot tell.
    [[nodiscard]] virtual std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* options) noexcept = 0;
    /// Forgets the uninstalled apps with these bundle identifiers (strings); those that it does not have are passed
    /// over. Zero, or the number of the failure.
    virtual int TevrinClearUninstalled(const Array& bundleIdentifiers, const Dictionary* options) noexcept = 0;
};

} // namespace appsync
