#include "device/database/Database.h"

#include "device/database/DatabaseConnection.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"

namespace appsync::device {

Result<std::unique_ptr<Database>> Database::open(const std::string& path, std::shared_ptr<FaultPoint> faultPoint) {
    Descriptor folder;
    const std::string parent = path.substr(0, path.rfind('/') + 1);
    if (const int failed = openWithoutLinks(parent.empty() ? "." : parent, O_PATH | O_DIRECTORY, folder)) {
        return makePosixError(failed, "opening the folder of the database", path);
    }
    return open(std::move(folder), path, std::move(faultPoint));
}

Result<std::unique_ptr<Database>> Database::open(Descriptor folder, const std::string& path,
                                                 std::shared_ptr<FaultPoint> faultPoint) {
    auto connection = std::make_unique<DatabaseConnection>(std::move(folder), path, std::move(faultPoint));
    if (ErrorPtr error = connection->open()) {
        return error;
    }
    return std::unique_ptr<Database>(new Database(path, std::move(connection)));
}

Database::Database(std::string path, std::unique_ptr<DatabaseConnection> connection)
    : _path(std::move(path)), _connection(std::move(connection)) {}

Database::~Database() = default;

Result<void> Database::registerSchema(std::string_view service, std::span<const std::string_view> steps) {
    Transaction transaction(*this);
    std::size_t version = 0;
    {
        auto known = transaction.query("SELECT version FROM service_versions WHERE service = ?", service);
        if (known.next()) {
            version = static_cast<std::size_t>(known.integer(0));
        }
    }
    if (version > steps.size()) {
        return _connection->makeFailure(DatabaseError::newerSchema,
                                        "its tables of \"" + std::string(service) + "\" have version " +
                                            std::to_string(version) + ", this program knows versions up to " +
                                            std::to_string(steps.size()) + "; use the later program");
    }
    if (version == steps.size()) {
        return transaction.error();
    }
    for (const std::string_view step : steps.subspan(version)) {
        _connection->execute(std::string(step));
    }
    transaction.run("INSERT INTO service_versions VALUES (?1, ?2) ON CONFLICT DO UPDATE SET version = ?2", service,
                    steps.size());
    return transaction.commit();
}

Database::Transaction::Transaction(Database& database, Durability durability) noexcept
    : _lock(database._mutex), _connection(*database._connection) {
    _connection.begin(durability);
}

Database::Transaction::~Transaction() {
    if (!_ended) {
        _connection.rollBack();
    }
}

std::int64_t Database::Transaction::changes() const noexcept {
    return sqlite3_changes64(_connection.handle());
}

std::int64_t Database::Transaction::lastRowIdentifier() const noexcept {
    return sqlite3_last_insert_rowid(_connection.handle());
}

const ErrorPtr& Database::Transaction::error() const noexcept {
    return _connection.failure();
}

Result<void> Database::Transaction::commit() noexcept {
    _ended = true;
    return _connection.commit();
}

void Database::Transaction::_run(std::string_view sql, std::span<const SqlValue> arguments) noexcept {
    sqlite3_stmt* statement = _connection.prepare(sql, arguments, false);
    (void)_connection.step(statement);
    _connection.release(statement);
}

Database::Rows Database::Transaction::_query(std::string_view sql, std::span<const SqlValue> arguments) noexcept {
    return Rows(_connection, _connection.prepare(sql, arguments, true));
}

Database::Rows::Rows(Rows&& other) noexcept
    : _connection(other._connection), _statement(std::exchange(other._statement, nullptr)) {}

Database::Rows::~Rows() {
    _connection.release(_statement);
}

bool Database::Rows::next() noexcept {
    if (_connection.step(_statement)) {
        return true;
    }
    _connection.release(std::exchange(_statement, nullptr)); // a finished statement must not hold up the commit
    return false;
}

bool Database::Rows::isNull(int column) const noexcept {
    return sqlite3_column_type(_statement, column) == SQLITE_NULL;
}

std::int64_t Database::Rows::integer(int column) const noexcept {
    return sqlite3_column_int64(_statement, column);
}

double Database::Rows::real(int column) const noexcept {
    return sqlite3_column_double(_statement, column);
}

std::string_view Database::Rows::text(int column) const noexcept {
    const auto* start = reinterpret_cast<const char*>(sqlite3_column_text(_statement, column));
    return start ? std::string_view(start, static_cast<std::size_t>(sqlite3_column_bytes(_statement, column)))
                 : std::string_view();
}

Data Database::Rows::data(int column) const {
    const auto* start = static_cast<const char*>(sqlite3_column_blob(_statement, column));
    return Data(start ? std::string(start, static_cast<std::size_t>(sqlite3_column_bytes(_statement, column)))
                      : std::string());
}

std::optional<std::string> Database::Rows::optionalText(int column) const {
    return isNull(column) ? std::nullopt : std::optional<std::string>(text(column));
}

std::optional<Data> Database::Rows::optionalData(int column) const {
    return isNull(column) ? std::nullopt : std::optional<Data>(data(column));
}

} // namespace appsync::device
