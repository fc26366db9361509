// Starting a process that belongs to nobody.
#pragma once

#include "values/Result.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace appsync::device {

struct SpawnRequest {
    std::string executable;             // its path; it gets no arguments
    std::string folder;                 // the working directory
    std::vector<std::string> variables; // NAME=value, beside PATH
    int record = -1; // a file that the process writes its number into, keeps open, and hands on to its children
};

/// Starts it as the leader of a session and a process group of its own, without a terminal, its output thrown away.
/// Nobody has to wait for it. Returns its number.
[[nodiscard]] Result<pid_t> spawnDetached(const SpawnRequest& request);

} // namespace appsync::device
