// The storage behind `Text` and `Value`: sixteen bytes that hold a small datum inline or a counted reference to a
// shared box. Copying costs sixteen bytes and, for a box, one count. Not for use outside `values/` and the codec.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace appsync::detail {

enum class Tag : std::uint8_t {
    null,
    boolean,
    integer,
    unsignedInteger,
    real,
    date,
    inlineText,
    sharedText, // this tag and those after it own a reference to a box
    data,
    array,
    dictionary,
};

class BoxArena;

struct Box {
    std::atomic<std::uint32_t> references{1};

    /// True when this was the last reference.
    [[nodiscard]] bool dropReference() noexcept {
        // The last owner need not pay for an atomic decrement.
        return references.load(std::memory_order_acquire) == 1 ||
               references.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    /// Counts one more reference to a box that no other thread can know of yet.
    void retainUnpublished() noexcept {
        references.store(references.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
};

/// Frees a box of the given kind whose last reference is gone, and what it holds. Any depth of containers is safe.
void destroyBox(Box* box, Tag tag) noexcept;

class Cell {
  public:
    static constexpr std::size_t inlineCapacity = 14;

    Cell() noexcept = default;
    Cell(const Cell& other) noexcept : _content(other._content) {
        if (isBoxed()) {
            box()->references.fetch_add(1, std::memory_order_relaxed);
        }
    }
    /// The other cell becomes null; as a text it is empty.
    Cell(Cell&& other) noexcept : _content(std::exchange(other._content, Content{})) {}
    Cell& operator=(const Cell& other) noexcept {
        Cell(other).swap(*this);
        return *this;
    }
    Cell& operator=(Cell&& other) noexcept {
        Cell(std::move(other)).swap(*this);
        return *this;
    }
    ~Cell() {
        if (isBoxed()) {
            release();
        }
    }

    void swap(Cell& other) noexcept { std::swap(_content, other._content); }

    /// The cell's bits. Cells with the same bits are equal; two inline texts are equal only then.
    struct Words {
        std::uint64_t first;
        std::uint64_t second;
        friend bool operator==(Words, Words) = default;
    };
    [[nodiscard]] Words words() const noexcept { return std::bit_cast<Words>(_content); }
    /// An inline text of at most `inlineCapacity` bytes; `bits` holds them, followed by zeros.
    static Cell inlineText(std::string_view text) noexcept {
        Words bits{};
        text.copy(reinterpret_cast<char*>(&bits), text.size());
        return inlineText(bits, text.size());
    }
    static Cell inlineText(Words bits, std::size_t length) noexcept {
        Cell cell;
        cell._content = std::bit_cast<Content>(bits);
        cell._content.inlineLength = static_cast<std::uint8_t>(length);
        cell._content.tag = Tag::inlineText;
        return cell;
    }

    template <class Scalar> static Cell scalar(Tag tag, Scalar datum) noexcept {
        static_assert(sizeof(Scalar) <= 8);
        Cell cell;
        cell._content.tag = tag;
        std::memcpy(cell._content.bytes, &datum, sizeof(Scalar));
        return cell;
    }
    /// Takes over the caller's reference to `box`.
    static Cell boxed(Tag tag, Box* box) noexcept { return scalar<void*>(tag, box); }
    /// Gives the caller the reference that this cell owned; the cell becomes null.
    [[nodiscard]] Box* releaseBox() noexcept {
        _content.tag = Tag::null;
        return box();
    }
    /// A copy of a cell whose box no other thread can know of yet.
    [[nodiscard]] Cell unpublishedCopy() const noexcept {
        if (isBoxed()) {
            box()->retainUnpublished();
        }
        Cell copy;
        copy._content = _content;
        return copy;
    }
    /// Copies the text: inline when it fits, else into a box of its own.
    static Cell text(std::string_view text);
    static Cell text(std::string_view text, BoxArena& arena);

    [[nodiscard]] Tag tag() const noexcept { return _content.tag; }
    [[nodiscard]] bool isBoxed() const noexcept { return _content.tag >= Tag::sharedText; }
    [[nodiscard]] bool isContainer() const noexcept { return _content.tag >= Tag::array; }
    [[nodiscard]] bool isText() const noexcept {
        return _content.tag == Tag::inlineText || _content.tag == Tag::sharedText;
    }
    template <class Scalar> [[nodiscard]] Scalar as() const noexcept {
        Scalar datum;
        std::memcpy(&datum, _content.bytes, sizeof(Scalar));
        return datum;
    }
    [[nodiscard]] Box* box() const noexcept { return static_cast<Box*>(as<void*>()); }
    /// True when no other cell refers to the box, so that it may be changed in place.
    [[nodiscard]] bool isUnique() const noexcept { return box()->references.load(std::memory_order_acquire) == 1; }
    /// The text of a text cell; lives as long as the cell is neither changed nor moved.
    [[nodiscard]] std::string_view textView() const noexcept;

  private:
    void release() noexcept {
        if (box()->dropReference()) {
            destroyBox(box(), _content.tag);
        }
    }

    struct Content {
        alignas(8) unsigned char bytes[inlineCapacity] = {};
        std::uint8_t inlineLength = 0;
        Tag tag = Tag::null;
    };
    Content _content;
};

static_assert(sizeof(Cell) == 16);

/// A text that is too long for a cell; its bytes follow the box.
class TextBox : public Box {
  public:
    static constexpr std::size_t maxLength = (std::size_t{1} << 31) - 1;

    TextBox(std::uint32_t length, bool inSlab) noexcept : _length(length | (inSlab ? slabFlag : 0)) {}

    [[nodiscard]] std::string_view view() const noexcept {
        return {reinterpret_cast<const char*>(this + 1), _length & ~slabFlag};
    }
    [[nodiscard]] char* bytes() noexcept { return reinterpret_cast<char*>(this + 1); }
    [[nodiscard]] bool isInSlab() const noexcept { return (_length & slabFlag) != 0; }

    /// The bytes are left for the caller to fill in before anybody else sees them.
    [[nodiscard]] static TextBox* make(std::size_t length);
    [[nodiscard]] static TextBox* make(std::size_t length, BoxArena& arena);

  private:
    static constexpr std::uint32_t slabFlag = std::uint32_t{1} << 31;
    std::uint32_t _length;
};

inline std::string_view Cell::textView() const noexcept {
    if (_content.tag == Tag::sharedText) {
        return static_cast<const TextBox*>(box())->view();
    }
    return {reinterpret_cast<const char*>(_content.bytes), _content.inlineLength};
}

} // namespace appsync::detail
