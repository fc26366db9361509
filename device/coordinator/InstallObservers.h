// The coordinator's observer service: reports to those who follow the coordinators of their clients.
#pragma once

#include "concurrency/CallGate.h"
#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "platform/InstallCoordinator.h"
#include "values/Result.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync::device {

/// Reports that wait for a connection; beyond these the oldest are dropped.
inline constexpr std::size_t maxHeldReports = 4096;

/// How many calls go out at the same time: those that end together share the writing of what they change.
inline constexpr std::size_t maxCallsAtOnce = 16;

/// Calls go out on threads of the service: those about one app one at a time, in the order of its reports. Any thread.
class InstallObservers final : public KXAppInstallObserverClass {
  public:
    using Call = std::function<void(KXAppInstallObserverDelegate&)>;

    /// Everything that can be delivered and has not been yet is counted in `undelivered`.
    explicit InstallObservers(Group& undelivered) : _undelivered(undelivered) {}
    /// Waits for running calls; undelivered reports are dropped. Connections must have been dropped.
    ~InstallObservers() override;
    /// To be called first. Fails when the system has no thread for it.
    [[nodiscard]] Result<void> start();

    /// Null without a delegate, and for the name of another service.
    [[nodiscard]] std::shared_ptr<KXAppInstallObserver>
    initWithMachServiceName_forClients_delegate(std::string_view serviceName,
                                                const std::set<KXClientIdentifier>& clients,
                                                KXAppInstallObserverDelegate* delegate) noexcept override;

    /// Reports something of an app's coordinator that `creator` made to the connections for that client and, through
    /// them, to the coordinator's own observer (which may be null). While there is no such connection the report waits
    /// for one. `delivered`, unless empty, runs on the same thread when somebody has been told.
    void report(std::string app, KXClientIdentifier creator, KXAppInstallObserverDelegate* observer, Call call,
                std::function<void()> delivered = {});
    /// Runs something else, after the reports about the app made so far.
    void run(std::string app, std::function<void()> task);
    /// Waits for running calls and drops the rest; no report is delivered afterwards.
    void stop();

  private:
    class Connection;
    /// What is there of a connection to deliver to.
    struct Follower {
        Follower(const std::set<KXClientIdentifier>& ofClients, KXAppInstallObserverDelegate& toTell)
            : clients(ofClients), delegate(toTell) {}
        const std::set<KXClientIdentifier> clients;
        KXAppInstallObserverDelegate& delegate;
        CallGate gate;
    };
    using Followers = std::vector<std::shared_ptr<Follower>>;
    struct Report {
        std::string app;
        KXClientIdentifier creator;
        KXAppInstallObserverDelegate* observer;
        Call call; // empty: there is nobody to tell
        std::function<void()> delivered;
    };

    void _disconnect(const std::shared_ptr<Follower>& follower) EXCLUDES(_mutex);
    void _add(Report report) EXCLUDES(_mutex);
    void _schedule();
    void _deliverAll() EXCLUDES(_mutex);
    [[nodiscard]] std::optional<std::pair<Report, Followers>> _takeDeliverable() EXCLUDES(_mutex);
    static void _deliver(const Report& report, const Followers& followers);

    Mutex _mutex;
    Followers _followers GUARDED_BY(_mutex);
    std::deque<Report> _reports GUARDED_BY(_mutex); // also those that nobody follows so far
    std::set<std::string, std::less<>> _appsInCalls GUARDED_BY(_mutex);
    Group& _undelivered;
    OperationQueue _threads{maxCallsAtOnce};
};

} // namespace appsync::device
