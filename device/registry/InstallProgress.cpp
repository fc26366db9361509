#include "device/registry/InstallProgress.h"

#include <algorithm>

namespace appsync::device {

template <class Field, class New> void InstallProgress::_set(Field& field, New value) noexcept {
    {
        const std::lock_guard lock(_mutex);
        if (field == value) {
            return;
        }
        field = value;
    }
    _changed();
}

std::uint64_t InstallProgress::installState() noexcept {
    const std::lock_guard lock(_mutex);
    return _state;
}

void InstallProgress::setInstallState(std::uint64_t state) noexcept {
    _set(_state, state);
}

std::uint64_t InstallProgress::installPhase() noexcept {
    const std::lock_guard lock(_mutex);
    return _phase;
}

void InstallProgress::setInstallPhase(std::uint64_t phase) noexcept {
    _set(_phase, phase);
}

std::int64_t InstallProgress::totalUnitCount() noexcept {
    const std::lock_guard lock(_mutex);
    return _total;
}

void InstallProgress::setTotalUnitCount(std::int64_t units) noexcept {
    _set(_total, units);
}

void InstallProgress::setCompletedUnitCount(std::int64_t units) noexcept {
    _set(_completed, units);
}

void InstallProgress::cancel() noexcept {
    std::optional<std::stop_source> cancellation;
    {
        const std::lock_guard lock(_mutex);
        _state = PDInstallStateCanceled;
        cancellation = _cancellation;
    }
    if (cancellation) {
        cancellation->request_stop();
    }
    _changed();
}

std::string InstallProgress::description() noexcept {
    const std::lock_guard lock(_mutex);
    return "<progress of " + _identifier + ": state " + std::to_string(_state) + ", phase " + std::to_string(_phase) +
           ", " + std::to_string(_completed) + " of " + std::to_string(_total) + ">";
}

double InstallProgress::fraction() noexcept {
    const std::lock_guard lock(_mutex);
    return _total > 0 ? std::clamp(static_cast<double>(_completed) / static_cast<double>(_total), 0.0, 1.0) : 0.0;
}

bool InstallProgress::isUnderWay() noexcept {
    const std::lock_guard lock(_mutex);
    return _state == PDInstallStateWaiting || _state == PDInstallStateActive;
}

void InstallProgress::begin(std::uint64_t phase, const std::stop_source& cancellation) noexcept {
    {
        const std::lock_guard lock(_mutex);
        _cancellation = cancellation;
        _phase = phase;
        _state = PDInstallStateActive;
        _completed = 0;
    }
    _changed();
}

void InstallProgress::detach() noexcept {
    const std::lock_guard lock(_mutex);
    _cancellation.reset();
}

} // namespace appsync::device
