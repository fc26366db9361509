// The sync host's side: log, transaction log, device service, error classification, process, and the clock.
#pragma once

#include "platform/Process.h"
#include "platform/Scheduler.h"
#include "platform/TransactionLog.h"
#include "platform/host/Log.h"
#include "platform/host/SyncHost.h"
#include "tests/inmemory/Context.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace appsync::inmemory {

/// Writes "log: text" and "error: text" for the plug-in's category, "oversize: text" for large payloads and
/// "framework error: text" for type checks. The plug-in's identifier is checked and taken off. A format that is not in
/// the table (Formats.h) is kept, for the fixture to fail on, and its line says so.
class Log final : public HostLog {
  public:
    explicit Log(Context& context) : _context(context) {}
    bool isEnabled(QRLogCategory category, LogLevel level) noexcept override;
    void write(QRLogCategory category, LogLevel level, std::string_view format,
               std::string_view text) noexcept override;

    bool enabled = true;
    /// Of the messages so far, those formats that no message of the plug-in has.
    [[nodiscard]] std::vector<std::string> unknownFormats() const;

  private:
    Context& _context;
    mutable std::mutex _mutex;
    std::vector<std::string> _unknownFormats;
};

class TransactionLog final : public AITransactionLog {
  public:
    explicit TransactionLog(Context& context) : _context(context) {}
    void initializeWithLog(const SystemLogPtr& log) noexcept override;
    void logStep_byParty_phase_success_forBundleID_description(TransactionStep step, TransactionParty party,
                                                               TransactionPhase phase, bool success,
                                                               std::string_view bundleID,
                                                               std::string_view description) noexcept override;
    void logScenario_step_success_forBundleID_description(std::string_view scenario, TransactionStep step, bool success,
                                                          std::string_view bundleID,
                                                          std::string_view description) noexcept override;

    /// The log that records were to be mirrored to, which is not kept here.
    std::weak_ptr<const SystemLog> mirror;

  private:
    Context& _context;
};

class DeviceService final : public QRDeviceService, public QRDeviceServiceClass {
  public:
    explicit DeviceService(Context& context) : _context(context) {}
    std::shared_ptr<QRDeviceService> sharedInstance() noexcept override;
    bool respondsToPrioritizeAsset() noexcept override { return canPrioritize; }
    void prioritizeAsset_withCompletion(const QRAssetPtr& asset,
                                        std::function<void(const ErrorPtr&)> completion) noexcept override;
    bool respondsToCancelAssetTransferForFailedAsset() noexcept override { return canCancel; }
    void cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept override;

    bool exists = true;
    bool canPrioritize = true;
    bool canCancel = true;
    /// The completions that the plug-in waits for; a test calls them.
    std::vector<std::function<void(const ErrorPtr&)>> completions;

  private:
    Context& _context;
    std::mutex _mutex;
};

/// Counts an error as recoverable when the test has named its domain.
class ErrorClassification final : public QRErrorClassification {
  public:
    explicit ErrorClassification(Context& context) : _context(context) {}
    bool QRIsRecoverableError(const ErrorPtr& error) noexcept override;

    std::set<std::string> recoverableDomains;

  private:
    Context& _context;
};

class Process final : public HostProcess {
  public:
    std::optional<std::string> mainBundleIdentifier() noexcept override { return bundleIdentifier; }
    std::string temporaryDirectory() noexcept override { return temporaryFolder; }

    std::optional<std::string> bundleIdentifier = "com.zuvex.qrd";
    std::string temporaryFolder = "/tmp";
};

/// A scheduler whose time passes only when the test says so.
class Clock final : public Scheduler {
  public:
    explicit Clock(Context& context) : _context(context) {}
    std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds delay,
                                            std::function<void()> task) noexcept override;
    /// Lets time pass and runs what has become due, in the order of their times, on the caller's thread.
    void advance(std::chrono::milliseconds by) { advanceTo(now() + by); }
    /// The same up to a point in time. Several threads that do so share the tasks.
    void advanceTo(std::chrono::milliseconds time);
    [[nodiscard]] std::chrono::milliseconds now() const;
    [[nodiscard]] std::size_t pending() const;

  private:
    class Task;
    std::shared_ptr<Task> _nextDue(std::chrono::milliseconds until);

    Context& _context;
    mutable std::mutex _mutex;
    std::chrono::milliseconds _now{0};
    std::vector<std::shared_ptr<Task>> _tasks;
};

} // namespace appsync::inmemory
