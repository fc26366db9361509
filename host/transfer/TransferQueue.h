// The apps that are still to be brought, in their order, and what a person does to them meanwhile.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/host/Asset.h"
#include "platform/host/SyncHost.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

/// Codes of the errors with which the host ends a transfer, in `hostTransferErrorDomain`.
inline constexpr std::string_view hostTransferErrorDomain = "SyncHostTransfer";
enum class TransferError : int {
    interrupted = 1,     // the sync was ended; a later one goes on
    cancelledByUser = 2, // on the device
    noSpace = 3,         // the device is full; a later sync goes on when there is room
    sourceFailed = 4,    // the desktop cannot deliver the archive
    deviceFailed = 5,    // the device cannot take it
};

/// Any thread.
class TransferQueue {
  public:
    /// By their identifiers.
    explicit TransferQueue(std::vector<std::string> apps) : _waiting(apps.begin(), apps.end()) {}

    /// The next app to bring, which is then under way; nullopt when there is none.
    [[nodiscard]] std::optional<std::string> next();
    /// Moves a waiting app to the front. False when it does not wait.
    bool prioritize(std::string_view identifier);
    /// Marks an app as cancelled, be it waiting or under way. False when it is neither.
    bool cancel(std::string_view identifier);
    [[nodiscard]] bool isCancelled(std::string_view identifier) const;

  private:
    mutable Mutex _mutex;
    std::deque<std::string> _waiting GUARDED_BY(_mutex);
    std::string _underWay GUARDED_BY(_mutex); // empty when none is
    std::set<std::string, std::less<>> _cancelled GUARDED_BY(_mutex);
};

/// The host's device service: passes requests on to the queue of the sync that runs. Any thread.
class DeviceService final : public QRDeviceService, public QRDeviceServiceClass {
  public:
    /// The queue that requests go to from now on; null when no sync runs.
    void setQueue(std::shared_ptr<TransferQueue> queue);
    /// As the operations of the queue; false also when no sync runs.
    bool prioritize(std::string_view identifier);
    bool cancel(std::string_view identifier);

    [[nodiscard]] std::shared_ptr<QRDeviceService> sharedInstance() noexcept override;
    [[nodiscard]] bool respondsToPrioritizeAsset() noexcept override { return true; }
    /// Completes before it returns.
    void prioritizeAsset_withCompletion(const QRAssetPtr& asset,
                                        std::function<void(const ErrorPtr&)> completion) noexcept override;
    [[nodiscard]] bool respondsToCancelAssetTransferForFailedAsset() noexcept override { return true; }
    void cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept override;

  private:
    [[nodiscard]] std::shared_ptr<TransferQueue> _currentQueue();

    Mutex _mutex;
    std::shared_ptr<TransferQueue> _queue GUARDED_BY(_mutex);
};

/// Which errors a later sync may get past: those of an ended sync and of a full disk. `EINVAL`, with which the plug-in
/// reports that it could not learn whether a busy app may be ended, is one of them while the sync is being interrupted.
class ErrorClassification final : public QRErrorClassification {
  public:
    [[nodiscard]] bool QRIsRecoverableError(const ErrorPtr& error) noexcept override;
};

/// An error of `hostTransferErrorDomain` with its sentence.
[[nodiscard]] ErrorPtr transferError(TransferError code, std::string_view description);
[[nodiscard]] ErrorPtr cancelledByUserError();

} // namespace appsync::host
