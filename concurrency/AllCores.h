// Does the same with each of many things, with all cores.
#pragma once

#include <cstddef>
#include <functional>

namespace appsync {

/// As many as the machine has; at least one.
[[nodiscard]] std::size_t coreCount() noexcept;

/// Calls `work` with each number below `count`, in any order, on this thread and up to `threads` - 1 others; returns
/// when all calls have returned. Where the system has no more threads to give, fewer do.
void forEachNumber(std::size_t count, const std::function<void(std::size_t)>& work, std::size_t threads = coreCount());

} // namespace appsync
