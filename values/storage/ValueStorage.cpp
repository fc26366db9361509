#include "values/storage/ValueStorage.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace appsync::detail {

namespace {

std::uint32_t checkedLength(std::size_t length) {
    if (length > TextBox::maxLength) {
        throw std::bad_alloc();
    }
    return static_cast<std::uint32_t>(length);
}

} // namespace

TextBox* TextBox::make(std::size_t length) {
    const std::uint32_t checked = checkedLength(length);
    return new (allocate(sizeof(TextBox) + length)) TextBox(checked, false);
}

TextBox* TextBox::make(std::size_t length, BoxArena& arena) {
    const std::uint32_t checked = checkedLength(length);
    const auto [memory, inSlab] = arena.make(sizeof(TextBox) + length);
    return new (memory) TextBox(checked, inSlab);
}

DataBox* DataBox::make(std::string bytes) {
    auto* box = new (allocate(sizeof(DataBox))) DataBox;
    box->held = std::move(bytes);
    box->bytes = box->held.data();
    box->size = box->held.size();
    return box;
}

DataBox* DataBox::make(std::string_view bytes) {
    void* memory = allocate(sizeof(DataBox) + bytes.size());
    bytes.copy(static_cast<char*>(memory) + sizeof(DataBox), bytes.size());
    return adopt(memory, bytes.size());
}

DataBox* DataBox::adopt(void* memory, std::size_t size) noexcept {
    auto* box = new (memory) DataBox;
    box->bytes = reinterpret_cast<const char*>(box + 1);
    box->size = size;
    return box;
}

ArrayBox* ArrayBox::make(Array items) {
    auto* box = new (allocate(sizeof(ArrayBox))) ArrayBox;
    box->items = std::move(items);
    return box;
}

ArrayBox* ArrayBox::make(Array items, BoxArena& arena) {
    const auto [memory, inSlab] = arena.make(sizeof(ArrayBox));
    auto* box = new (memory) ArrayBox;
    box->inSlab = inSlab;
    box->items = std::move(items);
    return box;
}

DictionaryBox* DictionaryBox::make(Dictionary entries) {
    auto* box = new (allocate(sizeof(DictionaryBox))) DictionaryBox;
    box->entries = std::move(entries);
    return box;
}

namespace {

bool isInSlab(const TextBox& box) noexcept {
    return box.isInSlab();
}

bool isInSlab(const ContainerBox& box) noexcept {
    return box.inSlab;
}

bool isInSlab(const DataBox&) noexcept {
    return false;
}

/// Containers that wait for their destruction, linked through their heads, of which only `inSlab` is still of use.
class PendingBoxes {
  public:
    void push(ContainerBox* box) noexcept {
        const std::uintptr_t link = reinterpret_cast<std::uintptr_t>(_first) | static_cast<std::uintptr_t>(box->inSlab);
        std::memcpy(static_cast<void*>(box), &link, sizeof link);
        _first = box;
    }
    /// Null when none is left.
    ContainerBox* pop() noexcept {
        ContainerBox* const box = _first;
        if (box) {
            std::uintptr_t link = 0;
            std::memcpy(&link, static_cast<const void*>(box), sizeof link);
            // NOLINTNEXTLINE(performance-no-int-to-ptr): an address whose lowest bit kept `inSlab`
            _first = reinterpret_cast<ContainerBox*>(link & ~std::uintptr_t{1});
            box->inSlab = (link & 1) != 0;
        }
        return box;
    }

  private:
    static_assert(sizeof(ContainerBox) == sizeof(std::uintptr_t) && alignof(ArrayBox) > 1);
    ContainerBox* _first = nullptr;
};

/// Destroys a box and all that goes with it. Containers in containers take some levels of recursion, which is fast;
/// what lies further down waits until after that. Boxes of the same slab leave it together.
class Destruction {
  public:
    ~Destruction() { leaveSlab(); }

    void run(Box* box, Tag tag) noexcept {
        destroy(box, tag, 0);
        for (bool more = true; more;) {
            more = false;
            while (ContainerBox* array = _arrays.pop()) {
                destroy(array, Tag::array, 0);
                more = true;
            }
            while (ContainerBox* dictionary = _dictionaries.pop()) {
                destroy(dictionary, Tag::dictionary, 0);
                more = true;
            }
        }
    }

  private:
    static constexpr unsigned maxDepth = 64;

    void destroy(Box* box, Tag tag, unsigned depth) noexcept {
        switch (tag) {
        case Tag::sharedText: return free(static_cast<TextBox*>(box));
        case Tag::data: return free(static_cast<DataBox*>(box));
        case Tag::array: return destroyArray(static_cast<ArrayBox*>(box), depth);
        case Tag::dictionary: return destroyDictionary(static_cast<DictionaryBox*>(box), depth);
        default: return;
        }
    }

    void destroyArray(ArrayBox* box, unsigned depth) noexcept {
        if (depth == maxDepth) {
            return _arrays.push(box);
        }
        for (Value& item : box->items) {
            drop(ValueAccess::cell(item), depth + 1);
        }
        free(box);
    }

    void destroyDictionary(DictionaryBox* box, unsigned depth) noexcept {
        if (depth == maxDepth) {
            return _dictionaries.push(box);
        }
        for (Dictionary::Entry& entry : ValueAccess::entries(box->entries)) {
            drop(ValueAccess::cell(entry.key), depth + 1);
            drop(ValueAccess::cell(entry.value), depth + 1);
        }
        free(box);
    }

    void drop(Cell& cell, unsigned depth) noexcept {
        if (cell.isBoxed()) {
            const Tag tag = cell.tag();
            Box* const box = cell.releaseBox();
            if (box->dropReference()) {
                destroy(box, tag, depth);
            }
        }
    }

    template <class BoxType> void free(BoxType* box) noexcept {
        const bool inSlab = isInSlab(*box);
        std::destroy_at(box);
        if (!inSlab) {
            return std::free(box);
        }
        if (Slab::of(box) != _slab) {
            leaveSlab();
            _slab = Slab::of(box);
        }
        ++_leaving;
    }

    void leaveSlab() noexcept {
        if (_slab) {
            _slab->drop(_leaving);
        }
        _leaving = 0;
    }

    PendingBoxes _arrays;
    PendingBoxes _dictionaries;
    Slab* _slab = nullptr; // the last one, and how many boxes are about to leave it
    std::size_t _leaving = 0;
};

} // namespace

void destroyBox(Box* box, Tag tag) noexcept {
    Destruction().run(box, tag);
}

} // namespace appsync::detail
