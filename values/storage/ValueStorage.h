// The boxes that values share, and the way into a value's cell. Not for use outside `values/` and the codec.
#pragma once

#include "values/PropertyList.h"
#include "values/storage/BoxArena.h"

namespace appsync {

namespace detail {

/// Bytes that were handed over as a string, or that follow the box.
struct DataBox : Box {
    const char* bytes = nullptr;
    std::size_t size = 0;
    std::string held;

    [[nodiscard]] static DataBox* make(std::string bytes);
    /// Copies the bytes.
    [[nodiscard]] static DataBox* make(std::string_view bytes);
    /// Takes over memory of `std::malloc` that has room for a box and then the bytes.
    [[nodiscard]] static DataBox* adopt(void* memory, std::size_t size) noexcept;
};

struct ContainerBox : Box {
    bool inSlab = false;
};

struct ArrayBox : ContainerBox {
    Array items;

    [[nodiscard]] static ArrayBox* make(Array items);
    [[nodiscard]] static ArrayBox* make(Array items, BoxArena& arena);
};

/// A dictionary; room for its entries follows when it was made in an arena.
struct DictionaryBox : ContainerBox {
    Dictionary entries;

    [[nodiscard]] static DictionaryBox* make(Dictionary entries);
    [[nodiscard]] static DictionaryBox* make(std::size_t capacity, BoxArena& arena);
};

/// The bytes of a text or datum in a box, which many cells can share; 0 for anything else.
[[nodiscard]] inline std::size_t boxedSize(const Cell& cell) noexcept {
    return cell.tag() == Tag::sharedText ? cell.textView().size()
           : cell.tag() == Tag::data     ? static_cast<const DataBox*>(cell.box())->size
                                         : 0;
}

static_assert(sizeof(DictionaryBox) == sizeof(ContainerBox) + sizeof(Dictionary), "entries begin right behind both");

} // namespace detail

/// For code that makes values faster than their public operations can.
struct ValueAccess {
    static detail::Cell& cell(Value& value) noexcept { return value._cell; }
    static const detail::Cell& cell(const Value& value) noexcept { return value._cell; }
    static const detail::Cell& cell(const Text& text) noexcept { return text._cell; }
    static detail::Cell& cell(Text& text) noexcept { return text._cell; }
    static const detail::Cell& cell(const Data& data) noexcept { return data._cell; }
    static Value value(detail::Cell cell) noexcept {
        Value made;
        made._cell = std::move(cell);
        return made;
    }
    static Data data(detail::DataBox* box) noexcept { return Data(detail::Cell::boxed(detail::Tag::data, box)); }

    static std::span<Dictionary::Entry> entries(Dictionary& dictionary) noexcept {
        return {dictionary._entries, dictionary._size};
    }
    /// Makes as many entries as there is room for, with empty keys and null values. Once the keys are set, one of the
    /// next two must follow.
    static void fillCapacity(Dictionary& dictionary) noexcept;
    /// Makes keys findable that are known to differ.
    static void indexEntries(Dictionary& dictionary) noexcept { static_cast<void>(dictionary.rebuildIndex()); }
    /// Makes the keys findable. The number of the first entry whose key an earlier one has, or the size when all
    /// differ.
    [[nodiscard]] static std::size_t indexUnlessDuplicate(Dictionary& dictionary) noexcept;
    /// Places an empty dictionary's entries into the rest of the box that holds it.
    static void useRestOfBox(Dictionary& dictionary, std::size_t capacity) noexcept;
};

} // namespace appsync
