#include "propertylist/ByteBuffer.h"

#include "propertylist/Failure.h"
#include "values/storage/ValueStorage.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace appsync::propertylist {

namespace {

constexpr std::size_t headSize = sizeof(detail::DataBox);

} // namespace

ByteBuffer::~ByteBuffer() {
    if (_bytes) {
        std::free(_bytes - headSize);
    }
}

void ByteBuffer::grow(std::size_t count) {
    if (count > _limit - _size) {
        failWriting(PropertyListErrorCode::tooLarge, "more than " + std::to_string(_limit) + " bytes");
    }
    const std::size_t capacity = std::min(_limit, std::max({std::size_t{4096}, 2 * _capacity, _size + count}));
    void* const memory = std::realloc(!_bytes ? nullptr : _bytes - headSize, headSize + capacity + slack);
    if (!memory) {
        throw std::bad_alloc();
    }
    _bytes = static_cast<char*>(memory) + headSize;
    _capacity = capacity;
}

Data ByteBuffer::finish() {
    static_cast<void>(room(0));
    void* const memory = std::exchange(_bytes, nullptr) - headSize;
    const std::size_t size = std::exchange(_size, 0);
    _capacity = 0;
    void* const fitting = std::realloc(memory, headSize + size);
    return ValueAccess::data(detail::DataBox::adopt(!fitting ? memory : fitting, size));
}

} // namespace appsync::propertylist
