// The table: entries in their order in one block of memory, and behind them, when there is room for more than
// `searchedSize`, an index by hash. Up to that size a search in order beats any index.
#include "values/storage/ValueHash.h"
#include "values/storage/ValueStorage.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <memory>
#include <new>

namespace appsync {

namespace {

constexpr std::size_t searchedSize = 16;
constexpr std::size_t absent = static_cast<std::size_t>(-1);

/// How many entry numbers the index of a block has room for.
constexpr std::size_t indexSlots(std::size_t capacity) {
    return capacity <= searchedSize ? 0 : std::bit_ceil(2 * capacity);
}

std::size_t blockSize(std::size_t capacity) {
    if (capacity >= std::size_t{1} << 31) {
        throw std::bad_alloc();
    }
    return capacity * sizeof(Dictionary::Entry) + indexSlots(capacity) * sizeof(std::uint32_t);
}

/// The box whose rest the entries fill.
detail::DictionaryBox* boxBefore(Dictionary::Entry* entries) noexcept {
    return reinterpret_cast<detail::DictionaryBox*>(entries) - 1;
}

} // namespace

detail::DictionaryBox* detail::DictionaryBox::make(std::size_t capacity, BoxArena& arena) {
    const auto [memory, inSlab] = arena.make(sizeof(DictionaryBox) + blockSize(capacity));
    auto* box = new (memory) DictionaryBox;
    box->inSlab = inSlab;
    ValueAccess::useRestOfBox(box->entries, capacity);
    return box;
}

void ValueAccess::useRestOfBox(Dictionary& dictionary, std::size_t capacity) noexcept {
    if (capacity > 0) {
        dictionary._entries = reinterpret_cast<Dictionary::Entry*>(&dictionary + 1);
        dictionary._capacity = static_cast<std::uint32_t>(capacity) | Dictionary::inBox;
    }
}

void ValueAccess::fillCapacity(Dictionary& dictionary) noexcept {
    dictionary._size = dictionary.capacity();
    std::uninitialized_value_construct_n(dictionary._entries, dictionary._size);
}

std::size_t ValueAccess::indexUnlessDuplicate(Dictionary& dictionary) noexcept {
    if (dictionary._size > searchedSize) {
        return dictionary.rebuildIndex();
    }
    const auto* const entries = dictionary._entries;
    for (std::size_t i = 1; i < dictionary._size; ++i) {
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (entries[earlier].key == entries[i].key) {
                return i;
            }
        }
    }
    return dictionary._size;
}

// Making, copying, moving.

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    reserve(entries.size());
    for (const Entry& entry : entries) {
        set(entry.key, entry.value);
    }
}

Dictionary::Dictionary(const Dictionary& other) {
    reserve(other._size);
    std::uninitialized_copy(other.begin(), other.end(), _entries);
    _size = other._size;
    rebuildIndex();
}

Dictionary& Dictionary::operator=(Dictionary&& other) noexcept {
    Dictionary held(std::move(other)); // which may be part of this one
    clear();
    take(held);
    return *this;
}

void Dictionary::take(Dictionary& other) noexcept {
    if ((other._capacity & inBox) != 0 && &boxBefore(other._entries)->entries == &other) {
        // The block stays where it is; from now on it keeps its box.
        boxBefore(other._entries)->references.fetch_add(1, std::memory_order_relaxed);
    }
    _entries = std::exchange(other._entries, nullptr);
    _size = std::exchange(other._size, 0);
    _capacity = std::exchange(other._capacity, 0);
}

void Dictionary::clear() noexcept {
    std::destroy_n(_entries, _size);
    freeBlock();
    _entries = nullptr;
    _size = 0;
    _capacity = 0;
}

void Dictionary::freeBlock() noexcept {
    if ((_capacity & inBox) == 0) {
        std::free(_entries);
        return;
    }
    detail::DictionaryBox* box = boxBefore(_entries);
    if (&box->entries != this && box->dropReference()) {
        detail::destroyBox(box, detail::Tag::dictionary);
    }
}

void Dictionary::reserve(std::size_t count) {
    if (count > capacity()) {
        grow(count);
    }
}

