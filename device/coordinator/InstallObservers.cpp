#include "device/coordinator/InstallObservers.h"

#include "device/root/PosixError.h"

#include <algorithm>
#include <cassert>
#include <iterator>

namespace appsync::device {

class InstallObservers::Connection final : public KXAppInstallObserver {
  public:
    Connection(InstallObservers& service, std::shared_ptr<Follower> follower)
        : _service(service), _follower(std::move(follower)) {}
    ~Connection() override { _service._disconnect(_follower); }

  private:
    InstallObservers& _service;
    const std::shared_ptr<Follower> _follower;
};

InstallObservers::~InstallObservers() {
    stop();
    const Lock lock(_mutex);
    assert(_followers.empty());
}

Result<void> InstallObservers::start() {
    return _threads.start() ? nullptr : makeNoThreadError("the install coordinator's reports");
}

std::shared_ptr<KXAppInstallObserver>
InstallObservers::initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                              const std::set<KXClientIdentifier>& clients,
                                                              KXAppInstallObserverDelegate* delegate) noexcept {
    if (serviceName != observerServiceName || !delegate) {
        return nullptr;
    }
    auto follower = std::make_shared<Follower>(clients, *delegate);
    {
        const Lock lock(_mutex);
        _followers.push_back(follower);
    }
    _schedule();
    return std::make_shared<Connection>(*this, std::move(follower));
}

void InstallObservers::report(std::string app, KXClientIdentifier creator, KXAppInstallObserverDelegate* observer,
                              Call call, std::function<void()> delivered) {
    _add({std::move(app), creator, observer, std::move(call), std::move(delivered)});
}

void InstallObservers::run(std::string app, std::function<void()> task) {
    _add({std::move(app), 0, nullptr, {}, std::move(task)});
}

void InstallObservers::stop() {
    std::deque<Report> dropped; // let go of without the lock, since they hold coordinators
    {
        const Lock lock(_mutex);
        dropped.swap(_reports);
    }
    _threads.stop();
}

void InstallObservers::_add(Report report) {
    {
        const Lock lock(_mutex);
        _reports.push_back(std::move(report));
    }
    _schedule();
}

void InstallObservers::_schedule() {
    _undelivered.enter();
    const bool accepted = _threads.addOperation([this] {
        _deliverAll();
        _undelivered.leave();
    });
    if (!accepted) {
        _undelivered.leave();
    }
}

/// Whoever has made a call goes on with what waited for it.
void InstallObservers::_deliverAll() {
    while (const auto next = _takeDeliverable()) {
        _deliver(next->first, next->second);
        const Lock lock(_mutex);
        _appsInCalls.erase(next->first.app);
    }
}

void InstallObservers::_disconnect(const std::shared_ptr<Follower>& follower) {
    {
        const Lock lock(_mutex);
        std::erase(_followers, follower);
    }
    follower->gate.close();
}

/// The next report that somebody follows, with those who do, unless a call about its app runs.
std::optional<std::pair<InstallObservers::Report, InstallObservers::Followers>> InstallObservers::_takeDeliverable() {
    const Lock lock(_mutex);
    for (auto report = _reports.begin(); report != _reports.end(); ++report) {
        if (_appsInCalls.contains(report->app)) {
            continue;
        }
        Followers followers;
        std::ranges::copy_if(_followers, std::back_inserter(followers),
                             [&](const auto& follower) { return follower->clients.contains(report->creator); });
        if (!followers.empty() || !report->call) {
            _appsInCalls.insert(report->app);
            std::pair deliverable(std::move(*report), std::move(followers));
            _reports.erase(report);
            return deliverable;
        }
    }
    if (_reports.size() > maxHeldReports) {
        _reports.erase(_reports.begin(), _reports.end() - maxHeldReports);
    }
    return std::nullopt;
}

/// The coordinator's observer is told once, be it also one of the delegates.
void InstallObservers::_deliver(const Report& report, const Followers& followers) {
    const bool isDelegate =
        std::ranges::any_of(followers, [&](const auto& follower) { return &follower->delegate == report.observer; });
    KXAppInstallObserverDelegate* observer = isDelegate ? nullptr : report.observer;
    bool isDelivered = !report.call;
    for (const auto& follower : followers) {
        isDelivered |= follower->gate.pass([&] {
            report.call(follower->delegate);
            if (observer) {
                report.call(*std::exchange(observer, nullptr));
            }
        });
    }
    if (isDelivered && report.delivered) {
        report.delivered();
    }
}

} // namespace appsync::device
