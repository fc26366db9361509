// Asks the application registry which apps it is installing and which it is restoring. The registry tells that only to
// an observer, so the query is one: it registers, waits for the first report, sorts it, and unregisters.
#pragma once

#include "concurrency/Semaphore.h"
#include "platform/ApplicationRegistry.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace appsync {

class PlugInLog;

class InProgressAssetQuery final : public PDApplicationWorkspaceObserver {
  public:
    /// Both lists are nullopt when the bound passed before the registry answered. Without a bound this waits for as
    /// long as it takes.
    static void
    currentInProgressAssetIDs_restoringAssetIDs(PDApplicationWorkspace& workspace, const PlugInLog& log,
                                                std::optional<std::vector<std::string>>& inProgress,
                                                std::optional<std::vector<std::string>>& restoring,
                                                std::optional<std::chrono::milliseconds> bound = std::nullopt);

    /// Without a bound the query waits for as long as it takes.
    explicit InProgressAssetQuery(const PlugInLog& log, std::optional<std::chrono::milliseconds> bound = std::nullopt)
        : _log(log), _bound(bound) {}

    /// Waits for the first report. False: the bound passed before it came.
    [[nodiscard]] bool _fetchResults();
    [[nodiscard]] const std::optional<std::vector<std::string>>& _inProgressAssetIDs() const { return _inProgress; }
    [[nodiscard]] const std::optional<std::vector<std::string>>& _restoringAssetIDs() const { return _restoring; }

    /// Called on the registry's thread. Only the first report counts.
    void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& prioritized,
                                                     const PDApplicationProxies& paused) noexcept override;

  private:
    void _sort(const PDApplicationProxyPtr& proxy);

    const PlugInLog& _log;
    const std::optional<std::chrono::milliseconds> _bound;
    Semaphore _waitForInitialObservationData;
    // Written before the signal, read after it.
    std::optional<std::vector<std::string>> _inProgress;
    std::optional<std::vector<std::string>> _restoring;
};

} // namespace appsync
