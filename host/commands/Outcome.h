// How a command that brings apps tells its end.
#pragma once

#include "host/ExitCode.h"
#include "host/view/Print.h"

namespace appsync::host {

struct SyncReport;

struct OutcomeWords {
    const char* nothing; // when there is no app to tell of
    const char* again;   // the command that goes on after an interruption
};

/// Prints the report, the notes and failures on the standard error; returns the exit code.
[[nodiscard]] ExitCode tellOutcome(const SyncReport& report, JsonOutput json, const OutcomeWords& words);

} // namespace appsync::host
