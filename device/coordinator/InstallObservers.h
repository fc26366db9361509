// The coordinator's observer service: reports to those who follow the coordinators of their clients.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "platform/InstallCoordinator.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace appsync::device {

inline constexpr std::string_view ObserverServiceName = "com.zuvex.qrd.kpc.icappobserverdelegate";
/// Reports that wait for a connection; beyond these the oldest are dropped.
inline constexpr std::size_t MostHeldReports = 4096;

/// Calls go out on one thread of the service, one at a time, in the order of the reports. Any thread.
class InstallObservers final : public KXAppInstallObserverClass {
  public:
    using Call = std::function<void(KXAppInstallObserverDelegate&)>;

    /// Everything that can be delivered and has not been yet is counted in `undelivered`.
    explicit InstallObservers(Group& undelivered) : _undelivered(undelivered) {}
    /// Waits for a running call; undelivered reports are dropped. Connections must have been dropped.
    ~InstallObservers() override;

    /// Null without a delegate, and for the name of another service.
    [[nodiscard]] std::shared_ptr<KXAppInstallObserver>
    initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                const std::set<KXClientIdentifier>& clients,
                                                KXAppInstallObserverDelegate* delegate) noexcept override;

    /// Reports something of a coordinator that `creator` made to the connections for that client and, through them, to
    /// the coordinator's own observer (which may be null). While there is no such connection the report waits for one.
    /// `delivered`, unless empty, runs on the service's thread when somebody has been told.
    void report(KXClientIdentifier creator, KXAppInstallObserverDelegate* observer, Call call,
                std::function<void()> delivered = {});
    /// Runs something else on the service's thread, after the reports made so far.
    void run(std::function<void()> task);
    /// Waits for a running call and drops the rest; nothing is delivered afterwards.
    void stop();

  private:
    class Connection;
    struct Report {
        KXClientIdentifier creator;
        KXAppInstallObserverDelegate* observer;
        Call call;
        std::function<void()> delivered;
    };

    void _disconnect(Connection& connection);
    void _schedule();
    void _deliverReports();
    [[nodiscard]] std::vector<Connection*> _connectionsFor(KXClientIdentifier creator) const;
    void _deliver(const Report& report, const std::vector<Connection*>& connections);

    std::mutex _mutex;
    std::condition_variable _callEnded;
    std::vector<Connection*> _connections;
    std::deque<Report> _fresh;
    std::deque<Report> _held;       // had no connection when their turn came
    Connection* _running = nullptr; // whose delegate is being called
    std::thread::id _deliveryThread;
    Group& _undelivered;
    OperationQueue _thread{1};
};

} // namespace appsync::device
