// How much memory the process holds, as its allocator sees it.
#pragma once

#include <cstddef>

namespace appsync {

/// False where a sanitizer has the allocator, so that nothing is counted and no allocation fails.
[[nodiscard]] bool countsAllocations() noexcept;

/// Bytes in use, with what the allocator adds to each block.
[[nodiscard]] std::size_t bytesInUse() noexcept;

/// Forgets the peak and calls what is in use now the peak.
void restartPeak() noexcept;
[[nodiscard]] std::size_t peakBytes() noexcept;

/// Lets the allocation after the next `count` ones of this thread fail, once.
void failAllocationAfter(std::size_t count) noexcept;
/// True when it has happened; no allocation fails from now on.
bool stopFailing() noexcept;

} // namespace appsync
