#include "device/log/TransactionLog.h"

#include "device/database/Database.h"
#include "device/log/LogFile.h"
#include "device/root/PosixError.h"

#include <chrono>
#include <iterator>

namespace appsync::device {

namespace {

constexpr std::string_view schema[] = {
    "CREATE TABLE transactionLog (number INTEGER PRIMARY KEY, time INTEGER NOT NULL, scenario TEXT,"
    " step INTEGER NOT NULL, party INTEGER NOT NULL, phase INTEGER NOT NULL, success INTEGER NOT NULL,"
    " bundle TEXT NOT NULL, description TEXT NOT NULL);"
    "CREATE INDEX transactionLogBundle ON transactionLog (bundle);"};

/// How long the writer lets records come together, and how many it does not let wait.
constexpr std::chrono::milliseconds gatheringTime{20};
constexpr std::size_t gatheredRecords = 256;
/// What comes together while it cannot be written is bounded.
constexpr std::size_t maxWaiting = 20'000;

std::int64_t now() {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

} // namespace

std::string_view nameOf(TransactionStep step) noexcept {
    switch (step) {
    case TransactionStep::none: return "none";
    case TransactionStep::installOrUpdate: return "install or update";
    case TransactionStep::restore: return "restore";
    case TransactionStep::coordinatorCreation: return "coordinator creation";
    case TransactionStep::placeholderCreation: return "placeholder creation";
    case TransactionStep::iconCopy: return "icon copy";
    case TransactionStep::uninstall: return "uninstall";
    }
    return "unknown";
}

std::string TransactionRecord::text() const {
    std::string out;
    if (scenario) {
        out = "scenario \"" + *scenario + "\"";
    } else {
        out = "step " + std::string(nameOf(step)) + (phase == TransactionPhase::start ? " begins" : " ends");
    }
    return out + " for " + bundleID + (success ? ": " : " without success: ") + description;
}

Result<std::unique_ptr<TransactionLog>> TransactionLog::open(Database& database, LogFile* mirror,
                                                             std::int64_t capacity) {
    if (const auto registered = database.registerSchema("transactionLog", schema); !registered) {
        return registered.error();
    }
    std::unique_ptr<TransactionLog> log(new TransactionLog(database, mirror, capacity));
    if (database.isReadOnly()) {
        return log;
    }
    if (!log->_writer.start()) {
        return makeNoThreadError("the transaction log");
    }
    return log;
}

TransactionLog::~TransactionLog() {
    {
        const Lock lock(_mutex);
        _stopped = true;
        _changed.notifyOne();
    }
    _writer.stop();
    if (const auto written = flush(); !written) {
        _tell("the end of the transaction log is lost: " + errorText(written.error()));
    }
}

void TransactionLog::initializeWithLog(const SystemLogPtr& log) noexcept {
    const Lock lock(_mutex);
    _log = log;
}

void TransactionLog::logStep_byParty_phase_success_forBundleID_description(TransactionStep step, TransactionParty party,
                                                                           TransactionPhase phase, bool success,
                                                                           std::string_view bundleID,
                                                                           std::string_view description) noexcept {
    _append({0, now(), std::nullopt, step, party, phase, success, std::string(bundleID), std::string(description)});
}

void TransactionLog::logScenario_step_success_forBundleID_description(std::string_view scenario, TransactionStep step,
                                                                      bool success, std::string_view bundleID,
                                                                      std::string_view description) noexcept {
    _append({0, now(), std::string(scenario), step, TransactionParty::syncPlugIn, TransactionPhase::end, success,
             std::string(bundleID), std::string(description)});
}

void TransactionLog::_append(TransactionRecord record) {
    if (_database.isReadOnly()) {
        return;
    }
    SystemLogPtr log;
    const std::string text = record.text();
    const LogLevel level = record.success ? LogLevel::standard : LogLevel::error;
    {
        const Lock lock(_mutex);
        log = _log;
        _waiting.push_back(std::move(record));
        if (_waiting.size() == gatheredRecords) {
            _changed.notifyOne();
        }
        if (!std::exchange(_isScheduled, true)) {
            _writer.addOperation([this] { _writeSoon(); });
        }
    }
    if (_mirror && log) {
        _mirror->write(*log, level, text);
    }
}

Result<void> TransactionLog::flush() {
    const Lock writing(_writing);
    std::vector<TransactionRecord> records;
    {
        const Lock lock(_mutex);
        records.swap(_waiting);
    }
    auto written = records.empty() ? Result<void>() : _write(records);
    if (written) {
        if (const std::size_t dropped = std::exchange(_dropped, 0); dropped > 0) {
            _tell("the transaction log lacks " + std::to_string(dropped) +
                  " records, which could not be written in time");
        }
        return written;
    }
    const Lock lock(_mutex);
    std::move(_waiting.begin(), _waiting.end(), std::back_inserter(records));
    _waiting.swap(records);
    if (_waiting.size() > maxWaiting) {
        const std::size_t dropped = _waiting.size() - maxWaiting;
        _waiting.erase(_waiting.begin(), _waiting.begin() + static_cast<std::ptrdiff_t>(dropped));
        _dropped += dropped;
    }
    return written;
}

/// Lets records come together, and writes them. What cannot be written is tried again with the next record; of several
/// failures one after another the first is told.
void TransactionLog::_writeSoon() {
    {
        const Lock lock(_mutex);
        const auto gathered = std::chrono::steady_clock::now() + gatheringTime;
        while (!_stopped && _waiting.size() < gatheredRecords && _changed.waitUntil(_mutex, gathered)) {
        }
        _isScheduled = false;
    }
    const auto written = flush();
    if (!written && !_hasFailed) {
        _tell("the transaction log is tried again with its next record: " + errorText(written.error()));
    }
    _hasFailed = !written;
}

void TransactionLog::_tell(const std::string& problem) {
    if (_mirror) {
        _mirror->write(QRLogCategoryFramework, LogLevel::error, "%{public}@", problem);
    }
}

Result<void> TransactionLog::_write(const std::vector<TransactionRecord>& records) {
    Database::Transaction transaction(_database);
    for (const TransactionRecord& record : records) {
        transaction.run("INSERT INTO transactionLog (time, scenario, step, party, phase, success, bundle, description)"
                        " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)",
                        record.time, record.scenario, record.step, record.party, record.phase, record.success,
                        record.bundleID, record.description);
    }
    transaction.run("DELETE FROM transactionLog WHERE number <= ?1", transaction.lastRowIdentifier() - _capacity);
    return transaction.commit();
}

Result<void> TransactionLog::visit(const std::function<bool(const TransactionRecord&)>& visit,
                                   std::optional<std::string_view> bundleID, std::int64_t after) {
    if (auto flushed = flush(); !flushed) {
        return flushed;
    }
    constexpr std::string_view all = "SELECT number, time, scenario, step, party, phase, success, bundle, description"
                                     " FROM transactionLog WHERE number > ?1 ORDER BY number";
    constexpr std::string_view ofOne = "SELECT number, time, scenario, step, party, phase, success, bundle, description"
                                       " FROM transactionLog WHERE number > ?1 AND bundle = ?2 ORDER BY number";
    Database::Transaction transaction(_database);
    auto rows = bundleID ? transaction.query(ofOne, after, *bundleID) : transaction.query(all, after);
    TransactionRecord record;
    for (bool isWanted = true; isWanted && rows.next();) {
        rows.read(record.number, record.time, record.scenario, record.step, record.party, record.phase, record.success,
                  record.bundleID, record.description);
        isWanted = visit(record);
    }
    return transaction.error();
}

} // namespace appsync::device
