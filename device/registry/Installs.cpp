#include "device/registry/Installs.h"

#include <algorithm>

namespace appsync::device {

InstallProgress::Present InstallProgress::_read() noexcept {
    const Lock lock(_mutex);
    return _present;
}

void InstallProgress::cancel() noexcept {
    std::optional<std::stop_source> cancellation;
    {
        const Lock lock(_mutex);
        _present.state = PDInstallStateCanceled;
        cancellation = _cancellation;
    }
    if (cancellation) {
        cancellation->request_stop();
    }
    _changed();
}

std::string InstallProgress::description() noexcept {
    const Present now = _read();
    return "<progress of " + _identifier + ": state " + std::to_string(now.state) + ", phase " +
           std::to_string(now.phase) + ", " + std::to_string(now.completed) + " of " + std::to_string(now.total) + ">";
}

double InstallProgress::fraction() noexcept {
    const Present now = _read();
    return now.total > 0 ? std::clamp(static_cast<double>(now.completed) / static_cast<double>(now.total), 0.0, 1.0)
                         : 0.0;
}

void InstallProgress::begin(std::uint64_t phase, const std::stop_source& cancellation) noexcept {
    {
        const Lock lock(_mutex);
        _cancellation = cancellation;
        _present.phase = phase;
        _present.state = PDInstallStateActive;
        _present.completed = 0;
    }
    _changed();
}

void InstallProgress::end(std::uint64_t finalState) noexcept {
    {
        const Lock lock(_mutex);
        _cancellation.reset();
    }
    setInstallState(finalState);
}

InstallProgressPtr Installs::find(std::string_view identifier) const {
    const Lock lock(_mutex);
    const auto install = _installs.find(identifier);
    return install == _installs.end() ? nullptr : install->second.progress;
}

InstallProgressPtr Installs::findOrMake(std::string_view identifier, std::uint64_t phase) {
    const Lock lock(_mutex);
    Install& install = _installs[std::string(identifier)];
    if (!install.progress) {
        install.progress = std::make_shared<InstallProgress>(std::string(identifier), phase, _changed);
        install.beginning = ++_lastNumber;
    }
    return install.progress;
}

void Installs::end(const InstallProgress& progress) {
    const Lock lock(_mutex);
    const auto install = _installs.find(progress.identifier());
    if (install != _installs.end() && install->second.progress.get() == &progress) {
        _installs.erase(install);
    }
}

void Installs::prioritize(std::string_view identifier) {
    const Lock lock(_mutex);
    if (const auto install = _installs.find(identifier); install != _installs.end()) {
        install->second.priority = ++_lastNumber;
    }
}

std::vector<InstallProgressPtr> Installs::inOrder() const {
    std::map<std::pair<std::int64_t, std::int64_t>, InstallProgressPtr> ordered;
    {
        const Lock lock(_mutex);
        for (const auto& [identifier, install] : _installs) {
            ordered.emplace(std::pair(-install.priority, install.beginning), install.progress);
        }
    }
    std::vector<InstallProgressPtr> installs;
    installs.reserve(ordered.size());
    for (const auto& [order, progress] : ordered) {
        installs.push_back(progress);
    }
    return installs;
}

AppLocks::Held::Held(AppLocks& locks, std::string_view identifier) : _locks(locks), _identifier(identifier) {
    const Lock lock(_locks._mutex);
    while (!_locks._held.insert(_identifier).second) {
        _locks._released.wait(_locks._mutex);
    }
}

AppLocks::Held::~Held() {
    const Lock lock(_locks._mutex);
    _locks._held.erase(_identifier);
    _locks._released.notifyAll();
}

} // namespace appsync::device
