#include "tests/inmemory/HostServices.h"

#include <algorithm>
#include <utility>

namespace appsync::inmemory {

namespace {

constexpr std::string_view plugInPrefix = "com.zuvex.tzl.Quorrel.AppSync|";

std::string number(TransactionStep step) {
    return std::to_string(static_cast<unsigned>(step));
}

std::string quoted(std::string_view text) {
    return "\"" + std::string(text) + "\"";
}

} // namespace

bool Log::isEnabled(QRLogCategory /*category*/, LogLevel /*level*/) noexcept {
    return enabled;
}

void Log::write(QRLogCategory category, LogLevel level, std::string_view format, std::string_view text) noexcept {
    {
        const std::lock_guard lock(_mutex);
        _formats.emplace_back(format);
    }
    std::string source;
    switch (category) {
    case QRLogCategory::SyncBundle: source = level == LogLevel::error ? "error: " : "log: "; break;
    case QRLogCategory::SyncBundle_Oversize:
        source = level == LogLevel::error ? "oversize error: " : "oversize: ";
        break;
    case QRLogCategory::Framework: source = level == LogLevel::error ? "framework error: " : "framework: "; break;
    }
    if (format.starts_with("%s|") && text.starts_with(plugInPrefix)) {
        text.remove_prefix(plugInPrefix.size());
    } else if (category != QRLogCategory::Framework) {
        source = "WITHOUT IDENTIFIER " + source;
    }
    _context.journal.add(source + std::string(text));
}

std::vector<std::string> Log::formats() const {
    const std::lock_guard lock(_mutex);
    return _formats;
}

void TransactionLog::initializeWithLog(const SystemLogPtr& log) noexcept {
    _context.call("transactions.initializeWithLog", log->subsystem + ", " + log->category);
}

void TransactionLog::logStep_byParty_phase_success_forBundleID_description(TransactionStep step, TransactionParty party,
                                                                           TransactionPhase phase, bool success,
                                                                           std::string_view bundleID,
                                                                           std::string_view description) noexcept {
    _context.call("transactions.logStep", number(step) + ", party " + std::to_string(static_cast<unsigned>(party)) +
                                              ", phase " + std::to_string(static_cast<unsigned>(phase)) + ", success " +
                                              (success ? "1" : "0") + ", " + std::string(bundleID) + ", " +
                                              quoted(description));
}

void TransactionLog::logScenario_step_success_forBundleID_description(std::string_view scenario, TransactionStep step,
                                                                      bool success, std::string_view bundleID,
                                                                      std::string_view description) noexcept {
    _context.call("transactions.logScenario", quoted(scenario) + ", step " + number(step) + ", success " +
                                                  (success ? "1" : "0") + ", " + std::string(bundleID) + ", " +
                                                  quoted(description));
}

std::shared_ptr<QRDeviceService> DeviceService::sharedInstance() noexcept {
    // Owned by the world, which outlives the plug-in.
    return exists ? std::shared_ptr<QRDeviceService>(std::shared_ptr<void>(), this) : nullptr;
}

void DeviceService::prioritizeAsset_withCompletion(const QRAssetPtr& asset,
                                                   std::function<void(const ErrorPtr&)> completion) noexcept {
    _context.call("host.prioritizeAsset", asset->description());
    completions.push_back(std::move(completion));
}

void DeviceService::cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept {
    _context.call("host.cancelAssetTransferForFailedAsset", asset->description());
}

bool ErrorClassification::QRIsRecoverableError(const ErrorPtr& error) noexcept {
    _context.call("host.QRIsRecoverableError", error != nullptr ? error->description() : "(null)");
    return error != nullptr && recoverableDomains.contains(error->domain());
}

// The clock.

class Clock::Task final : public ScheduledTask {
  public:
    Task(std::chrono::milliseconds time, std::function<void()> work) : due(time), _work(std::move(work)) {}
    bool cancel() noexcept override {
        const std::lock_guard lock(_running); // waits while the task runs
        return std::exchange(_work, nullptr) != nullptr;
    }
    void run() {
        const std::lock_guard lock(_running);
        if (const auto work = std::exchange(_work, nullptr)) {
            work();
        }
    }
    const std::chrono::milliseconds due;

  private:
    std::mutex _running;
    std::function<void()> _work;
};

std::shared_ptr<ScheduledTask> Clock::runAfter(std::chrono::milliseconds delay, std::function<void()> task) noexcept {
    _context.call("scheduler.runAfter", std::to_string(delay.count()) + " ms");
    const std::lock_guard lock(_mutex);
    _tasks.push_back(std::make_shared<Task>(_now + delay, std::move(task)));
    return _tasks.back();
}

void Clock::advance(std::chrono::milliseconds by) {
    std::chrono::milliseconds until;
    {
        const std::lock_guard lock(_mutex);
        until = _now + by;
    }
    while (const auto task = _nextDue(until)) {
        task->run();
    }
    const std::lock_guard lock(_mutex);
    _now = until;
}

std::shared_ptr<Clock::Task> Clock::_nextDue(std::chrono::milliseconds until) {
    const std::lock_guard lock(_mutex);
    const auto next = std::ranges::min_element(_tasks, {}, [](const auto& task) { return task->due; });
    if (next == _tasks.end() || (*next)->due > until) {
        return nullptr;
    }
    auto task = *next;
    _now = task->due;
    _tasks.erase(next);
    return task;
}

std::size_t Clock::pending() const {
    const std::lock_guard lock(_mutex);
    return _tasks.size();
}

} // namespace appsync::inmemory
