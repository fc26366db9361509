#include "device/database/DatabaseConnection.h"

#include "device/database/DatabaseFiles.h"
#include "device/root/FaultPoint.h"
#include "files/Syscalls.h"

#include <unistd.h>

namespace appsync::device {

namespace {

/// Number of the layout that this file describes: the table of the services' versions.
constexpr std::int64_t formatVersion = 1;

/// The write-ahead log without shared memory: this process is the only one that reads or writes. A database from
/// elsewhere can hold nothing that runs functions on its own.
constexpr const char* settings = "PRAGMA locking_mode=EXCLUSIVE;"
                                 "PRAGMA journal_mode=WAL;"
                                 "PRAGMA synchronous=NORMAL;"
                                 "PRAGMA journal_size_limit=8388608;"
                                 "PRAGMA foreign_keys=ON;"
                                 "PRAGMA trusted_schema=OFF;"
                                 "PRAGMA cell_size_check=ON;"
                                 "PRAGMA temp_store=MEMORY;";

constexpr const char* versionTable = "CREATE TABLE IF NOT EXISTS service_versions ("
                                     "service TEXT PRIMARY KEY, version INTEGER NOT NULL) WITHOUT ROWID;"
                                     "PRAGMA user_version=1;";

DatabaseError classify(int code) {
    switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB: return DatabaseError::damaged;
    case SQLITE_FULL: return DatabaseError::full;
    default: return DatabaseError::failed;
    }
}

std::string_view remedy(int code) {
    if (code == SQLITE_CANTOPEN_ISDIR) {
        return "; the file, or one beside it whose name begins alike, is a link, a pipe or something else that is no "
               "file: move that away";
    }
    switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return "; the file is damaged: put a copy of it back, or move it and the files beside it whose names begin "
               "alike "
               "away, which makes the device forget its apps";
    case SQLITE_FULL: return "; free some space on the device's disk and try again";
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return "; another program has the database open, end it";
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY: return "; check the permissions of the file and its folder";
    default: return {};
    }
}

} // namespace

DatabaseConnection::~DatabaseConnection() {
    for (const auto& [text, statements] : _idleStatements) {
        for (sqlite3_stmt* statement : statements) {
            sqlite3_finalize(statement);
        }
    }
    sqlite3_close(_handle);
}

ErrorPtr DatabaseConnection::open() noexcept {
    const std::string path =
        "/proc/self/fd/" + std::to_string(_folder.get()) + "/" + _path.substr(_path.rfind('/') + 1);
    const bool wasInterrupted = ::access((path + "-wal").c_str(), F_OK) == 0; // closing removes the log
    constexpr int flags =
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE;
    if (const int code = sqlite3_open_v2(path.c_str(), &_handle, flags, databaseFiles()); code != SQLITE_OK) {
        return _makeFailure(code, "opening it");
    }
    if (ErrorPtr error = _configure()) {
        return error;
    }
    return wasInterrupted ? _checkContent() : nullptr;
}

