// Whether and why an app had been offloaded before the backup.
#pragma once

#include <cstdint>

namespace appsync {

enum DemotionStatus : std::uint64_t {
    notDemoted = 0,
    intentionallyDemoted = 1,
    automaticallyDemoted = 2,
};

} // namespace appsync
