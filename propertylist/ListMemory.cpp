#include "propertylist/ListMemory.h"

#include <cstdlib> // says which C library this is

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace appsync {

void keepListMemory() noexcept {
#ifdef __GLIBC__
    constexpr int mebibyte = 1 << 20;
    mallopt(M_TRIM_THRESHOLD, 64 * mebibyte);
    mallopt(M_MMAP_THRESHOLD, 32 * mebibyte); // larger blocks are given back at once; this is the largest value allowed
#endif
}

} // namespace appsync