ErrorPtr DatabaseConnection::_configure() noexcept {
    sqlite3_db_config(_handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(_handle, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    execute(settings);
    if (!_failure) {
        if (ErrorPtr error = _checkVersion()) {
            return error;
        }
    }
    return std::exchange(_failure, nullptr);
}

ErrorPtr DatabaseConnection::_checkVersion() {
    sqlite3_stmt* query = prepare("PRAGMA user_version", {}, false);
    const std::int64_t version = step(query) ? sqlite3_column_int64(query, 0) : 0;
    release(query);
    if (version > formatVersion) {
        return makeFailure(DatabaseError::newerSchema, "it has format " + std::to_string(version) +
                                                           ", this program knows formats up to " +
                                                           std::to_string(formatVersion) + "; use the later program");
    }
    if (version < formatVersion) {
        execute(std::string("BEGIN;") + versionTable + "COMMIT;");
    }
    return nullptr;
}

ErrorPtr DatabaseConnection::_checkContent() {
    sqlite3_stmt* query = prepare("PRAGMA quick_check(1)", {}, false);
    std::string answer = "it cannot be checked";
    if (step(query)) {
        answer = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    }
    release(query);
    if (ErrorPtr error = std::exchange(_failure, nullptr)) {
        return error;
    }
    return answer == "ok" ? nullptr : _makeFailure(SQLITE_CORRUPT, "checking it (" + answer + ")");
}

void DatabaseConnection::begin(Durability durability) noexcept {
    _failure = nullptr;
    if (durability != _durability) { // cannot be changed inside a transaction
        execute(durability == Durability::durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
        _durability = durability;
    }
    sqlite3_stmt* statement = prepare("BEGIN", {}, false);
    (void)step(statement);
    release(statement);
}

ErrorPtr DatabaseConnection::commit() noexcept {
    if (!_failure) {
        if (const int failed = beforeChange(_faultPoint.get(), "commit", _path)) {
            fail(makeFailure(DatabaseError::failed, "committing: " + systemText(failed)));
        }
    }
    sqlite3_stmt* statement = prepare("COMMIT", {}, false);
    (void)step(statement);
    release(statement);
    if (_failure) {
        rollBack();
    }
    return _failure;
}

void DatabaseConnection::rollBack() noexcept {
    if (sqlite3_get_autocommit(_handle) == 0) {
        sqlite3_exec(_handle, "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

sqlite3_stmt* DatabaseConnection::prepare(std::string_view sql, std::span<const SqlValue> arguments,
                                          bool copyArguments) noexcept {
    if (_failure) {
        return nullptr;
    }
    sqlite3_stmt* statement = nullptr;
    if (const auto idle = _idleStatements.find(sql); idle != _idleStatements.end() && !idle->second.empty()) {
        statement = idle->second.back();
        idle->second.pop_back();
    } else if (const int code = sqlite3_prepare_v3(_handle, sql.data(), static_cast<int>(sql.size()),
                                                   SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
               code != SQLITE_OK) {
        _fail(code, sql);
        return nullptr;
    }
    if (const int code = _bind(statement, arguments, copyArguments); code != SQLITE_OK) {
        _fail(code, sql);
        release(statement);
        return nullptr;
    }
    return statement;
}

int DatabaseConnection::_bind(sqlite3_stmt* statement, std::span<const SqlValue> arguments, bool copy) noexcept {
    const auto keep = copy ? SQLITE_TRANSIENT : SQLITE_STATIC;
    int number = 0;
    for (const SqlValue& argument : arguments) {
        ++number;
        const auto& value = argument.value();
        int code = SQLITE_OK;
        if (const auto* whole = std::get_if<std::int64_t>(&value)) {
            code = sqlite3_bind_int64(statement, number, *whole);
        } else if (const auto* real = std::get_if<double>(&value)) {
            code = sqlite3_bind_double(statement, number, *real);
        } else if (const auto* text = std::get_if<std::string_view>(&value)) {
            code = sqlite3_bind_text64(statement, number, text->data() ? text->data() : "", text->size(), keep,
                                       SQLITE_UTF8);
        } else if (const auto* data = std::get_if<SqlValue::Bytes>(&value)) {
            const char* start = data->bytes.data() ? data->bytes.data() : "";
            code = sqlite3_bind_blob64(statement, number, start, data->bytes.size(), keep);
        } else {
            code = sqlite3_bind_null(statement, number);
        }
        if (code != SQLITE_OK) {
            return code;
        }
    }
    return number == sqlite3_bind_parameter_count(statement) ? SQLITE_OK : SQLITE_RANGE;
}

bool DatabaseConnection::step(sqlite3_stmt* statement) noexcept {
    if (!statement || _failure) {
        return false;
    }
    const int code = sqlite3_step(statement);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
        _fail(code, sqlite3_sql(statement));
    }
    return code == SQLITE_ROW;
}

void DatabaseConnection::release(sqlite3_stmt* statement) noexcept {
    if (!statement) {
        return;
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    _idleStatements[sqlite3_sql(statement)].push_back(statement);
}

void DatabaseConnection::execute(const std::string& sql) noexcept {
    if (_failure) {
        return;
    }
    if (const int code = sqlite3_exec(_handle, sql.c_str(), nullptr, nullptr, nullptr); code != SQLITE_OK) {
        _fail(code, sql);
    }
}

void DatabaseConnection::fail(ErrorPtr error) noexcept {
    if (!_failure) {
        _failure = std::move(error);
    }
}

void DatabaseConnection::_fail(int code, std::string_view what) noexcept {
    fail(_makeFailure(code, what));
}

ErrorPtr DatabaseConnection::_makeFailure(int code, std::string_view what) const {
    std::string text(what.substr(0, 120));
    text.append(": ").append(_handle ? sqlite3_errmsg(_handle) : sqlite3_errstr(code));
    const int systemError = _handle ? sqlite3_system_errno(_handle) : 0;
    if ((code & 0xff) == SQLITE_IOERR && systemError != 0) {
        text.append(" (").append(systemText(systemError)).append(")");
    }
    return makeFailure(classify(code), text.append(remedy(code)));
}

ErrorPtr DatabaseConnection::makeFailure(DatabaseError code, const std::string& text) const {
    return makeError(DatabaseErrorDomain, static_cast<std::int64_t>(code), "the database " + _path + ": " + text,
                     _path);
}

} // namespace appsync::device
