// The apps that a person deletes on the device between two syncs.
#pragma once

#include "values/PropertyList.h"
#include "values/Result.h"

#include <string>
#include <vector>

namespace appsync::device {
class Device;
}

namespace appsync::host {

/// Their bundle identifiers, from what `installedAssets` of the plug-in returns.
[[nodiscard]] std::vector<std::string> deletedApps(const Dictionary& installedAssets);

/// Writes down which apps the device has after a sync: the list that the plug-in compares the device with in the next
/// one.
[[nodiscard]] Result<void> writeLastSyncApps(device::Device& device);

} // namespace appsync::host
