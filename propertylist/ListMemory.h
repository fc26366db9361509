// What a program that handles large lists wants from its allocator.
#pragma once

namespace appsync {

/// Lets the process keep up to 64 MiB of memory that it has freed. Otherwise the C library gives the memory of each
/// large list back to the system and fetches it again, page by page, for the next one, which can take longer than
/// reading and writing the list. For the start of a program, before it has other threads; does nothing where the C
/// library has no such setting.
void keepListMemory() noexcept;

} // namespace appsync
