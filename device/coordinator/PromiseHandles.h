// From a client's handle back to the promise or placeholder that it stands for.
#pragma once

#include "device/coordinator/CoordinatorState.h"

namespace appsync::device {

/// Null for null, and for an object that this device did not make.
[[nodiscard]] PromisePtr promiseBehind(const std::shared_ptr<KXPromise>& handle);
[[nodiscard]] PlaceholderPtr placeholderBehind(const KXPlaceholderPtr& handle);

} // namespace appsync::device
