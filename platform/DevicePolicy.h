// The device-policy service: what the device's owner or administrator allows.
#pragma once

#include <memory>
#include <string_view>

namespace appsync {

/// Settings that the plug-in asks for.
inline constexpr std::string_view OLFeatureAppInstallationAllowed = "allowAppInstallation";
inline constexpr std::string_view OLFeatureAppRemovalAllowed = "allowAppRemoval";

enum class OLBoolValue : int { unset = 0, explicitlyYes = 1, explicitlyNo = 2 };

class OLProfileConnection {
  public:
    virtual ~OLProfileConnection() = default;
    [[nodiscard]] virtual OLBoolValue effectiveBoolValueForSetting(std::string_view setting) noexcept = 0;
};

class OLProfileConnectionClass {
  public:
    virtual ~OLProfileConnectionClass() = default;
    /// Never null. May be called on any thread.
    [[nodiscard]] virtual std::shared_ptr<OLProfileConnection> sharedConnection() noexcept = 0;
};

} // namespace appsync
