// A promise: what an install waits for, such as a file that is being transferred.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/InstallCoordinator.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace appsync::device {

struct CoordinatorState;
class Promise;
using PromisePtr = std::shared_ptr<Promise>;

/// What a promise is for. Stands in the database; numbers stay as they are.
enum class PromiseRole { none = 0, appAsset = 1, icon = 2, userData = 3 };

/// What stands in the database once the promise belongs to a coordinator.
struct PromiseRecord {
    std::uint64_t id = 0;
    std::string name;
    KXClientIdentifier client = 0;
    std::uint64_t diskSpaceNeeded = 0; // bytes
    std::optional<std::string> path;
    bool isComplete = false;
    PromiseRole role = PromiseRole::none;
};

/// Any thread. It locks by itself, so that progress does not wait for anything else.
class Promise {
  public:
    explicit Promise(PromiseRecord record) : _record(std::move(record)) {}

    [[nodiscard]] PromiseRecord record() const {
        const Lock lock(_mutex);
        return _record;
    }
    [[nodiscard]] std::string name() const { return record().name; }
    [[nodiscard]] bool isComplete() const { return record().isComplete; }
    [[nodiscard]] bool isCancelled() const {
        const Lock lock(_mutex);
        return _isCancelled;
    }
    [[nodiscard]] double fraction() const {
        const Lock lock(_mutex);
        return _record.isComplete ? 1 : _fraction;
    }
    /// The coordinator it belongs to; null before it is attached and after the coordinator has gone.
    [[nodiscard]] std::shared_ptr<CoordinatorState> owner() const {
        const Lock lock(_mutex);
        return _owner.lock();
    }

    /// Takes it for a role; false when it has one already or was cancelled.
    [[nodiscard]] bool take(PromiseRole role) {
        const Lock lock(_mutex);
        const bool isFree = !_isCancelled && _record.role == PromiseRole::none;
        _record.role = isFree ? role : _record.role;
        return isFree;
    }
    /// Undoes `take`.
    void release() {
        const Lock lock(_mutex);
        _record.role = PromiseRole::none;
        _owner.reset();
    }
    void setOwner(const std::shared_ptr<CoordinatorState>& owner) {
        const Lock lock(_mutex);
        _owner = owner;
    }
    /// A complete promise keeps its path.
    void setPath(std::optional<std::string> path) {
        const Lock lock(_mutex);
        if (!_record.isComplete) {
            _record.path = std::move(path);
        }
    }
    /// Brings the fraction, 0 to 1, up to date; true for the first progress of an attached promise.
    [[nodiscard]] bool setFraction(double fraction) {
        const Lock lock(_mutex);
        _fraction = fraction > 0 ? std::min(fraction, 1.0) : 0; // 0 also for what is not a number
        return !_owner.expired() && !std::exchange(_hasBegun, true);
    }
    /// A complete promise stays complete. True when this call completed it.
    [[nodiscard]] bool complete() {
        const Lock lock(_mutex);
        return !_isCancelled && !std::exchange(_record.isComplete, true);
    }
    /// True when this call cancelled it.
    [[nodiscard]] bool cancel() {
        const Lock lock(_mutex);
        return !std::exchange(_isCancelled, true);
    }

  private:
    mutable Mutex _mutex;
    PromiseRecord _record GUARDED_BY(_mutex);
    std::weak_ptr<CoordinatorState> _owner GUARDED_BY(_mutex);
    double _fraction GUARDED_BY(_mutex) = 0;
    bool _hasBegun GUARDED_BY(_mutex) = false;
    bool _isCancelled GUARDED_BY(_mutex) = false;
};

} // namespace appsync::device
