#include "device/registry/RegistryTable.h"

#include <algorithm>
#include <tuple>

namespace appsync::device {

std::optional<RegistryTable::App> RegistryTable::find(std::string_view identifier) const {
    const std::lock_guard lock(_mutex);
    const auto known = _arrivals.find(identifier);
    return known == _arrivals.end() ? std::nullopt : std::optional(_apps.at(known->second));
}

std::vector<RegistryTable::App> RegistryTable::all() const {
    const std::lock_guard lock(_mutex);
    std::vector<App> apps;
    apps.reserve(_apps.size());
    for (const auto& [arrival, app] : _apps) {
        apps.push_back(app);
    }
    return apps;
}

std::int64_t RegistryTable::takeArrival() {
    const std::lock_guard lock(_mutex);
    return _nextArrival++;
}

void RegistryTable::put(const RegistryRecordPtr& record, std::int64_t arrival) {
    const std::lock_guard lock(_mutex);
    _put(record, arrival);
}

void RegistryTable::install(const RegistryRecordPtr& record, std::int64_t arrival) {
    const std::lock_guard lock(_mutex);
    _put(record, arrival).placeholder = nullptr;
}

RegistryTable::App& RegistryTable::_put(const RegistryRecordPtr& record, std::int64_t arrival) {
    const auto place = _arrivals.try_emplace(record->identifier, arrival).first;
    App& app = _apps[place->second];
    app.arrival = place->second;
    (record->isPlaceholder ? app.placeholder : app.installed) = record;
    _nextArrival = std::max(_nextArrival, place->second + 1);
    return app;
}

void RegistryTable::remove(std::string_view identifier, bool placeholder) {
    const std::lock_guard lock(_mutex);
    const auto known = _arrivals.find(identifier);
    if (known == _arrivals.end()) {
        return;
    }
    App& app = _apps.at(known->second);
    (placeholder ? app.placeholder : app.installed) = nullptr;
    if (!app.installed && !app.placeholder) {
        _apps.erase(known->second);
        _arrivals.erase(known);
    }
}

std::shared_ptr<InstallProgress> RegistryTable::findProgress(std::string_view identifier) const {
    const std::lock_guard lock(_mutex);
    const auto install = _installs.find(identifier);
    return install == _installs.end() ? nullptr : install->second.progress;
}

std::shared_ptr<InstallProgress>
RegistryTable::progress(std::string_view identifier, const std::function<std::shared_ptr<InstallProgress>()>& make) {
    const std::lock_guard lock(_mutex);
    const auto known = _installs.find(identifier);
    if (known != _installs.end()) {
        return known->second.progress;
    }
    auto progress = make();
    _installs.emplace(identifier, Install{progress, ++_lastInstall, 0});
    return progress;
}

void RegistryTable::endProgress(const InstallProgress& progress) {
    const std::lock_guard lock(_mutex);
    const auto install = _installs.find(progress.identifier());
    if (install != _installs.end() && install->second.progress.get() == &progress) {
        _installs.erase(install);
    }
}

void RegistryTable::prioritize(std::string_view identifier) {
    const std::lock_guard lock(_mutex);
    const auto install = _installs.find(identifier);
    if (install != _installs.end()) {
        install->second.priority = ++_lastInstall;
    }
}

std::vector<RegistryTable::Install> RegistryTable::installs() const {
    std::vector<Install> installs;
    {
        const std::lock_guard lock(_mutex);
        installs.reserve(_installs.size());
        for (const auto& [identifier, install] : _installs) {
            installs.push_back(install);
        }
    }
    std::ranges::sort(installs, [](const Install& a, const Install& b) {
        return std::tuple(-a.priority, a.arrival) < std::tuple(-b.priority, b.arrival);
    });
    return installs;
}

} // namespace appsync::device
