// The value types of property lists: what the work files hold and what the services exchange.
//
// All of them are values: a copy is independent of its original. Strings, data, arrays and dictionaries are shared
// behind the scenes and copied when a shared one is changed, so passing a whole list around costs a reference.
// Different objects may be used on different threads at the same time, also when they share storage.
#pragma once

#include "values/Description.h"
#include "values/storage/ValueCell.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace appsync {

class Value;
class Dictionary;
struct ValueAccess;
using Array = std::vector<Value>;

/// Immutable UTF-8 text of at most 4 GiB. Short texts are held inline; longer ones are shared by all copies.
class Text {
  public:
    Text() : Text(std::string_view{}) {}
    Text(std::string_view text) : _cell(detail::Cell::text(text)) {}
    Text(const std::string& text) : Text(std::string_view(text)) {}
    Text(const char* text) : Text(std::string_view(text)) {}

    [[nodiscard]] std::string_view view() const noexcept { return _cell.textView(); }
    operator std::string_view() const noexcept { return view(); }
    friend bool operator==(const Text& a, const Text& b) noexcept { return a.view() == b.view(); }

  private:
    friend class Value;
    friend struct ValueAccess;
    explicit Text(detail::Cell cell) noexcept : _cell(std::move(cell)) {}
    detail::Cell _cell;
};

/// Immutable bytes, shared by all copies.
class Data {
  public:
    Data() : Data(std::string{}) {}
    explicit Data(std::string bytes);

    [[nodiscard]] std::string_view bytes() const noexcept;
    [[nodiscard]] std::size_t size() const noexcept { return bytes().size(); }
    [[nodiscard]] bool empty() const noexcept { return bytes().empty(); }
    friend bool operator==(const Data& a, const Data& b) noexcept { return a.bytes() == b.bytes(); }

  private:
    friend class Value;
    friend struct ValueAccess;
    explicit Data(detail::Cell cell) noexcept : _cell(std::move(cell)) {}
    detail::Cell _cell;
};

/// A point in time: seconds since 2001-01-01 00:00:00 UTC, negative before it.
struct Date {
    double secondsSinceReference = 0;
    friend bool operator==(Date, Date) = default;
};

/// One value of a property list. A default-constructed value is null, which stands for "no value" where a place has to
/// be filled; no property-list file can hold it.
class Value {
  public:
    enum class Kind { null, boolean, integer, unsignedInteger, real, date, string, data, array, dictionary };

    Value() noexcept = default;
    Value(bool flag) noexcept : _cell(detail::Cell::scalar(detail::Tag::boolean, flag)) {}
    template <class Integer>
    requires(std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>) Value(Integer number)
    noexcept {
        if constexpr (std::is_signed_v<Integer>) {
            _cell = detail::Cell::scalar(detail::Tag::integer, static_cast<std::int64_t>(number));
        } else {
            _cell = detail::Cell::scalar(detail::Tag::unsignedInteger, static_cast<std::uint64_t>(number));
        }
    }
    Value(double number) noexcept : _cell(detail::Cell::scalar(detail::Tag::real, number)) {}
    Value(Date date) noexcept : _cell(detail::Cell::scalar(detail::Tag::date, date)) {}
    Value(Text text) noexcept : _cell(std::move(text._cell)) {}
    Value(std::string_view text) : _cell(detail::Cell::text(text)) {}
    Value(const std::string& text) : Value(std::string_view(text)) {}
    Value(const char* text) : Value(std::string_view(text)) {}
    Value(Data data) noexcept : _cell(std::move(data._cell)) {}
    Value(Array items);
    Value(Dictionary entries);

    [[nodiscard]] Kind kind() const noexcept;
    [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::null; }

    // Each accessor returns nullopt when the value is of another kind.

