// A promise: what an install waits for, such as a file that is being transferred.
#pragma once

#include "platform/InstallCoordinator.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

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

    [[nodiscard]] std::uint64_t identifier() const noexcept { return _record.id; }
    [[nodiscard]] const std::string& name() const noexcept { return _record.name; }
    [[nodiscard]] PromiseRecord record() const;
    [[nodiscard]] PromiseRole role() const;
    [[nodiscard]] bool isComplete() const;
    [[nodiscard]] bool isCancelled() const;
    [[nodiscard]] double fraction() const;
    /// The coordinator it belongs to; null before it is attached and after the coordinator has gone.
    [[nodiscard]] std::shared_ptr<CoordinatorState> owner() const;

    /// Takes it for a role; false when it has one already or was cancelled.
    [[nodiscard]] bool take(PromiseRole role);
    /// Undoes `take`.
    void release();
    void setOwner(const std::shared_ptr<CoordinatorState>& owner);

    /// A complete promise keeps its path.
    void setPath(std::optional<std::string> path);
    /// Brings the fraction, 0 to 1, up to date; true for the first progress of an attached promise.
    [[nodiscard]] bool setFraction(double fraction);
    /// A complete promise stays complete. True when this call completed it.
    [[nodiscard]] bool complete();
    /// True when this call cancelled it.
    [[nodiscard]] bool cancel();

  private:
    mutable std::mutex _mutex;
    PromiseRecord _record;
    std::weak_ptr<CoordinatorState> _owner;
    double _fraction = 0;
    bool _hasBegun = false;
    bool _isCancelled = false;
};

} // namespace appsync::device
