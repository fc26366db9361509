// The SQLite connection below the database: statements that are kept prepared, and the first failure of a transaction.
#pragma once

#include "device/database/Database.h"

#include <sqlite3.h>

#include <functional>
#include <unordered_map>
#include <vector>

namespace appsync::device {

/// Used by one thread at a time. After a failure of the present transaction its operations do nothing.
class DatabaseConnection {
  public:
    /// The last part of `path` is the file's name in the opened folder; the rest is for messages.
    DatabaseConnection(Descriptor folder, std::string path, std::shared_ptr<FaultPoint> faultPoint)
        : _folder(std::move(folder)), _path(std::move(path)), _faultPoint(std::move(faultPoint)) {}
    ~DatabaseConnection();
    DatabaseConnection(const DatabaseConnection&) = delete;
    DatabaseConnection& operator=(const DatabaseConnection&) = delete;

    [[nodiscard]] ErrorPtr open() noexcept;

    void begin(Durability durability) noexcept;
    [[nodiscard]] ErrorPtr commit() noexcept;
    void rollBack() noexcept;
    /// The first failure since `begin`.
    [[nodiscard]] const ErrorPtr& failure() const noexcept { return _failure; }

    /// A statement with its arguments bound; null after a failure. With `copyArguments` they need not outlive the call.
    [[nodiscard]] sqlite3_stmt* prepare(std::string_view sql, std::span<const SqlValue> arguments,
                                        bool copyArguments) noexcept;
    /// Whether there is a (next) row.
    [[nodiscard]] bool step(sqlite3_stmt* statement) noexcept;
    /// Keeps a statement for the next use of the same text.
    void release(sqlite3_stmt* statement) noexcept;
    /// Runs any number of statements.
    void execute(const std::string& sql) noexcept;
    void fail(ErrorPtr error) noexcept;

    [[nodiscard]] sqlite3* handle() const noexcept { return _handle; }
    [[nodiscard]] ErrorPtr makeFailure(DatabaseError code, const std::string& text) const;

  private:
    struct TextHash : std::hash<std::string_view> {
        using is_transparent = void;
    };

    [[nodiscard]] ErrorPtr _configure() noexcept;
    [[nodiscard]] ErrorPtr _checkContent();
    [[nodiscard]] ErrorPtr _checkVersion();
    void _fail(int code, std::string_view what) noexcept;
    [[nodiscard]] ErrorPtr _makeFailure(int code, std::string_view what) const;
    [[nodiscard]] int _bind(sqlite3_stmt* statement, std::span<const SqlValue> arguments, bool copy) noexcept;

    const Descriptor _folder;
    const std::string _path;
    const std::shared_ptr<FaultPoint> _faultPoint;
    sqlite3* _handle = nullptr;
    std::unordered_map<std::string, std::vector<sqlite3_stmt*>, TextHash, std::equal_to<>> _idleStatements;
    ErrorPtr _failure;
    Durability _durability = Durability::ordinary;
};

} // namespace appsync::device
