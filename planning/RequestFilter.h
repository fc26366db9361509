// Decides which wanted apps may be requested at all.
#pragma once

#include "planning/Candidate.h"

#include <set>
#include <string>

namespace appsync {

class IdentifierSet;
class PlugInLog;

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
