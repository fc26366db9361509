#include "archive/ArchiveMemory.h"

#include <libdeflate.h>

#include <bit>
#include <new>

namespace appsync {

namespace {

constexpr std::align_val_t pageStart{4096};

} // namespace

void ArchiveMemory::Buffer::Free::operator()(char* bytes) const noexcept {
    ::operator delete[](bytes, pageStart);
}

char* ArchiveMemory::Buffer::grow(std::size_t size) {
    if (size > _capacity) {
        _capacity = std::bit_ceil(size);
        _bytes = nullptr; // before the larger one
        _bytes.reset(new (pageStart) char[_capacity]);
    }
    return _bytes.get();
}

void ArchiveMemory::FreeInflater::operator()(libdeflate_decompressor* inflater) const noexcept {
    libdeflate_free_decompressor(inflater);
}

ArchiveMemory::ArchiveMemory() noexcept = default;

ArchiveMemory::~ArchiveMemory() = default;

libdeflate_decompressor* ArchiveMemory::inflater() noexcept {
    if (!_inflater) {
        _inflater.reset(libdeflate_alloc_decompressor());
    }
    return _inflater.get();
}

} // namespace appsync
