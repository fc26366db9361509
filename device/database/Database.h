// The device's database: one SQLite file, one connection, typed access.
#pragma once

#include "concurrency/Mutex.h"
#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <concepts>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace appsync {
class Timeline;
}

namespace appsync::device {

class Root;

inline constexpr std::string_view databaseErrorDomain = "DeviceDatabase";
enum class DatabaseError : std::int64_t {
    failed = 1,      // the description has SQLite's reason
    damaged = 2,     // the file is no database, or a damaged one
    newerSchema = 3, // made by a later version of this program
    full = 4,        // no space is left
    olderSchema = 5, // `look`: made by an earlier version of this program, or not made completely
};

/// When a committed transaction outlasts a loss of power. Either way it outlasts the process, and after a loss of power
/// the database holds a prefix of the committed transactions.
enum class Durability {
    ordinary, // within a while; costs no wait for the disk
    durable,  // when `commit` returns, and with it everything committed before
};

/// Every operation may be called on any thread. While a `Transaction` exists, those of other threads wait. The compiler
/// sees that a transaction holds the database, and so refuses nested ones; what it holds is not annotated, since a
/// transaction's operations cannot be told that its database is the one that it was made with.
class Database {
  public:
    class Transaction;

    /// The rows of a query, one after another; lives no longer than its transaction. Columns are read into numbers,
    /// enumerations, texts and data, or an optional of these where null is told apart. A column of another type is
    /// converted as SQLite does, so that a damaged row gives odd values and no failure.
    class Rows {
      public:
        Rows(const Rows&) = delete;
        Rows& operator=(const Rows&) = delete;
        ~Rows() { _database._release(_statement); }
        /// Goes to the next (at first: the first) row. False when there is none, or after a failure, which the
        /// transaction then reports.
        [[nodiscard]] bool next() noexcept;
        /// Reads the first columns of the row, one into each field.
        template <class... Fields> void read(Fields&... fields) const {
            int column = 0;
            (_read(column++, fields), ...);
        }
        /// Reads the first column.
        template <class Field> [[nodiscard]] Field first() const {
            Field field{};
            _read(0, field);
            return field;
        }

      private:
        friend class Transaction;
        Rows(Database& database, sqlite3_stmt* statement) noexcept : _database(database), _statement(statement) {}
        [[nodiscard]] bool _isNull(int column) const noexcept;
        void _read(int column, std::int64_t& number) const noexcept;
        void _read(int column, double& number) const noexcept;
        void _read(int column, std::string& text) const;
        void _read(int column, Data& data) const;
        template <class Number> void _read(int column, Number& number) const noexcept {
            std::int64_t whole = 0;
            _read(column, whole);
            number = static_cast<Number>(whole);
        }
        template <class Field> void _read(int column, std::optional<Field>& field) const {
            field.reset();
            if (!_isNull(column)) {
                _read(column, field.emplace());
            }
        }
        Database& _database;
        sqlite3_stmt* _statement; // null after a failure
    };

    /// Statements that take effect together. After the first failure the rest do nothing, and `commit` reports it.
    /// Not to be nested on one thread; keep it short. Arguments are what columns can be read into, but
    /// for real numbers; they are copied.
    class SCOPED_CAPABILITY Transaction {
      public:
        explicit Transaction(Database& database, Durability durability = Durability::ordinary) noexcept
            ACQUIRE(database._mutex);
        /// Rolls back what has not been committed.
        ~Transaction() RELEASE();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

        /// Runs a statement that has no rows.
        template <class... Arguments> void run(std::string_view sql, const Arguments&... arguments) noexcept {
            _database._run(sql, arguments...);
        }
        template <class... Arguments>
        [[nodiscard]] Rows query(std::string_view sql, const Arguments&... arguments) noexcept {
            return Rows(_database, _database._prepare(sql, arguments...));
        }
        [[nodiscard]] std::int64_t lastRowIdentifier() const noexcept;
        /// The first failure; null while there was none.
        [[nodiscard]] const ErrorPtr& error() const noexcept { return _database._failure; }
        [[nodiscard]] Result<void> commit() noexcept;

      private:
        Database& _database;
    };

    /// A transaction of one statement.
    template <class... Arguments>
    [[nodiscard]] Result<void> run(Durability durability, std::string_view sql, const Arguments&... arguments) {
        Transaction transaction(*this, durability);
        transaction.run(sql, arguments...);
        return transaction.commit();
    }
    /// A transaction of one query: calls `visit` with the rows, each in its turn.
    template <class Visit, class... Arguments>
    [[nodiscard]] Result<void> read(const Visit& visit, std::string_view sql, const Arguments&... arguments) {
        Transaction transaction(*this);
        for (auto rows = transaction.query(sql, arguments...); rows.next();) {
            visit(std::as_const(rows));
        }
        return transaction.error();
    }

