#include "plugin/pipeline/InProgressAssetQuery.h"

#include "plugin/log/Log.h"

#include <array>
#include <span>

namespace appsync {

namespace {

constexpr std::array installTypeNames = {
    "PDInstallTypeNone", "PDInstallTypeStoreDownload",   "PDInstallTypeRestore",   "PDInstallTypeAutomaticDownload",
    "PDInstallTypeSync", "PDInstallTypeAutomaticUpdate", "PDInstallTypeMigration", "PDInstallTypeDowngrade"};
constexpr std::array installStateNames = {"PDInstallStateWaiting",  "PDInstallStateActive", "PDInstallStatePaused",
                                          "PDInstallStateCanceled", "PDInstallStateFailed", "PDInstallStateFinished"};
constexpr std::array installPhaseNames = {"PDInstallPhaseLoading", "PDInstallPhaseInstalling",
                                          "PDInstallPhaseRestoringData", "PDInstallPhaseInstallingPlaceholder"};

std::string nameOf(std::uint64_t number, std::span<const char* const> names, std::string_view unknownFormat) {
    if (number < names.size()) {
        return names[number];
    }
    constexpr std::string_view conversion = "%lu";
    std::string name(unknownFormat);
    return name.replace(name.find(conversion), conversion.size(), std::to_string(number));
}

} // namespace

void InProgressAssetQuery::currentInProgressAssetIDs_restoringAssetIDs(
    PDApplicationWorkspace& workspace, const PlugInLog& log, std::optional<std::vector<std::string>>& inProgress,
    std::optional<std::vector<std::string>>& restoring, std::optional<std::chrono::milliseconds> bound) {
    inProgress = std::nullopt;
    restoring = std::nullopt;
    InProgressAssetQuery query(log, bound);
    workspace.addObserver(&query);
    if (query._fetchResults()) {
        inProgress = query._inProgressAssetIDs();
        restoring = query._restoringAssetIDs();
    }
    workspace.removeObserver(&query);
}

bool InProgressAssetQuery::_fetchResults() {
    _log.message("Waiting for -applicationInstallsArePrioritized:arePaused: to complete...");
    if (!_waitForInitialObservationData.wait(_bound)) {
        _log.error("Query for in progress assets timed out");
        return false;
    }
    _log.message("Wait completed");
    return true;
}

void InProgressAssetQuery::applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& prioritized,
                                                                       const PDApplicationProxies& paused) noexcept {
    _log.oversize("prioritized proxies %{public}@ paused proxies %{public}@", prioritized, paused);
    if (_inProgress) {
        return;
    }
    _inProgress.emplace();
    _restoring.emplace();
    if (prioritized.empty()) {
        _log.message("No assets currently in progress.");
    }
    for (const PDApplicationProxyPtr& proxy : prioritized) {
        _sort(proxy);
    }
    _log.message("signaling semaphore");
    _waitForInitialObservationData.signal();
}

void InProgressAssetQuery::_sort(const PDApplicationProxyPtr& proxy) {
    const std::string identifier = proxy->applicationIdentifier();
    if (!proxy->isPlaceholder()) {
        _log.message("No placeholder for asset identifier %{public}@", identifier);
        return;
    }
    const FNProgressPtr progress = proxy->installProgressSync();
    if (!progress) {
        _log.message("No install progress found for asset identifier %{public}@", identifier);
        return;
    }
    const std::uint64_t type = proxy->installType();
    const std::uint64_t state = progress->installState();
    const std::uint64_t phase = progress->installPhase();
    _log.message("Got install type=%{public}@ state=%{public}@ phase=%{public}@ for %{public}@",
                 nameOf(type, installTypeNames, "Unknown Install Type: %lu"),
                 nameOf(state, installStateNames, "Unknown Install State: %lu"),
                 nameOf(phase, installPhaseNames, "Unknown Install Phase: %lu"), identifier);
    if (state != PDInstallStateActive) {
        return;
    }
    const bool isRestore = type == PDInstallTypeRestore;
    const bool isLoading = phase == PDInstallPhaseLoading;
    const bool isInstalling = phase == PDInstallPhaseInstalling;
    if ((!isRestore && isInstalling) || (type == PDInstallTypeStoreDownload && isLoading)) {
        _inProgress->push_back(identifier);
    } else if (isRestore && (isLoading || isInstalling)) {
        _restoring->push_back(identifier);
    }
}

} // namespace appsync
