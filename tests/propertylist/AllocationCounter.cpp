#include "tests/propertylist/AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define APPSYNC_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define APPSYNC_SANITIZED 1
#endif
#endif

namespace appsync {

namespace {

constexpr std::size_t never = static_cast<std::size_t>(-1);

std::atomic<std::size_t> inUse;
std::atomic<std::size_t> peak;
thread_local std::size_t allocationsLeft = never;
thread_local bool hasFailed = false;

} // namespace

std::size_t bytesInUse() noexcept {
    return inUse;
}

void restartPeak() noexcept {
    peak = inUse.load();
}

std::size_t peakBytes() noexcept {
    return peak;
}

void failAllocationAfter(std::size_t count) noexcept {
    hasFailed = false;
    allocationsLeft = count;
}

bool stopFailing() noexcept {
    allocationsLeft = never;
    return hasFailed;
}

#ifdef APPSYNC_SANITIZED

bool countsAllocations() noexcept {
    return false;
}

} // namespace appsync

#else

bool countsAllocations() noexcept {
    return true;
}

namespace {

constexpr std::size_t overhead = sizeof(std::size_t);

bool mayAllocate() noexcept {
    if (allocationsLeft == never) {
        return true;
    }
    if (allocationsLeft > 0) {
        --allocationsLeft;
        return true;
    }
    allocationsLeft = never;
    hasFailed = true;
    return false;
}

void* counted(void* memory) noexcept {
    if (memory) {
        const std::size_t size = malloc_usable_size(memory) + overhead;
        const std::size_t now = inUse.fetch_add(size) + size;
        for (std::size_t seen = peak; seen < now && !peak.compare_exchange_weak(seen, now);) {
        }
    }
    return memory;
}

void uncount(void* memory) noexcept {
    if (memory) {
        inUse.fetch_sub(malloc_usable_size(memory) + overhead);
    }
}

} // namespace

} // namespace appsync

// The C library lets a program define these; everything in the process then allocates through them.

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    return appsync::mayAllocate() ? appsync::counted(__libc_malloc(size)) : nullptr;
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
    return appsync::mayAllocate() ? appsync::counted(__libc_calloc(count, size)) : nullptr;
}

__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
    if (!appsync::mayAllocate()) {
        return nullptr;
    }
    appsync::uncount(memory);
    void* moved = __libc_realloc(memory, size);
    return !appsync::counted(!moved && size != 0 ? memory : moved) ? nullptr : moved;
}

__attribute__((visibility("default"))) void* memalign(std::size_t alignment, std::size_t size) {
    return appsync::mayAllocate() ? appsync::counted(__libc_memalign(alignment, size)) : nullptr;
}

__attribute__((visibility("default"))) void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}

__attribute__((visibility("default"))) void free(void* memory) {
    appsync::uncount(memory);
    __libc_free(memory);
}

} // extern "C"

#endif
