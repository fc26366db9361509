// Drives one sync: the calls of the plug-in in their order, and the transfers between them.
#pragma once

#include "desktop/SyncList.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"

#include <memory>
#include <set>
#include <string>
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

/// For one sync, whose staging area has been written. One thread.
class SyncSession {
  public:
    SyncSession(const SyncParties& parties, const desktop::SyncList& list);

    /// Ends early, and cleanly, when the process is interrupted.
    [[nodiscard]] SyncReport run();

  private:
    /// An error when the sync cannot go on.
    [[nodiscard]] Result<void> _open();
    [[nodiscard]] std::vector<std::shared_ptr<QRAsset>> _plan();
    void _transferAll(const std::vector<std::shared_ptr<QRAsset>>& assets);
    /// All parts that the device asks for.
    [[nodiscard]] Result<void> _transferRestore(const std::shared_ptr<QRAsset>& asset, const TransferQueue& queue);
    void _arrived(const std::shared_ptr<QRAsset>& asset, std::uint32_t part);
    void _failed(const std::shared_ptr<QRAsset>& asset, const ErrorPtr& error);
    /// An error when the transfer has to end.
    [[nodiscard]] Result<void> _mayGoOn(const QRAsset& asset, const TransferQueue& queue) const;
    [[nodiscard]] Result<void> _transferOne(const std::shared_ptr<QRAsset>& asset, const TransferQueue& queue);
    void _close();
    [[nodiscard]] SyncReport _report() const;
    /// `report` says which app is meant.
    [[nodiscard]] AppReport _reportOfInstall(AppReport report) const;
    [[nodiscard]] bool _isWaiting(std::string_view identifier) const;
    [[nodiscard]] AppReport _reportOfRemoval(const std::string& identifier) const;

    const SyncParties _parties;
    const desktop::SyncList& _list;
    std::set<std::string> _installedBefore;
    std::map<std::string, std::string> _namesBefore;
    std::set<std::string> _requested;
    std::vector<std::shared_ptr<QRAsset>> _restores; // of those, what a restore brings back
    std::map<std::string, ErrorPtr> _transferErrors;
    std::vector<std::string> _deleted;
    bool _allTransferred = true;
};

} // namespace appsync::host