    [[nodiscard]] std::optional<std::string_view> string() const noexcept;
    [[nodiscard]] std::optional<Text> text() const noexcept;
    [[nodiscard]] std::optional<Data> data() const noexcept;
    [[nodiscard]] std::optional<Date> date() const noexcept;
    /// The truth of a boolean, or of a number that is not zero.
    [[nodiscard]] std::optional<bool> truth() const noexcept;
    /// A whole number within the range of the result.
    [[nodiscard]] std::optional<std::int64_t> integer() const noexcept;
    [[nodiscard]] std::optional<std::uint64_t> unsignedInteger() const noexcept;
    /// Any number, rounded to a real.
    [[nodiscard]] std::optional<double> real() const noexcept;
    [[nodiscard]] const Array* array() const noexcept;
    [[nodiscard]] const Dictionary* dictionary() const noexcept;
    /// For changing in place; storage that is shared with another value is copied first (one level, not deep).
    [[nodiscard]] Array* mutableArray();
    [[nodiscard]] Dictionary* mutableDictionary();

    /// On one line: strings as they are, arrays "(a, b)", dictionaries "{k = v; l = w;}", data as its length
    /// ("<5 bytes>"), booleans as 1 and 0, dates as their seconds, null "(null)". Containers more than 512 levels down
    /// are left out ("..."), and so is what would go beyond the description's limit.
    [[nodiscard]] std::string description() const;
    void appendDescription(Description& out) const;

    /// Same kind and content; whole numbers are compared by value, dictionaries without regard to order. Containers
    /// more than 512 levels down, where no file reaches, are equal only when they share storage.
    friend bool operator==(const Value& a, const Value& b) noexcept;

  private:
    friend struct ValueAccess;
    detail::Cell _cell;
};

static_assert(sizeof(Value) == 16);

/// A table from text to value that keeps the order of insertion. Small ones are searched, larger ones are indexed.
class Dictionary {
  public:
    struct Entry {
        Text key;
        Value value;
    };

    Dictionary() noexcept = default;
    Dictionary(std::initializer_list<Entry> entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept { take(other); }
    Dictionary& operator=(const Dictionary& other) { return *this = Dictionary(other); }
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary() { clear(); }

    [[nodiscard]] std::size_t size() const noexcept { return _size; }
    [[nodiscard]] bool empty() const noexcept { return _size == 0; }
    /// Valid until the dictionary changes.
    [[nodiscard]] const Entry* begin() const noexcept { return _entries; }
    [[nodiscard]] const Entry* end() const noexcept { return _entries + _size; }
    void reserve(std::size_t count);

    /// The value of a key, or null. The pointer is valid until the dictionary changes.
    [[nodiscard]] const Value* find(std::string_view key) const noexcept;
    [[nodiscard]] Value* find(std::string_view key) noexcept;
    [[nodiscard]] bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
    /// Sets the value of a key; a new key comes last.
    void set(Text key, Value value);
    /// Adds a key; false, and nothing changes, when the dictionary has it already.
    bool insert(Text key, Value value);
    /// Removes a key; false when there is none. Costs time in proportion to the size.
    bool erase(std::string_view key);

    // The value of a key if it is there and of the kind asked for.

    [[nodiscard]] std::optional<std::string_view> string(std::string_view key) const noexcept;
    [[nodiscard]] std::optional<Data> data(std::string_view key) const noexcept;
    [[nodiscard]] const Array* array(std::string_view key) const noexcept;
    [[nodiscard]] const Dictionary* dictionary(std::string_view key) const noexcept;
    /// The truth of a boolean or number; false when the key is missing or something else.
    [[nodiscard]] bool truth(std::string_view key) const noexcept;

    friend bool operator==(const Dictionary& a, const Dictionary& b) noexcept;

  private:
    friend struct ValueAccess;

    // The entries and, behind them, the index lie in one block of memory: a block of the dictionary's own, or the rest
    // of the box that holds the dictionary.
    [[nodiscard]] std::uint32_t capacity() const noexcept { return _capacity & ~inBox; }
    [[nodiscard]] std::uint32_t* index() const noexcept;
    [[nodiscard]] std::size_t indexOf(std::string_view key) const noexcept;
    void append(Text key, Value value);
    void grow(std::size_t capacity);
    std::size_t rebuildIndex() noexcept;
    bool addToIndex(std::uint32_t number) noexcept;
    void take(Dictionary& other) noexcept;
    void clear() noexcept;
    void freeBlock() noexcept;

    static constexpr std::uint32_t inBox = 1U << 31;

    Entry* _entries = nullptr;
    std::uint32_t _size = 0;
    std::uint32_t _capacity = 0; // the highest bit says that the block is a box's
};

} // namespace appsync
