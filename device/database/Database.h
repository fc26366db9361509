// The device's database: one SQLite file, one connection, typed access.
#pragma once

#include "device/root/FaultPoint.h"
#include "files/Descriptor.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <concepts>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

struct sqlite3_stmt;

namespace appsync::device {

class DatabaseConnection;

inline constexpr std::string_view DatabaseErrorDomain = "DeviceDatabase";
enum class DatabaseError : std::int64_t {
    failed = 1,      // the description has SQLite's reason
    damaged = 2,     // the file is no database, or a damaged one
    newerSchema = 3, // made by a later version of this program
    full = 4,        // no space is left
};

/// When a committed transaction outlasts a loss of power. Either way it outlasts the process, and after a loss of power
/// the database holds a prefix of the committed transactions.
enum class Durability {
    ordinary, // within a while; costs no wait for the disk
    durable,  // when `commit` returns, and with it everything committed before
};

/// A value bound to a parameter of a statement. Texts and data must outlive the call they are passed to.
class SqlValue {
  public:
    SqlValue(std::nullopt_t) noexcept {}
    template <std::integral Number> SqlValue(Number number) noexcept : _value(static_cast<std::int64_t>(number)) {}
    SqlValue(double number) noexcept : _value(number) {}
    SqlValue(std::string_view text) noexcept : _value(text) {}
    SqlValue(const std::string& text) noexcept : _value(std::string_view(text)) {}
    SqlValue(const char* text) noexcept : _value(std::string_view(text)) {}
    SqlValue(const Data& bytes) noexcept : _value(Bytes{bytes.bytes()}) {}
    template <class T>
    SqlValue(const std::optional<T>& value) noexcept : SqlValue(value ? SqlValue(*value) : SqlValue(std::nullopt)) {}
    struct Bytes {
        std::string_view bytes;
    };
    [[nodiscard]] const auto& value() const noexcept { return _value; }

  private:
    std::variant<std::monostate, std::int64_t, double, std::string_view, Bytes> _value;
};

/// Every operation may be called on any thread. While a `Transaction` exists, those of other threads wait.
class Database {
  public:
    class Transaction;

    /// The rows of a query, one after another; lives no longer than its transaction. Columns count from 0; a column of
    /// another type is converted as SQLite does, so that a damaged row gives odd values and no failure.
    class Rows {
      public:
        Rows(Rows&& other) noexcept;
        Rows& operator=(Rows&&) = delete;
        ~Rows();
        /// Goes to the next (at first: the first) row. False when there is none, or after a failure, which the
        /// transaction then reports.
        [[nodiscard]] bool next() noexcept;
        [[nodiscard]] bool isNull(int column) const noexcept;
        [[nodiscard]] std::int64_t integer(int column) const noexcept;
        [[nodiscard]] double real(int column) const noexcept;
        /// Valid until `next`.
        [[nodiscard]] std::string_view text(int column) const noexcept;
        [[nodiscard]] Data data(int column) const;
        [[nodiscard]] std::optional<std::string> optionalText(int column) const;
        [[nodiscard]] std::optional<Data> optionalData(int column) const;

      private:
        friend class Transaction;
        Rows(DatabaseConnection& connection, sqlite3_stmt* statement) noexcept
            : _connection(connection), _statement(statement) {}
        DatabaseConnection& _connection;
        sqlite3_stmt* _statement; // null after a failure
    };

    /// Statements that take effect together. After the first failure the rest do nothing, and `commit` reports it.
    /// Not to be nested on one thread; keep it short.
    class Transaction {
      public:
        explicit Transaction(Database& database, Durability durability = Durability::ordinary) noexcept;
        /// Rolls back what has not been committed.
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

        /// Runs a statement that answers no rows.
        template <class... Arguments> void run(std::string_view sql, const Arguments&... arguments) noexcept {
            _run(sql, std::initializer_list<SqlValue>{SqlValue(arguments)...});
        }
        template <class... Arguments>
        [[nodiscard]] Rows query(std::string_view sql, const Arguments&... arguments) noexcept {
            return _query(sql, std::initializer_list<SqlValue>{SqlValue(arguments)...});
        }
        /// Rows that the last `run` inserted, changed or deleted.
        [[nodiscard]] std::int64_t changes() const noexcept;
        [[nodiscard]] std::int64_t lastRowIdentifier() const noexcept;
        /// The first failure; null while there was none.
        [[nodiscard]] const ErrorPtr& error() const noexcept;
        [[nodiscard]] Result<void> commit() noexcept;

      private:
        void _run(std::string_view sql, std::span<const SqlValue> arguments) noexcept;
        Rows _query(std::string_view sql, std::span<const SqlValue> arguments) noexcept;

        std::unique_lock<std::mutex> _lock;
        DatabaseConnection& _connection;
        bool _ended = false;
    };

    /// Opens the database at a path of this machine, which must not lead through symbolic links, and makes it when
    /// there is none. Other processes cannot use it meanwhile.
    [[nodiscard]] static Result<std::unique_ptr<Database>> open(const std::string& path,
                                                                std::shared_ptr<FaultPoint> faultPoint = nullptr);
    /// Likewise, in an opened folder: it stays there whatever becomes of the path, whose last part is the file's name.
    [[nodiscard]] static Result<std::unique_ptr<Database>> open(Descriptor folder, const std::string& path,
                                                                std::shared_ptr<FaultPoint> faultPoint = nullptr);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Brings a service's own tables up to date. `steps[n]` is the SQL (one or more statements) that leads from version
    /// n to n + 1; steps that have been done are not done again, so that a released step must never change. To be
    /// called by each service when it is made.
    [[nodiscard]] Result<void> registerSchema(std::string_view service, std::span<const std::string_view> steps);
    [[nodiscard]] const std::string& path() const noexcept { return _path; }

  private:
    Database(std::string path, std::unique_ptr<DatabaseConnection> connection);

    const std::string _path;
    std::mutex _mutex; // held by the present transaction
    std::unique_ptr<DatabaseConnection> _connection;
};

} // namespace appsync::device
