#include "device/coordinator/InstallObservers.h"

#include <algorithm>
#include <iterator>

namespace appsync::device {

class InstallObservers::Connection final : public KXAppInstallObserver {
  public:
    Connection(InstallObservers& service, std::set<KXClientIdentifier> clients, KXAppInstallObserverDelegate* delegate)
        : _service(service), _clients(std::move(clients)), _delegate(delegate) {}
    ~Connection() override { _service._disconnect(*this); }

    [[nodiscard]] bool follows(KXClientIdentifier client) const { return _clients.contains(client); }
    [[nodiscard]] KXAppInstallObserverDelegate& delegate() const noexcept { return *_delegate; }

  private:
    InstallObservers& _service;
    const std::set<KXClientIdentifier> _clients;
    KXAppInstallObserverDelegate* const _delegate;
};

InstallObservers::~InstallObservers() {
    stop();
}

std::shared_ptr<KXAppInstallObserver>
InstallObservers::initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                              const std::set<KXClientIdentifier>& clients,
                                                              KXAppInstallObserverDelegate* delegate) noexcept {
    if (serviceName != ObserverServiceName || !delegate) {
        return nullptr;
    }
    auto connection = std::make_shared<Connection>(*this, clients, delegate);
    {
        const std::lock_guard lock(_mutex);
        _connections.push_back(connection.get());
        std::move(_fresh.begin(), _fresh.end(), std::back_inserter(_held));
        _fresh.swap(_held);
        _held.clear();
    }
    _schedule();
    return connection;
}

void InstallObservers::report(KXClientIdentifier creator, KXAppInstallObserverDelegate* observer, Call call,
                              std::function<void()> delivered) {
    {
        const std::lock_guard lock(_mutex);
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
    run([this] { _deliverReports(); });
}

void InstallObservers::_disconnect(Connection& connection) {
    std::unique_lock lock(_mutex);
    std::erase(_connections, &connection);
    if (_deliveryThread != std::this_thread::get_id()) {
        _callEnded.wait(lock, [&] { return _running != &connection; });
    }
}

void InstallObservers::_deliverReports() {
    std::unique_lock lock(_mutex);
    while (!_fresh.empty()) {
        Report report = std::move(_fresh.front());
        _fresh.pop_front();
        const auto connections = _connectionsFor(report.creator);
        if (connections.empty()) {
            _held.push_back(std::move(report));
            if (_held.size() > MostHeldReports) {
                _held.pop_front();
            }
            continue;
        }
        const bool isObserverADelegate =
            std::any_of(connections.begin(), connections.end(),
                        [&](const Connection* connection) { return &connection->delegate() == report.observer; });
        if (isObserverADelegate) {
            report.observer = nullptr; // told once, as the delegate that it is
        }
        lock.unlock();
        _deliver(report, connections);
        report = {}; // what it holds is released without the lock
        lock.lock();
    }
}

std::vector<InstallObservers::Connection*> InstallObservers::_connectionsFor(KXClientIdentifier creator) const {
    std::vector<Connection*> connections;
    std::copy_if(_connections.begin(), _connections.end(), std::back_inserter(connections),
                 [&](const Connection* connection) { return connection->follows(creator); });
    return connections;
}

void InstallObservers::_deliver(const Report& report, const std::vector<Connection*>& connections) {
    bool isObserverTold = report.observer == nullptr;
    bool isDelivered = false;
    for (Connection* connection : connections) {
        KXAppInstallObserverDelegate* delegate = nullptr;
        {
            // Another delegate's call may have taken long: a connection is looked at only while it is known.
            const std::lock_guard lock(_mutex);
            if (std::find(_connections.begin(), _connections.end(), connection) == _connections.end()) {
                continue;
            }
            delegate = &connection->delegate();
            _running = connection;
            _deliveryThread = std::this_thread::get_id();
        }
        report.call(*delegate);
        isDelivered = true;
        if (!isObserverTold) {
            report.call(*report.observer);
            isObserverTold = true;
        }
        const std::lock_guard lock(_mutex);
        _running = nullptr;
        _deliveryThread = {};
        _callEnded.notify_all();
    }
    if (isDelivered && report.delivered) {
        report.delivered();
    }
}

} // namespace appsync::device
