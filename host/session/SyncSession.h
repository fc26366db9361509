// Drives one sync: the calls of the plug-in in their order, and the transfers between them.
#pragma once

#include "host/session/SyncPlan.h"
#include "host/view/SyncView.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {
class QRClient;
class QRAsset;
} // namespace appsync

namespace appsync::device {
class Device;
}

namespace appsync::host {

class Bandwidth;
class DeviceService;
class InstallOutcomes;
class TransferQueue;

/// What a session works with; all of it must outlive the session.
struct SyncParties {
    device::Device& device;
    QRClient& client;
    DeviceService& deviceService;
    InstallOutcomes& outcomes;
    SyncView& view;
    Bandwidth* bandwidth; // null: as fast as it goes
};

/// For one sync, whose staging area has been written; the plan must outlive it. One thread,
/// but for arrivals, which are told on others.
class SyncSession {
  public:
    SyncSession(const SyncParties& parties, const SyncPlan& plan) : _parties(parties), _plan(plan), _list(plan.list) {}

    /// Ends early, and cleanly, when the process is interrupted.
    [[nodiscard]] SyncReport run();

  private:
    /// An error when the sync cannot go on.
    [[nodiscard]] Result<void> _open();
    [[nodiscard]] std::vector<std::shared_ptr<QRAsset>> _assetsToSend();
    void _transferAll(const std::vector<std::shared_ptr<QRAsset>>& assets);
    /// All parts that the device asks for.
    [[nodiscard]] Result<void> _transferRestore(const std::shared_ptr<QRAsset>& asset, const TransferQueue& queue);
    void _noteArrival(QRAsset& asset, std::uint32_t part);
    void _tellArrival(const std::shared_ptr<QRAsset>& asset);
    void _failed(const std::shared_ptr<QRAsset>& asset, const ErrorPtr& error);
    /// An error when the transfer has to end.
    [[nodiscard]] Result<void> _mayGoOn(const QRAsset& asset, const TransferQueue& queue) const;
    [[nodiscard]] Result<void> _transferOne(const std::shared_ptr<QRAsset>& asset, const TransferQueue& queue);
    void _close();
    [[nodiscard]] SyncReport _report() const;
    // Each is given what was planned.
    [[nodiscard]] AppReport _reportOf(AppReport report) const;
    [[nodiscard]] AppReport _reportOfInstall(AppReport report) const;
    [[nodiscard]] AppReport _reportOfRemoval(AppReport report) const;
    [[nodiscard]] bool _isInUse(std::string_view identifier) const;

    const SyncParties _parties;
    const SyncPlan& _plan;
    const desktop::SyncList& _list;                               // of the plan
    std::map<std::string, const desktop::AppArchive*> _requested; // by identifier
    std::map<std::string, ErrorPtr> _transferErrors;
    std::vector<std::string> _deleted;
    bool _allTransferred = true;
};

} // namespace appsync::host
