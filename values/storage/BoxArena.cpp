#include "values/storage/BoxArena.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace appsync::detail {

void* allocate(std::size_t size) {
    void* memory = std::malloc(size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}

void Slab::drop(std::size_t count) noexcept {
    if (users.fetch_sub(count, std::memory_order_acq_rel) == count) {
        std::free(this);
    }
}

void BoxArena::startSlab() {
    auto* const slab = new (allocate(_slabSize)) Slab;
    leaveSlab();
    _slab = slab;
    _next = reinterpret_cast<char*>(slab + 1);
    _left = _slabSize - sizeof(Slab);
    _slabSize = std::min(2 * _slabSize, maxSlabSize);
}

void BoxArena::leaveSlab() noexcept {
    if (_slab) {
        _slab->drop(1);
    }
}

} // namespace appsync::detail
