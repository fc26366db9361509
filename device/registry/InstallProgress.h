// The progress object of one app's install.
#pragma once

#include "platform/ApplicationRegistry.h"

#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>

namespace appsync::device {

/// Any thread.
class InstallProgress final : public FNProgress {
  public:
    /// `changed` is called after each change, without a lock held; it must not fail and not wait.
    InstallProgress(std::string identifier, std::uint64_t phase, std::function<void()> changed)
        : _identifier(std::move(identifier)), _changed(std::move(changed)), _phase(phase) {}

    [[nodiscard]] std::uint64_t installState() noexcept override;
    void setInstallState(std::uint64_t state) noexcept override;
    [[nodiscard]] std::uint64_t installPhase() noexcept override;
    void setInstallPhase(std::uint64_t phase) noexcept override;
    [[nodiscard]] std::int64_t totalUnitCount() noexcept override;
    void setTotalUnitCount(std::int64_t units) noexcept override;
    void setCompletedUnitCount(std::int64_t units) noexcept override;
    void cancel() noexcept override;
    [[nodiscard]] std::string description() noexcept override;

    [[nodiscard]] const std::string& identifier() const noexcept { return _identifier; }
    /// Completed units by total units, between 0 and 1; 0 while the total is not known.
    [[nodiscard]] double fraction() noexcept;
    /// Waiting or active.
    [[nodiscard]] bool isUnderWay() noexcept;
    /// Enters a phase, active and with nothing completed; `cancellation` is what `cancel` stops until `detach`.
    void begin(std::uint64_t phase, const std::stop_source& cancellation) noexcept;
    void detach() noexcept;

  private:
    template <class Field, class New> void _set(Field& field, New value) noexcept;

    const std::string _identifier;
    const std::function<void()> _changed;
    std::mutex _mutex; // guards the rest
    std::uint64_t _state = PDInstallStateWaiting;
    std::uint64_t _phase;
    std::int64_t _total = 0;
    std::int64_t _completed = 0;
    std::optional<std::stop_source> _cancellation;
};

} // namespace appsync::device
