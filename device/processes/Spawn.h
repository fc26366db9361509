// Starting a process that belongs to nobody.
#pragma once

#include "values/Result.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace appsync::device {

/// Starts a program without arguments in a folder, with variables ("NAME=value") beside PATH, as the leader of a
/// session and a process group of its own, without a terminal, its output thrown away. `record` is a file that the
/// process writes its number into, keeps open, and hands on to its children. Nobody has to wait for it. Returns its
/// number.
[[nodiscard]] Result<pid_t> spawnDetached(const std::string& executable, const std::string& folder,
                                          std::vector<std::string> variables, int record);

} // namespace appsync::device
