#include "device/database/Database.h"

#include "device/root/Root.h"
#include "files/Syscalls.h"
#include "timeline/Timeline.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace appsync::device {

namespace {

/// Number of the layout that this file describes: the table of the services' versions.
constexpr std::int64_t formatVersion = 1;

/// A database from elsewhere can hold nothing that runs functions on its own.
constexpr const char* safety = "PRAGMA trusted_schema=OFF;"
                               "PRAGMA cell_size_check=ON;"
                               "PRAGMA temp_store=MEMORY;";

/// The write-ahead log, beside which others can look.
constexpr const char* settings = "PRAGMA journal_mode=WAL;"
                                 "PRAGMA synchronous=NORMAL;"
                                 "PRAGMA journal_size_limit=8388608;"
                                 "PRAGMA foreign_keys=ON;";

/// How long one waits for the other where the moments of a writer and of a reader meet, such as when the file is made.
constexpr int maxWait = 5000; // milliseconds

constexpr const char* versionTable = "CREATE TABLE IF NOT EXISTS service_versions ("
                                     "service TEXT PRIMARY KEY, version INTEGER NOT NULL) WITHOUT ROWID;"
                                     "PRAGMA user_version=1;";

constexpr const char* logExtension = "-wal";
constexpr std::string_view notUpToDate =
    "its tables are not those of this program: the device is just being made, or was left by an earlier version; have "
    "a command that changes the device open it first";

/// Of a file; -1 when there is none.
std::int64_t sizeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? static_cast<std::int64_t>(status.st_size) : -1;
}

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
    if (code == SQLITE_READONLY_RECOVERY || code == SQLITE_READONLY_CANTINIT) {
        return "; the process that had it open has just ended: try again";
    }
    switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return "; the file is damaged: put a copy of it back (apps that have changed since are given up), or move it "
               "and the files beside it whose names begin alike away and create the device again, without apps";
    case SQLITE_FULL: return "; free some space on the device's disk and try again";
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return "; another program has the database open, end it";
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY: return "; check the permissions of the file and its folder";
    default: return {};
    }
}

// How SQLite reaches its files: only regular ones, and by the path that it is given.

sqlite3_vfs* usual() noexcept {
    return sqlite3_vfs_find("unix");
}

int keepPath(sqlite3_vfs* /*files*/, const char* path, int size, char* out) {
    const std::size_t length = std::strlen(path) + 1;
    if (length > static_cast<std::size_t>(size)) {
        return SQLITE_CANTOPEN;
    }
    std::memcpy(out, path, length);
    return SQLITE_OK;
}

bool isOther(const char* path) {
    struct stat status {};
    return ::lstat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

int openFile(sqlite3_vfs* /*files*/, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    // SQLite opens the shared memory by itself, beside the database.
    const bool isDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    if (path && (isOther(path) || (isDatabase && isOther((std::string(path) + "-shm").c_str())))) {
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN_ISDIR;
    }
    return usual()->xOpen(usual(), path, file, flags, outFlags);
}

int openFileForReading(sqlite3_vfs* files, const char* path, sqlite3_file* file, int flags, int* outFlags) {
    constexpr int changing = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE;
    return openFile(files, path, file, (flags & ~changing) | SQLITE_OPEN_READONLY, outFlags);
}

int refuseRemoval(sqlite3_vfs* /*files*/, const char* /*path*/, int /*syncsFolder*/) {
    return SQLITE_READONLY;
}

/// For root SQLite gives the files beside the database the owner of that, also those that it opens to read.
int giveUnlessForReading(int file, uid_t user, gid_t group) {
    const int flags = ::fcntl(file, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) == O_RDONLY ? 0 : ::fchown(file, user, group);
}

sqlite3_vfs makeFiles(const char* name) {
    sqlite3_initialize();
    sqlite3_vfs own = *usual();
    own.pNext = nullptr;
    own.zName = name;
    own.xFullPathname = keepPath;
    own.xOpen = openFile;
    return own;
}

/// The name of SQLite's usual access to files, with two differences. A path is used as it is: SQLite would resolve one
/// that leads through the descriptor of an opened folder, and go on with where that folder stood then. And what stands
/// there but is no regular file is refused with SQLITE_CANTOPEN_ISDIR; opening a pipe would wait without end. For one
/// who looks, every file is opened for reading alone, and none is made.
const char* databaseFiles(bool isForReading) noexcept {
    static sqlite3_vfs usualFiles = makeFiles("opened-folder");
    static sqlite3_vfs readFiles = [] {
        usual()->xSetSystemCall(usual(), "fchown", reinterpret_cast<sqlite3_syscall_ptr>(giveUnlessForReading));
        sqlite3_vfs own = makeFiles("opened-folder-for-reading");
        own.xOpen = openFileForReading;
        own.xDelete = refuseRemoval;
        return own;
    }();
    // Opening a file by a name that is not registered fails.
    static const int registered = sqlite3_vfs_register(&usualFiles, 0) | sqlite3_vfs_register(&readFiles, 0);
    (void)registered;
    return isForReading ? readFiles.zName : usualFiles.zName;
}

} // namespace

