// What the page of `qrd watch` shows of a device: its home screen, the sync that runs on it, its log.
//
// It is looked at without its lock and changes nothing. Nothing is looked at again before the system or the sync has
// reported that it has changed, and then only so often that it costs next to nothing.
#pragma once

#include "device/log/LogFile.h"
#include "device/processes/ProcessTable.h"
#include "device/registry/Registry.h"
#include "device/root/Root.h"
#include "device/screen/IconLayout.h"
#include "host/control/RunningSync.h"
#include "host/transfer/TransferRate.h"
#include "host/view/SyncStatus.h"
#include "host/watch/DeviceChanges.h"
#include "host/watch/IconShelf.h"

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync::host {

/// Processor time that this thread has used so far: what work costs, however much else the machine has to do.
[[nodiscard]] std::chrono::nanoseconds usedTime();

/// One thread, but for the icons.
class WatchedDevice {
  public:
    using Clock = std::chrono::steady_clock;

    /// A folder that is no device is an error, and one of which the system reports no changes.
    [[nodiscard]] static Result<std::unique_ptr<WatchedDevice>> open(const std::string& folder);

    /// Looks at what has changed. An error when the device is gone, or its changes are no longer reported.
    [[nodiscard]] Result<void> update(Clock::time_point now);
    /// To be waited for before the next update: any of these becomes readable, or that time comes.
    [[nodiscard]] int changes() const noexcept { return _changes.descriptor(); }
    [[nodiscard]] int sync() const noexcept { return _sync ? _sync->descriptor() : -1; }
    [[nodiscard]] Clock::time_point nextUpdate() const;

    /// What has changed since the last call, as events of a stream.
    [[nodiscard]] std::string takeNews();
    /// The same for one who has been told nothing, at the moment of the last `takeNews`.
    [[nodiscard]] std::string everything() const;

    [[nodiscard]] IconShelf& icons() noexcept { return _icons; }

  private:
    WatchedDevice(std::string folder, std::unique_ptr<device::Root> root);
    [[nodiscard]] Result<void> _look(Clock::time_point now);
    void _passOver(const std::string& problem);
    void _findRunning(Clock::time_point now);
    void _findSync(Clock::time_point now);
    void _hearSync(Clock::time_point now);
    void _endSync();
    void _readLog();
    [[nodiscard]] std::map<std::string, std::string> _describeApps() const;
    [[nodiscard]] std::string _describeSync() const;
    [[nodiscard]] std::string _describeScreen(const std::map<std::string, std::string>* apps) const;

    const std::string _folder;
    const std::unique_ptr<device::Root> _root;
    DeviceChanges _changes;
    IconShelf _icons;
    std::string _problem; // that was told last

    std::vector<device::Application> _apps; // without their progress
    device::IconLayout _layout;
    bool _isToLook = true;
    Clock::time_point _nextLook = {};

    device::ProcessTable _processes;
    std::set<std::string> _running;
    Clock::time_point _nextFind = {};

    std::optional<device::DeviceOwner> _owner;
    std::optional<RunningSync> _sync;
    bool _isSyncing = false; // it has told something
    std::string _purpose;    // of the last one, such as "a sync" or "a restore"; empty: none was there
    SyncStatus _status;      // of the last sync, too
    TransferRate _rate;
    Clock::time_point _nextAsk = {}; // for a sync

    device::LogCursor _log;
    std::deque<std::string> _lines; // the last ones, as JSON
    std::size_t _newLines = 0;      // of them

    // As they were told:
    std::map<std::string, std::string> _toldApps;
    std::string _toldPlaces;
    std::string _toldSync;
};

} // namespace appsync::host
