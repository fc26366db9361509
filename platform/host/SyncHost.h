// What the sync host offers to the plug-in.
#pragma once

#include "platform/host/Asset.h"
#include "values/Error.h"

#include <functional>

namespace appsync {

/// The host's running transfers. Called on any thread. Both operations are optional: ask before you call.
class QRDeviceService {
  public:
    virtual ~QRDeviceService() = default;
    [[nodiscard]] virtual bool respondsToPrioritizeAsset() noexcept = 0;
    /// Moves the asset's transfer to the front. Returns at once; `completion` runs once, on any thread and possibly
    /// before this returns, with an error or null.
    virtual void prioritizeAsset_withCompletion(const QRAssetPtr& asset,
                                                std::function<void(const ErrorPtr& error)> completion) noexcept = 0;
    [[nodiscard]] virtual bool respondsToCancelAssetTransferForFailedAsset() noexcept = 0;
    /// Ends the asset's transfer as failed; the host reports that with `assetTransfer:succeeded:withError:`.
    virtual void cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept = 0;
};

class QRDeviceServiceClass {
  public:
    virtual ~QRDeviceServiceClass() = default;
    /// The one device service of the host; null when it offers none.
    [[nodiscard]] virtual std::shared_ptr<QRDeviceService> sharedInstance() noexcept = 0;
};

class QRErrorClassification {
  public:
    virtual ~QRErrorClassification() = default;
    /// True when the host expects a later sync to get past this error, such as a lost connection. Null is not.
    [[nodiscard]] virtual bool QRIsRecoverableError(const ErrorPtr& error) noexcept = 0;
};

} // namespace appsync
