// The bytes of a file being written, in the memory of the datum that they become.
#pragma once

#include "values/PropertyList.h"

#include <cstddef>

namespace appsync::propertylist {

class ByteBuffer {
  public:
    /// So many bytes behind those asked for may be written to as well.
    static constexpr std::size_t slack = 16;

    /// Holds at most `limit` bytes.
    explicit ByteBuffer(std::size_t limit) noexcept : _limit(limit) {}
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;
    ~ByteBuffer();

    [[nodiscard]] std::size_t limit() const noexcept { return _limit; }
    [[nodiscard]] std::size_t size() const noexcept { return _size; }
    /// Where the next bytes go; there is room for `count` and the slack. Throws `Failure` beyond the limit.
    [[nodiscard]] char* room(std::size_t count) {
        if (count > _capacity - _size) [[unlikely]] {
            grow(count);
        }
        return _bytes + _size;
    }
    /// Says how many bytes were written there.
    void advance(std::size_t count) noexcept { _size += count; }
    /// The first bytes of what was written to the room.
    [[nodiscard]] std::string_view written(std::size_t count) const noexcept { return at(_size, count); }
    [[nodiscard]] std::string_view at(std::size_t offset, std::size_t count) const noexcept {
        return {_bytes + offset, count};
    }

    /// What was written; the buffer is empty after that.
    [[nodiscard]] Data finish();

  private:
    void grow(std::size_t count);

    std::size_t _limit;
    char* _bytes = nullptr; // room for the head of a datum precedes them
    std::size_t _size = 0;
    std::size_t _capacity = 0; // without the slack
};

} // namespace appsync::propertylist
