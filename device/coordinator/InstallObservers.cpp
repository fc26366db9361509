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
    return _thread.start() ? nullptr : makeNoThreadError("the install coordinator's reports");
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
        _fresh.insert(_fresh.begin(), std::make_move_iterator(_held.begin()), std::make_move_iterator(_held.end()));
        _held.clear();
    }
    _schedule();
    return std::make_shared<Connection>(*this, std::move(follower));
}

void InstallObservers::report(KXClientIdentifier creator, KXAppInstallObserverDelegate* observer, Call call,
                              std::function<void()> delivered) {
    {
        const Lock lock(_mutex);
        _fresh.push_back({creator, observer, std::move(call), std::move(delivered)});
    }
    _schedule();
}

void InstallObservers::run(std::function<void()> task) {
    _undelivered.enter();
    const bool accepted = _thread.addOperation([this, task = std::move(task)] {
        task();
        _undelivered.leave();
    });
    if (!accepted) {
        _undelivered.leave();
    }
}

void InstallObservers::stop() {
    _thread.stop();
}

void InstallObservers::_schedule() {
    run([this] {
        while (const auto next = _takeDeliverable()) {
            _deliver(next->first, next->second);
        }
    });
}

void InstallObservers::_disconnect(const std::shared_ptr<Follower>& follower) {
    {
        const Lock lock(_mutex);
        std::erase(_followers, follower);
    }
    follower->gate.close();
}

/// The next report that somebody follows, with those who do. The others are put aside.
std::optional<std::pair<InstallObservers::Report, InstallObservers::Followers>> InstallObservers::_takeDeliverable() {
    const Lock lock(_mutex);
    while (!_fresh.empty()) {
        Report report = std::move(_fresh.front());
        _fresh.pop_front();
        Followers followers;
        std::ranges::copy_if(_followers, std::back_inserter(followers),
                             [&](const auto& follower) { return follower->clients.contains(report.creator); });
        if (!followers.empty()) {
            return std::pair(std::move(report), std::move(followers));
        }
        _held.push_back(std::move(report));
        if (_held.size() > maxHeldReports) {
            _held.pop_front();
        }
    }
    return std::nullopt;
}

/// The coordinator's observer is told once, be it also one of the delegates.
void InstallObservers::_deliver(const Report& report, const Followers& followers) {
    const bool isDelegate =
        std::ranges::any_of(followers, [&](const auto& follower) { return &follower->delegate == report.observer; });
    KXAppInstallObserverDelegate* observer = isDelegate ? nullptr : report.observer;
    bool isDelivered = false;
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
