// The backup service.
#pragma once

#include "values/Error.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace appsync {

/// Every operation may be called on any thread at any time.
class HVManager {
  public:
    virtual ~HVManager() = default;
    /// Whether data of this app waits to be restored; its size in bytes goes to `size` unless that is null.
    [[nodiscard]] virtual bool restoreDataExistsForApplicationWithBundleID_size(std::string_view bundleID,
                                                                                std::uint64_t* size) noexcept = 0;
    /// Gives up the restore of this app's data; fails when none waits.
    virtual bool cancelApplicationRestoreWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept = 0;
};

class HVManagerClass {
  public:
    virtual ~HVManagerClass() = default;
    /// A new manager; never null.
    [[nodiscard]] virtual std::shared_ptr<HVManager> init() noexcept = 0;
};

} // namespace appsync
