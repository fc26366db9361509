#include "plugin/planning/RequestFilter.h"

#include "plugin/client/IdentifierSet.h"
#include "plugin/log/Log.h"

namespace appsync {

void dropAppsInProgress(const PlugInLog& log, const std::optional<std::vector<std::string>>& inProgress,
                        const std::optional<std::vector<std::string>>& restoring, Dictionary& wanted) {
    if (!inProgress) {
        log.error("Failed to get list of assets already in progress!");
    } else {
        log.message("Assets already in progress (not returning these): %{public}@", *inProgress);
        for (const std::string& identifier : *inProgress) {
            wanted.erase(identifier);
        }
    }
    if (!restoring) {
        log.error("Failed to get list of assets currently restoring!");
    } else {
        log.message("Assets currently restoring: %{public}@", *restoring);
    }
}

bool RequestFilter::admits(const Candidate& candidate) const {
    const std::string& identifier = candidate.identifier;
    if (!installationAllowed && !candidate.isRestore) {
        log.message("skipping %{public}@ - its not a restore and app installation is disabled", identifier);
        return false;
    }
    if (candidate.isRestore && kplAppsToIgnore.contains(identifier)) {
        log.message("%{public}@ is currenlty marked as to be ignored for download - skipping", identifier);
        return false;
    }
    // With the coordinator, restores are the store daemon's alone.
    if (candidate.isRestore && useInstallCoordinator) {
        log.message("%{public}@ is currenlty marked to be restored and will be handled by corbind - skipping",
                    identifier);
        return false;
    }
    if (candidate.systemApp && useInstallCoordinator) {
        log.message("%{public}@ is auto demoted: %d, manual demoted: %d, system app:%d - skipping", identifier,
                    candidate.autoDemoted, candidate.manualDemoted, 1);
        return false;
    }
    if (systemAppPlaceholders.contains(identifier)) {
        log.message("%{public}@ is system app placeholder - skipping", identifier);
        return false;
    }
    if ((candidate.autoDemoted || candidate.manualDemoted) && useInstallCoordinator) {
        // Readers of these two messages know their labels as they are: each stands before the other's value.
        if (!requestedByClient.contains(identifier)) {
            log.message("%{public}@ is currenlty demoted (manual:%d, auto:%d) - skipping", identifier,
                        candidate.autoDemoted, candidate.manualDemoted);
            return false;
        }
        log.message("%{public}@ is currenlty demoted (manual:%d, auto:%d) - but will be installed as it's requested "
                    "by client",
                    identifier, candidate.autoDemoted, candidate.manualDemoted);
    }
    return true;
}

} // namespace appsync
