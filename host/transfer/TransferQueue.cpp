#include "host/transfer/TransferQueue.h"

#include "host/control/Interrupt.h"

#include <algorithm>
#include <cerrno>

namespace appsync::host {

std::optional<std::string> TransferQueue::next() {
    const Lock lock(_mutex);
    if (_waiting.empty()) {
        _underWay.clear();
        return std::nullopt;
    }
    _underWay = std::move(_waiting.front());
    _waiting.pop_front();
    return _underWay;
}

bool TransferQueue::prioritize(std::string_view identifier) {
    const Lock lock(_mutex);
    const auto found = std::ranges::find(_waiting, identifier);
    if (found == _waiting.end()) {
        return false;
    }
    std::rotate(_waiting.begin(), found, found + 1);
    return true;
}

bool TransferQueue::cancel(std::string_view identifier) {
    const Lock lock(_mutex);
    if (_underWay != identifier && std::ranges::find(_waiting, identifier) == _waiting.end()) {
        return false;
    }
    _cancelled.emplace(identifier);
    return true;
}

bool TransferQueue::isCancelled(std::string_view identifier) const {
    const Lock lock(_mutex);
    return _cancelled.contains(identifier);
}

void DeviceService::setQueue(std::shared_ptr<TransferQueue> queue) {
    const Lock lock(_mutex);
    _queue = std::move(queue);
}

bool DeviceService::prioritize(std::string_view identifier) {
    const auto queue = _currentQueue();
    return queue && queue->prioritize(identifier);
}

bool DeviceService::cancel(std::string_view identifier) {
    const auto queue = _currentQueue();
    return queue && queue->cancel(identifier);
}

std::shared_ptr<QRDeviceService> DeviceService::sharedInstance() noexcept {
    return {std::shared_ptr<void>(), this}; // owned by the host, which outlives the plug-in
}

void DeviceService::prioritizeAsset_withCompletion(const QRAssetPtr& asset,
                                                   std::function<void(const ErrorPtr&)> completion) noexcept {
    completion(prioritize(asset->identifier)
                   ? nullptr
                   : transferError(TransferError::interrupted, "'" + asset->identifier +
                                                                   "' cannot be moved to the front: it does not "
                                                                   "wait for its transfer."));
}

void DeviceService::cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept {
    cancel(asset->identifier);
}

std::shared_ptr<TransferQueue> DeviceService::_currentQueue() {
    const Lock lock(_mutex);
    return _queue;
}

bool ErrorClassification::QRIsRecoverableError(const ErrorPtr& error) noexcept {
    if (!error) {
        return false;
    }
    if (error->domain() == posixErrorDomain) {
        // The plug-in reports EINVAL when it could not learn whether a busy app may be ended, as at an interrupt.
        return error->code() == ENOSPC || error->code() == EDQUOT ||
               (error->code() == EINVAL && Interrupt::requested());
    }
    return error->domain() == hostTransferErrorDomain &&
           (error->code() == static_cast<int>(TransferError::interrupted) ||
            error->code() == static_cast<int>(TransferError::noSpace));
}

ErrorPtr cancelledByUserError() {
    return transferError(TransferError::cancelledByUser, "Cancelled on the device.");
}

ErrorPtr transferError(TransferError code, std::string_view description) {
    return Error::make(hostTransferErrorDomain, static_cast<int>(code), Dictionary{{errorDescriptionKey, description}});
}

} // namespace appsync::host