Database::Database(Descriptor folder, Root& root, bool isReadOnly)
    : _folder(std::move(folder)), _path(root.databasePath()), _faultPoint(root.files().faultPoint()),
      _timeline(root.files().timeline()), _isReadOnly(isReadOnly) {}

Result<std::unique_ptr<Database>> Database::_make(Root& root, bool isReadOnly) {
    auto folder = root.files().open(databaseFolder, O_PATH | O_DIRECTORY | O_NOFOLLOW);
    if (!folder) {
        return folder.error();
    }
    std::unique_ptr<Database> database(new Database(std::move(*folder), root, isReadOnly));
    const std::string path = "/proc/self/fd/" + std::to_string(database->_folder.get()) + "/" +
                             database->_path.substr(database->_path.rfind('/') + 1);
    isReadOnly ? database->_look(path) : database->_open(path);
    return database->_failure ? database->_failure : Result(std::move(database));
}

void Database::_connect(const std::string& address, int flags, const char* files) noexcept {
    constexpr int always = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE;
    if (const int code = sqlite3_open_v2(address.c_str(), &_handle, flags | always, files); code != SQLITE_OK) {
        _fail(code, _isReadOnly ? "opening it to look at it" : "opening it");
        return;
    }
    sqlite3_db_config(_handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(_handle, SQLITE_DBCONFIG_DQS_DML, 0, nullptr);
    sqlite3_busy_timeout(_handle, maxWait);
    _execute(safety);
}

void Database::_open(const std::string& path) noexcept {
    const bool wasInterrupted = sizeOf(path + logExtension) > 0; // closing empties the log
    _connect(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, databaseFiles(false));
    if (_failure) {
        return;
    }
    // The log and the shared memory stay: one who looks cannot make them.
    int keepsFiles = 1;
    sqlite3_file_control(_handle, "main", SQLITE_FCNTL_PERSIST_WAL, &keepsFiles);
    _execute(settings);
    _checkVersion();
    if (wasInterrupted) {
        _checkContent();
    }
}

/// With the log and the shared memory there SQLite finds out by their locks whether the device is open elsewhere, and
/// without them only that nobody has opened it since it was closed, by a version of this program that removed them.
void Database::_look(const std::string& path) noexcept {
    if (sizeOf(path) < 0 && errno == ENOENT) {
        _fail(DatabaseError::failed, "it is missing; put a copy of it back");
        return;
    }
    const std::int64_t logSize = sizeOf(path + logExtension);
    const bool hasSharedMemory = sizeOf(path + "-shm") >= 0;
    if (logSize > 0 && !hasSharedMemory) {
        _fail(
            DatabaseError::failed,
            "its log, the file beside it that ends in \"-wal\", holds changes that cannot be read without the one that "
            "ends in \"-shm\", which is missing; have a command that changes the device open it first");
        return;
    }
    const bool isAlone = logSize < 0 || !hasSharedMemory;
    const std::string address = "file:" + path + (isAlone ? "?immutable=1" : "?readonly_shm=1");
    _connect(address, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, databaseFiles(true));
    if (_failure) {
        return;
    }
    sqlite3_db_config(_handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    _execute("BEGIN"); // ended by closing
    _checkVersion();   // the first look: its moment is that of all others
}

void Database::_checkVersion() {
    sqlite3_stmt* query = _prepare("PRAGMA user_version");
    const std::int64_t version = _step(query) ? sqlite3_column_int64(query, 0) : 0;
    _release(query);
    if (version > formatVersion) {
        _fail(DatabaseError::newerSchema, "it has format " + std::to_string(version) +
                                              ", this program knows formats up to " + std::to_string(formatVersion) +
                                              "; use the later program");
    } else if (version < formatVersion && !_isReadOnly) {
        _execute(std::string("BEGIN;") + versionTable + "COMMIT;");
    } else if (version < formatVersion) {
        _fail(DatabaseError::olderSchema, std::string(notUpToDate));
    }
}

void Database::_checkContent() {
    sqlite3_stmt* query = _prepare("PRAGMA quick_check(1)");
    std::string found = "it cannot be checked";
    if (_step(query)) {
        found = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    }
    _release(query);
    if (found != "ok") {
        _fail(SQLITE_CORRUPT, "checking it (" + found + ")");
    }
}

Database::~Database() {
    for (const auto& [text, statements] : _idleStatements) {
        for (sqlite3_stmt* statement : statements) {
            sqlite3_finalize(statement);
        }
    }
    sqlite3_close(_handle);
}

Result<void> Database::registerSchema(std::string_view service, std::span<const std::string_view> steps) {
    Transaction transaction(*this);
    std::size_t version = 0;
    for (auto known = transaction.query("SELECT version FROM service_versions WHERE service = ?", service);
         known.next();) {
        known.read(version);
    }
    if (version > steps.size()) {
        _fail(DatabaseError::newerSchema, "its tables of \"" + std::string(service) + "\" have version " +
                                              std::to_string(version) + ", this program knows versions up to " +
                                              std::to_string(steps.size()) + "; use the later program");
    }
    if (_isReadOnly && version < steps.size()) {
        _fail(DatabaseError::olderSchema, std::string(notUpToDate));
    }
    if (_isReadOnly || version >= steps.size()) {
        return transaction.error();
    }
    for (const std::string_view step : steps.subspan(version)) {
        _execute(std::string(step));
    }
    transaction.run("INSERT INTO service_versions VALUES (?1, ?2) ON CONFLICT DO UPDATE SET version = ?2", service,
                    steps.size());
    return transaction.commit();
}

sqlite3_stmt* Database::_statementWith(std::string_view sql, std::size_t parameters) noexcept {
    if (_failure) {
        return nullptr;
    }
    sqlite3_stmt* statement = nullptr;
    int code = SQLITE_OK;
    if (const auto idle = _idleStatements.find(sql); idle != _idleStatements.end() && !idle->second.empty()) {
        statement = idle->second.back();
        idle->second.pop_back();
    } else {
        code = sqlite3_prepare_v3(_handle, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                  &statement, nullptr);
    }
    if (code == SQLITE_OK && static_cast<std::size_t>(sqlite3_bind_parameter_count(statement)) != parameters) {
        code = SQLITE_RANGE;
    }
    if (code != SQLITE_OK) {
        _fail(code, sql);
        _release(std::exchange(statement, nullptr));
    }
    return statement;
}

void Database::_bind(sqlite3_stmt* statement, int number, std::int64_t whole) noexcept {
    _check(statement, sqlite3_bind_int64(statement, number, whole));
}

void Database::_bind(sqlite3_stmt* statement, int number, std::string_view text) noexcept {
    const char* start = text.data() ? text.data() : "";
    _check(statement, sqlite3_bind_text64(statement, number, start, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

void Database::_bind(sqlite3_stmt* statement, int number, const Data& data) noexcept {
    const char* start = data.bytes().data() ? data.bytes().data() : "";
    _check(statement, sqlite3_bind_blob64(statement, number, start, data.size(), SQLITE_TRANSIENT));
}

void Database::_check(sqlite3_stmt* statement, int code) noexcept {
    if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) {
        _fail(code, sqlite3_sql(statement));
    }
}

bool Database::_step(sqlite3_stmt* statement) noexcept {
    const int code = statement && !_failure ? sqlite3_step(statement) : SQLITE_DONE;
    _check(statement, code);
    return code == SQLITE_ROW;
}

void Database::_release(sqlite3_stmt* statement) noexcept {
    if (!statement) {
        return;
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    _idleStatements[sqlite3_sql(statement)].push_back(statement);
}

void Database::_execute(const std::string& sql) noexcept {
    if (_failure) {
        return;
    }
    if (const int code = sqlite3_exec(_handle, sql.c_str(), nullptr, nullptr, nullptr); code != SQLITE_OK) {
        _fail(code, sql);
    }
}

void Database::_fail(int code, std::string_view what) noexcept {
    std::string text(what.substr(0, 120));
    text.append(": ").append(_handle ? sqlite3_errmsg(_handle) : sqlite3_errstr(code));
    const int systemError = _handle ? sqlite3_system_errno(_handle) : 0;
    if ((code & 0xff) == SQLITE_IOERR && systemError != 0) {
        text.append(" (").append(systemText(systemError)).append(")");
    }
    _fail(classify(code), text.append(remedy(code)));
}

void Database::_fail(DatabaseError code, const std::string& text) noexcept {
    if (!_failure) {
        _failure = makeError(databaseErrorDomain, static_cast<std::int64_t>(code),
                             "the database " + _path + ": " + text, _path);
    }
}

Database::Transaction::Transaction(Database& database, Durability durability) noexcept : _database(database) {
    _database._mutex.lock();
    _database._failure = nullptr;
    if (_database._isReadOnly) {
        return; // within the one that sees the moment of opening
    }
    if (durability != _database._durability) { // cannot be changed inside a transaction
        _database._execute(durability == Durability::durable ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
        _database._durability = durability;
    }
    _database._run("BEGIN");
}

Database::Transaction::~Transaction() {
    if (!_database._isReadOnly && sqlite3_get_autocommit(_database._handle) == 0) { // not committed
        sqlite3_exec(_database._handle, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    _database._mutex.unlock();
}

Result<void> Database::Transaction::commit() noexcept {
    if (_database._isReadOnly) {
        return error();
    }
    if (const int failed = error() ? 0 : beforeChange(_database._faultPoint, "commit", _database._path)) {
        _database._fail(DatabaseError::failed, "committing: " + systemText(failed));
    }
    const bool isDurable = _database._durability == Durability::durable;
    const Span span(isDurable ? _database._timeline : nullptr, "commit");
    _database._run("COMMIT");
    Timeline::add(isDurable && !error() ? _database._timeline : nullptr, Counter::syncs);
    return error();
}

std::int64_t Database::Transaction::lastRowIdentifier() const noexcept {
    return sqlite3_last_insert_rowid(_database._handle);
}

bool Database::Rows::next() noexcept {
    if (_database._step(_statement)) {
        return true;
    }
    _database._release(std::exchange(_statement, nullptr)); // a finished statement must not hold up the commit
    return false;
}

bool Database::Rows::_isNull(int column) const noexcept {
    return sqlite3_column_type(_statement, column) == SQLITE_NULL;
}

void Database::Rows::_read(int column, std::int64_t& number) const noexcept {
    number = sqlite3_column_int64(_statement, column);
}

void Database::Rows::_read(int column, double& number) const noexcept {
    number = sqlite3_column_double(_statement, column);
}

void Database::Rows::_read(int column, std::string& text) const {
    const auto* start = reinterpret_cast<const char*>(sqlite3_column_text(_statement, column));
    text.assign(start ? start : "", static_cast<std::size_t>(sqlite3_column_bytes(_statement, column)));
}

void Database::Rows::_read(int column, Data& data) const {
    const auto* start = static_cast<const char*>(sqlite3_column_blob(_statement, column));
    data = Data(std::string(start ? start : "", static_cast<std::size_t>(sqlite3_column_bytes(_statement, column))));
}

} // namespace appsync::device
