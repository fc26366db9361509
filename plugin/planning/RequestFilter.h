// Decides which wanted apps may be requested at all.
#pragma once

#include "plugin/planning/Candidate.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync {

class IdentifierSet;
class PlugInLog;

/// Takes the apps in progress out of the wanted ones; those that are being restored stay. A list that is nullopt could
/// not be had, which a message says, and takes nothing out.
void dropAppsInProgress(const PlugInLog& log, const std::optional<std::vector<std::string>>& inProgress,
                        const std::optional<std::vector<std::string>>& restoring, Dictionary& wanted);

/// What holds for every candidate of one planning.
struct RequestFilter {
    const PlugInLog& log;
    bool installationAllowed;
    bool useInstallCoordinator;
    const IdentifierSet& kplAppsToIgnore;
    const std::set<std::string>& systemAppPlaceholders;
    const std::set<std::string>& requestedByClient;

    /// False, with a message that says why, for a candidate that this sync leaves alone.
    [[nodiscard]] bool admits(const Candidate& candidate) const;
};

} // namespace appsync
