// The installs under way: their progress objects and their order, and that one operation at a time changes an app.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/ApplicationRegistry.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// The progress object of one app's install. Any thread.
class InstallProgress final : public FNProgress {
  public:
    /// `changed` is called after each change, without a lock held; it must not fail and not wait.
    InstallProgress(std::string identifier, std::uint64_t phase, std::function<void()> changed)
        : _identifier(std::move(identifier)), _changed(std::move(changed)), _present{.phase = phase} {}

    [[nodiscard]] std::uint64_t installState() noexcept override { return _read().state; }
    void setInstallState(std::uint64_t state) noexcept override { _set(&Present::state, state); }
    [[nodiscard]] std::uint64_t installPhase() noexcept override { return _read().phase; }
    void setInstallPhase(std::uint64_t phase) noexcept override { _set(&Present::phase, phase); }
    [[nodiscard]] std::int64_t totalUnitCount() noexcept override { return _read().total; }
    void setTotalUnitCount(std::int64_t units) noexcept override { _set(&Present::total, units); }
    void setCompletedUnitCount(std::int64_t units) noexcept override { _set(&Present::completed, units); }
    void cancel() noexcept override;
    [[nodiscard]] std::string description() noexcept override;

    [[nodiscard]] const std::string& identifier() const noexcept { return _identifier; }
    /// Completed units by total units, between 0 and 1; 0 while the total is not known.
    [[nodiscard]] double fraction() noexcept;
    /// Enters a phase, active and with nothing completed; `cancellation` is what `cancel` stops until `end`.
    void begin(std::uint64_t phase, const std::stop_source& cancellation) noexcept;
    void end(std::uint64_t finalState) noexcept;

  private:
    struct Present {
        std::uint64_t state = PDInstallStateWaiting;
        std::uint64_t phase = 0;
        std::int64_t total = 0;
        std::int64_t completed = 0;
    };
    [[nodiscard]] Present _read() noexcept EXCLUDES(_mutex);
    template <class T> void _set(T Present::*field, T value) noexcept EXCLUDES(_mutex) {
        {
            const Lock lock(_mutex);
            if (_present.*field == value) {
                return;
            }
            _present.*field = value;
        }
        _changed();
    }

    const std::string _identifier;
    const std::function<void()> _changed;
    Mutex _mutex;
    Present _present GUARDED_BY(_mutex);
    std::optional<std::stop_source> _cancellation GUARDED_BY(_mutex);
};
using InstallProgressPtr = std::shared_ptr<InstallProgress>;

/// Any thread; each operation is atomic.
class Installs {
  public:
    /// `changed` is called after each change of a progress object.
    explicit Installs(std::function<void()> changed) : _changed(std::move(changed)) {}

    /// May be null.
    [[nodiscard]] InstallProgressPtr find(std::string_view identifier) const;
    /// The app's progress object; made in this phase when there is none yet.
    [[nodiscard]] InstallProgressPtr findOrMake(std::string_view identifier, std::uint64_t phase);
    /// Forgets a progress object, if it is still the app's.
    void end(const InstallProgress& progress);
    void prioritize(std::string_view identifier);
    /// All installs, those with priority first, then in the order of their beginning.
    [[nodiscard]] std::vector<InstallProgressPtr> inOrder() const;

  private:
    struct Install {
        InstallProgressPtr progress;
        std::int64_t priority = 0; // the higher, the earlier
        std::int64_t beginning = 0;
    };
    const std::function<void()> _changed;
    mutable Mutex _mutex;
    std::map<std::string, Install, std::less<>> _installs GUARDED_BY(_mutex);
    std::int64_t _lastNumber GUARDED_BY(_mutex) = 0;
};

/// Lets one operation at a time change an app; operations on different apps run side by side.
class AppLocks {
  public:
    class Held {
      public:
        Held(AppLocks& locks, std::string_view identifier);
        ~Held();
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;

      private:
        AppLocks& _locks;
        const std::string _identifier;
    };

  private:
    Mutex _mutex;
    Condition _released;
    std::set<std::string> _held GUARDED_BY(_mutex);
};

} // namespace appsync::device
