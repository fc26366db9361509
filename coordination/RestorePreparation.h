// What one coordinated restore is prepared from, and what its preparation has obtained so far.
#pragma once

#include "platform/ApplicationRegistry.h"
#include "platform/InstallCoordinator.h"

#include <cstdint>
#include <optional>
#include <string>

namespace appsync {

/// Whether and why an app had been offloaded before the backup.
enum DemotionStatus : std::uint64_t {
    notDemoted = 0,
    intentionallyDemoted = 1,
    automaticallyDemoted = 2,
};

struct RestorePreparation {
    const std::string bundleIdentifier;
    const std::optional<Data> sinfData;
    const std::optional<Data> iconData;
    const std::uint64_t demotionStatus;

    Dictionary metadata{};
    KXAppInstallCoordinatorPtr coordinator{};
    KXPlaceholderPtr unacceptedPlaceholder{}; // built here, and no coordinator's yet
    ErrorPtr error{};                         // the last one that a service reported
};

} // namespace appsync
