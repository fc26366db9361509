#include "device/coordinator/Promise.h"

#include <algorithm>

namespace appsync::device {

PromiseRecord Promise::record() const {
    const std::lock_guard lock(_mutex);
    return _record;
}

PromiseRole Promise::role() const {
    const std::lock_guard lock(_mutex);
    return _record.role;
}

bool Promise::isComplete() const {
    const std::lock_guard lock(_mutex);
    return _record.isComplete;
}

bool Promise::isCancelled() const {
    const std::lock_guard lock(_mutex);
    return _isCancelled;
}

double Promise::fraction() const {
    const std::lock_guard lock(_mutex);
    return _record.isComplete ? 1 : _fraction;
}

std::shared_ptr<CoordinatorState> Promise::owner() const {
    const std::lock_guard lock(_mutex);
    return _owner.lock();
}

bool Promise::take(PromiseRole role) {
    const std::lock_guard lock(_mutex);
    if (_isCancelled || _record.role != PromiseRole::none) {
        return false;
    }
    _record.role = role;
    return true;
}

void Promise::release() {
    const std::lock_guard lock(_mutex);
    _record.role = PromiseRole::none;
    _owner.reset();
}

void Promise::setOwner(const std::shared_ptr<CoordinatorState>& owner) {
    const std::lock_guard lock(_mutex);
    _owner = owner;
}

void Promise::setPath(std::optional<std::string> path) {
    const std::lock_guard lock(_mutex);
    if (!_record.isComplete) {
        _record.path = std::move(path);
    }
}

bool Promise::setFraction(double fraction) {
    const std::lock_guard lock(_mutex);
    _fraction = fraction > 0 ? std::min(fraction, 1.0) : 0; // 0 also for what is not a number
    const bool isFirst = !_hasBegun && !_owner.expired();
    _hasBegun = _hasBegun || isFirst;
    return isFirst;
}

bool Promise::complete() {
    const std::lock_guard lock(_mutex);
    if (_record.isComplete || _isCancelled) {
        return false;
    }
    _record.isComplete = true;
    return true;
}

bool Promise::cancel() {
    const std::lock_guard lock(_mutex);
    return !std::exchange(_isCancelled, true);
}

} // namespace appsync::device
