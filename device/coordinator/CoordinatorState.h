// What the install coordinator knows of one app's install, and of what that waits for.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/InstallCoordinator.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>

namespace appsync::device {

struct CoordinatorState;

/// What guards the states. The compiler wants a name for it, and a state cannot name the lock of its coordinator.
class CAPABILITY("lock") CoordinatorStates {};
inline constexpr CoordinatorStates coordinatorStates;

/// Holds the lock of an install coordinator, and with it the states that belong to that.
class SCOPED_CAPABILITY StatesLock {
  public:
    explicit StatesLock(Mutex& mutex) ACQUIRE(mutex, coordinatorStates) : _mutex(mutex) { mutex.lock(); }
    ~StatesLock() RELEASE() { _mutex.unlock(); }
    StatesLock(const StatesLock&) = delete;
    StatesLock& operator=(const StatesLock&) = delete;

  private:
    Mutex& _mutex;
};

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
using PromisePtr = std::shared_ptr<Promise>;

/// Stands in the database; numbers stay as they are.
enum class CoordinatorKind { initiating = 1, updating = 2, restoring = 3, restoringDemoted = 4 };

[[nodiscard]] constexpr std::string_view nameOf(CoordinatorKind kind) noexcept {
    switch (kind) {
    case CoordinatorKind::initiating: return "initiating";
    case CoordinatorKind::updating: return "updating";
    case CoordinatorKind::restoring: return "restoring";
    case CoordinatorKind::restoringDemoted: return "restoring-demoted";
    }
    return "unknown";
}

[[nodiscard]] constexpr bool isRestoring(CoordinatorKind kind) noexcept {
    return kind == CoordinatorKind::restoring || kind == CoordinatorKind::restoringDemoted;
}

/// Install options in the form in which they are kept: property lists as bytes.
struct InstallOptionsRecord {
    std::uint32_t registryInstallType = 0;
    std::uint32_t installTargetType = 0;
    std::optional<Data> metadata;
    std::optional<Data> sinf;
};

/// What a client says of a placeholder, until it is configured.
struct PlaceholderFacts {
    std::optional<Dictionary> infoPlist;
    bool launchProhibited = false;
    std::optional<std::string> bundleVersion;
    std::optional<Data> metadata;
    std::optional<Data> sinf;
    PromisePtr icon;
    bool isConfigured = false;
};

struct PlaceholderState {
    // Set when it is made.
    std::string bundleName;
    std::string bundleID;
    std::uint64_t installType = 0;

    PlaceholderFacts facts GUARDED_BY(coordinatorStates);
    bool isCancelled GUARDED_BY(coordinatorStates) = false;
    bool isAttached GUARDED_BY(coordinatorStates) = false;
    std::weak_ptr<CoordinatorState> owner GUARDED_BY(coordinatorStates); // that it is attached to
};
using PlaceholderPtr = std::shared_ptr<PlaceholderState>;

/// How far a coordinator's end has come. Stands in the database; numbers stay as they are.
enum class CoordinatorEnd {
    open = 0,
    clearing = 1,  // the outcome is fixed; placeholder and files are being cleared away
    reporting = 2, // everything is cleared away; somebody is to be told of it
};

/// What one row says of a coordinator.
struct CoordinatorFacts {
    std::optional<InstallOptionsRecord> options;
    bool hasODRPromises = false;
    KXClientIdentifier responsibleClient = 0; // that is to satisfy the asset promise; 0: none named
    bool isPlaceholderInstalled = false;
    CoordinatorEnd end = CoordinatorEnd::open;
    ErrorPtr error;                                // the outcome; null: a success
    std::optional<KXClientIdentifier> cancelledBy; // of a cancel

    [[nodiscard]] bool hasOutcome() const noexcept { return end != CoordinatorEnd::open; }
};

struct CoordinatorState {
    // Set when it is made.
    std::int64_t id = 0; // its row
    std::string bundleID;
    CoordinatorKind kind = CoordinatorKind::initiating;
    KXClientIdentifier creator = 0;

    // Durable.
    CoordinatorFacts facts GUARDED_BY(coordinatorStates);
    PromisePtr asset GUARDED_BY(coordinatorStates);
    PromisePtr userData GUARDED_BY(coordinatorStates);
    PlaceholderPtr placeholder GUARDED_BY(coordinatorStates);

    // Of this process.
    enum class Work { none, queued, running };
    Work work GUARDED_BY(coordinatorStates) = Work::none;
    bool hasEnded GUARDED_BY(coordinatorStates) = false; // everything is cleared away
    ErrorPtr cancelReason GUARDED_BY(coordinatorStates); // while a running step is to be stopped
    std::optional<KXClientIdentifier> cancelRequester GUARDED_BY(coordinatorStates); // likewise
    std::stop_source stop;                                                           // of the running install
    std::atomic<KXAppInstallObserverDelegate*> observer = nullptr;
};
using CoordinatorStatePtr = std::shared_ptr<CoordinatorState>;

} // namespace appsync::device