void Dictionary::grow(std::size_t capacity) {
    auto* block = static_cast<Entry*>(detail::allocate(blockSize(capacity)));
    std::uninitialized_move_n(_entries, _size, block);
    std::destroy_n(_entries, _size);
    freeBlock();
    _entries = block;
    _capacity = static_cast<std::uint32_t>(capacity);
    rebuildIndex();
}

// The index: open addressing, entry number + 1, 0 for a free slot. It is in use when there are more than `searchedSize`
// entries, and at most half full.

std::uint32_t* Dictionary::index() const noexcept {
    return reinterpret_cast<std::uint32_t*>(_entries + capacity());
}

std::size_t Dictionary::rebuildIndex() noexcept {
    if (_size > searchedSize) {
        std::fill_n(index(), indexSlots(capacity()), 0);
        for (std::uint32_t number = 0; number < _size; ++number) {
            if (!addToIndex(number)) {
                return number;
            }
        }
    }
    return _size;
}

bool Dictionary::addToIndex(std::uint32_t number) noexcept {
    const std::string_view key = _entries[number].key.view();
    const std::size_t mask = indexSlots(capacity()) - 1;
    std::uint32_t* const slots = index();
    std::size_t slot = detail::Hasher(slots)(key) & mask;
    for (; slots[slot] != 0; slot = (slot + 1) & mask) {
        if (_entries[slots[slot] - 1].key.view() == key) {
            return false;
        }
    }
    slots[slot] = number + 1;
    return true;
}

std::size_t Dictionary::indexOf(std::string_view key) const noexcept {
    if (_size <= searchedSize) {
        const auto hasKey = [&](const Entry& entry) { return entry.key.view() == key; };
        const Entry* const found = std::find_if(begin(), end(), hasKey);
        return found == end() ? absent : static_cast<std::size_t>(found - begin());
    }
    const std::size_t mask = indexSlots(capacity()) - 1;
    const std::uint32_t* const slots = index();
    for (std::size_t slot = detail::Hasher(slots)(key) & mask;; slot = (slot + 1) & mask) {
        const std::uint32_t number = slots[slot];
        if (number == 0) {
            return absent;
        }
        if (_entries[number - 1].key.view() == key) {
            return number - 1;
        }
    }
}

// Reading and changing entries.

const Value* Dictionary::find(std::string_view key) const noexcept {
    const std::size_t i = indexOf(key);
    return i == absent ? nullptr : &_entries[i].value;
}

Value* Dictionary::find(std::string_view key) noexcept {
    const std::size_t i = indexOf(key);
    return i == absent ? nullptr : &_entries[i].value;
}

void Dictionary::set(Text key, Value value) {
    if (Value* const known = find(key)) {
        *known = std::move(value);
    } else {
        append(std::move(key), std::move(value));
    }
}

bool Dictionary::insert(Text key, Value value) {
    if (indexOf(key) != absent) {
        return false;
    }
    append(std::move(key), std::move(value));
    return true;
}

bool Dictionary::erase(std::string_view key) {
    const std::size_t i = indexOf(key);
    if (i == absent) {
        return false;
    }
    std::move(_entries + i + 1, _entries + _size, _entries + i);
    std::destroy_at(_entries + --_size);
    rebuildIndex();
    return true;
}

void Dictionary::append(Text key, Value value) {
    if (_size == capacity()) {
        grow(std::max<std::size_t>(4, std::size_t{2} * _size));
    }
    new (_entries + _size) Entry{std::move(key), std::move(value)};
    ++_size;
    if (_size == searchedSize + 1) {
        rebuildIndex();
    } else if (_size > searchedSize) {
        addToIndex(_size - 1);
    }
}

std::optional<std::string_view> Dictionary::string(std::string_view key) const noexcept {
    const Value* value = find(key);
    return value ? value->string() : std::nullopt;
}

std::optional<Data> Dictionary::data(std::string_view key) const noexcept {
    const Value* value = find(key);
    return value ? value->data() : std::nullopt;
}

const Array* Dictionary::array(std::string_view key) const noexcept {
    const Value* value = find(key);
    return value ? value->array() : nullptr;
}

const Dictionary* Dictionary::dictionary(std::string_view key) const noexcept {
    const Value* value = find(key);
    return value ? value->dictionary() : nullptr;
}

bool Dictionary::truth(std::string_view key) const noexcept {
    const Value* value = find(key);
    return value && value->truth().value_or(false);
}

} // namespace appsync
