// The install transaction log in the database.
#pragma once

#include "concurrency/OperationQueue.h"
#include "platform/TransactionLog.h"
#include "values/Result.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace appsync::device {

class Database;
class LogFile;

/// In lower-case words.
[[nodiscard]] std::string_view nameOf(TransactionStep step) noexcept;

struct TransactionRecord {
    std::int64_t number = 0;             // counts up, also beyond records that have been dropped
    std::int64_t time = 0;               // microseconds since 1970-01-01 00:00:00 UTC
    std::optional<std::string> scenario; // of an event of a scenario; a step has none
    TransactionStep step = TransactionStep::none;
    TransactionParty party = TransactionParty::syncPlugIn; // of a step
    TransactionPhase phase = TransactionPhase::start;      // of a step
    bool success = false;
    std::string bundleID;
    std::string description;

    /// On one line, as it is mirrored to the log.
    [[nodiscard]] std::string text() const;
};

/// Any thread. A record is in the database a moment after it was logged: a thread of the log writes what has come
/// together. Queries find everything that was logged before.
class TransactionLog final : public AITransactionLog {
  public:
    static constexpr std::int64_t defaultCapacity = 100'000;

    /// Keeps the newest `capacity` records, and in a database that is only looked at no further ones. Both must outlive
    /// the log; `mirror` may be null.
    [[nodiscard]] static Result<std::unique_ptr<TransactionLog>> open(Database& database, LogFile* mirror,
                                                                      std::int64_t capacity = defaultCapacity);
    /// Writes what has not been written yet.
    ~TransactionLog() override;

    void initializeWithLog(const SystemLogPtr& log) noexcept override;
    void logStep_byParty_phase_success_forBundleID_description(TransactionStep step, TransactionParty party,
                                                               TransactionPhase phase, bool success,
                                                               std::string_view bundleID,
                                                               std::string_view description) noexcept override;
    void logScenario_step_success_forBundleID_description(std::string_view scenario, TransactionStep step, bool success,
                                                          std::string_view bundleID,
                                                          std::string_view description) noexcept override;

    /// All records with a number above `after`, oldest first, those of one app if a bundle identifier is given; until
    /// `visit` returns false, which may not use the database.
    [[nodiscard]] Result<void> visit(const std::function<bool(const TransactionRecord&)>& visit,
                                     std::optional<std::string_view> bundleID = std::nullopt, std::int64_t after = 0);
    /// Returns when everything logged before is in the database, or with the reason why it cannot be written; then it
    /// is tried again with the next record. Meanwhile the newest records are kept; how many are not is told afterwards.
    [[nodiscard]] Result<void> flush();

  private:
    TransactionLog(Database& database, LogFile* mirror, std::int64_t capacity)
        : _database(database), _mirror(mirror), _capacity(capacity) {}

    void _append(TransactionRecord record) EXCLUDES(_mutex);
    void _writeSoon() EXCLUDES(_mutex);
    [[nodiscard]] Result<void> _write(const std::vector<TransactionRecord>& records);
    void _tell(const std::string& problem);

    Database& _database;
    LogFile* const _mirror;
    const std::int64_t _capacity;
    Mutex _writing;                                // held while records are on their way, so that they stay in order
    std::size_t _dropped GUARDED_BY(_writing) = 0; // records, since one could last be written
    Mutex _mutex;
    Condition _changed;
    SystemLogPtr _log GUARDED_BY(_mutex);
    std::vector<TransactionRecord> _waiting GUARDED_BY(_mutex);
    bool _isScheduled GUARDED_BY(_mutex) = false;
    bool _stopped GUARDED_BY(_mutex) = false;
    bool _hasFailed = false; // for the writer's thread alone
    OperationQueue _writer{1};
};

} // namespace appsync::device
