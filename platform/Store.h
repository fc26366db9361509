// The store client.
#pragma once

#include "values/Error.h"

#include <functional>
#include <memory>

namespace appsync {

class MWSoftwareLibrary {
  public:
    virtual ~MWSoftwareLibrary() = default;
    /// Brings the receipts of the installed apps up to date. Returns at once; `completion` runs once, on a thread of
    /// the store client, with an error or null. It runs also when the library is dropped meanwhile. The end of a sync's
    /// transfers waits for it without a time-out.
    virtual void refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr& error)> completion) noexcept = 0;
};

class MWSoftwareLibraryClass {
  public:
    virtual ~MWSoftwareLibraryClass() = default;
    /// A new library object; never null.
    [[nodiscard]] virtual std::shared_ptr<MWSoftwareLibrary> init() noexcept = 0;
};

} // namespace appsync
