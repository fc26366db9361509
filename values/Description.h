// How much of a value is put into words. A list of some kilobytes can refer to the same long text thousands of times,
// so that its description would be millions of times as long; nobody reads that, and no log should hold it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace appsync {

/// Bytes that a value's or an error's description has at most, but for the mark.
inline constexpr std::size_t maxDescriptionSize = std::size_t{16} << 10;

/// A text, valid UTF-8, as far as it takes at most `limit` bytes: cut between two characters.
[[nodiscard]] std::string_view cutText(std::string_view text, std::size_t limit) noexcept;

/// Puts pieces behind a text until they are `limit` bytes. The piece that would go beyond is cut, between two
/// characters, and a mark follows: "... (cut after 16384 bytes)". From there on nothing is added, and whoever describes
/// stops.
class Description {
  public:
    explicit Description(std::string& out, std::size_t limit = maxDescriptionSize) noexcept
        : _out(out), _limit(limit), _left(limit) {}

    void append(std::string_view piece) {
        if (piece.size() <= _left) [[likely]] {
            _out += piece;
            _left -= piece.size();
        } else if (!_isFull) {
            cut(piece);
        }
    }
    /// True when something was left out.
    [[nodiscard]] bool isFull() const noexcept { return _isFull; }

  private:
    void cut(std::string_view piece);

    std::string& _out;
    const std::size_t _limit;
    std::size_t _left;
    bool _isFull = false;
};

} // namespace appsync