    /// Opens a device's database, and makes it when there is none. Other processes may look at it meanwhile. The root
    /// must outlive it.
    [[nodiscard]] static Result<std::unique_ptr<Database>> open(Root& root) { return _make(root, false); }
    /// Opens it to look at it, also while another process changes it, and where nothing can be written. All
    /// transactions together see one moment, that of this call; none changes anything. Nothing is made or written, not
    /// even beside the file.
    [[nodiscard]] static Result<std::unique_ptr<Database>> look(Root& root) { return _make(root, true); }
    ~Database();

    /// Brings a service's own tables up to date. `steps[n]` is the SQL (one or more statements) that leads from version
    /// n to n + 1; steps that have been done are not done again, so that a released step must never change. To be
    /// called by each service when it is made.
    /// One who looks brings nothing up to date: tables of an earlier version are an error.
    [[nodiscard]] Result<void> registerSchema(std::string_view service, std::span<const std::string_view> steps);
    /// Whether it was opened to look at it.
    [[nodiscard]] bool isReadOnly() const noexcept { return _isReadOnly; }

  private:
    Database(Descriptor folder, Root& root, bool isReadOnly);
    [[nodiscard]] static Result<std::unique_ptr<Database>> _make(Root& root, bool isReadOnly);
    void _open(const std::string& path) noexcept;
    void _look(const std::string& path) noexcept;
    void _connect(const std::string& address, int flags, const char* files) noexcept;

    // After a failure none of these does anything.

    /// A statement with its arguments bound; null after a failure.
    template <class... Arguments>
    [[nodiscard]] sqlite3_stmt* _prepare(std::string_view sql, const Arguments&... arguments) noexcept {
        sqlite3_stmt* statement = _statementWith(sql, sizeof...(arguments));
        if (statement) {
            int number = 0;
            (_bind(statement, ++number, arguments), ...);
        }
        return statement;
    }
    [[nodiscard]] sqlite3_stmt* _statementWith(std::string_view sql, std::size_t parameters) noexcept;
    void _bind(sqlite3_stmt* statement, int number, std::int64_t whole) noexcept;
    void _bind(sqlite3_stmt* statement, int number, double real) noexcept = delete; // it would be cut to a whole number
    void _bind(sqlite3_stmt* statement, int number, std::string_view text) noexcept;
    void _bind(sqlite3_stmt* statement, int number, const Data& data) noexcept;
    template <class Number>
    requires(std::integral<Number> || std::is_enum_v<Number>) void _bind(sqlite3_stmt* statement, int number,
                                                                         Number whole) noexcept {
        _bind(statement, number, static_cast<std::int64_t>(whole));
    }
    template <class T> void _bind(sqlite3_stmt* statement, int number, const std::optional<T>& value) noexcept {
        if (value) { // a parameter that nothing is bound to is null
            _bind(statement, number, *value);
        }
    }
    void _check(sqlite3_stmt* statement, int code) noexcept;
    /// Whether there is a (next) row.
    [[nodiscard]] bool _step(sqlite3_stmt* statement) noexcept;
    /// Runs a statement to its first row.
    template <class... Arguments> void _run(std::string_view sql, const Arguments&... arguments) noexcept {
        sqlite3_stmt* statement = _prepare(sql, arguments...);
        (void)_step(statement);
        _release(statement);
    }
    /// Runs any number of statements.
    void _execute(const std::string& sql) noexcept;
    void _fail(int code, std::string_view what) noexcept;
    void _fail(DatabaseError code, const std::string& text) noexcept;

    /// Keeps a statement for the next use of the same text.
    void _release(sqlite3_stmt* statement) noexcept;
    void _checkVersion();
    void _checkContent();

    const Descriptor _folder;
    const std::string _path; // on this machine, for messages
    FaultPoint* const _faultPoint;
    Timeline* const _timeline; // may be null
    const bool _isReadOnly;
    Mutex _mutex; // held by the present transaction, which alone uses the rest
    sqlite3* _handle = nullptr;
    std::map<std::string, std::vector<sqlite3_stmt*>, std::less<>> _idleStatements; // by their text
    ErrorPtr _failure; // the first of the present transaction
    Durability _durability = Durability::ordinary;
};

} // namespace appsync::device
