#include "tests/inmemory/HostServices.h"

#include "tests/inmemory/Formats.h"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <utility>

namespace appsync::inmemory {

namespace {

constexpr std::string_view formatPrefix = "%s|";
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
    if (!_context.journal.isRecording()) {
        return;
    }
    std::string source;
    switch (category) {
    case QRLogCategory::SyncBundle: source = level == LogLevel::error ? "error: " : "log: "; break;
    case QRLogCategory::SyncBundle_Oversize:
        source = level == LogLevel::error ? "oversize error: " : "oversize: ";
        break;
    case QRLogCategory::Framework: source = level == LogLevel::error ? "framework error: " : "framework: "; break;
    }
    if (format.starts_with(formatPrefix) && text.starts_with(plugInPrefix)) {
        format.remove_prefix(formatPrefix.size());
        text.remove_prefix(plugInPrefix.size());
    } else if (category != QRLogCategory::Framework) {
        source = "WITHOUT IDENTIFIER " + source;
    }
    if (format.find('%') != std::string_view::npos && !formatsWithConversions().contains(format)) {
        const std::lock_guard lock(_mutex);
        _unknownFormats.emplace_back(format);
        source = "UNKNOWN FORMAT " + source;
    }
    _context.journal.add(source + std::string(text));
}

std::vector<std::string> Log::unknownFormats() const {
    const std::lock_guard lock(_mutex);
    return _unknownFormats;
}

void TransactionLog::initializeWithLog(const SystemLogPtr& log) noexcept {
    mirror = log;
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
    const std::lock_guard lock(_mutex);
    completions.push_back(std::move(completion));
}

void DeviceService::cancelAssetTransferForFailedAsset(const QRAssetPtr& asset) noexcept {
    _context.call("host.cancelAssetTransferForFailedAsset", asset->description());
}

bool ErrorClassification::QRIsRecoverableError(const ErrorPtr& error) noexcept {
    _context.call("host.QRIsRecoverableError", error ? error->description() : "(null)");
    return error && recoverableDomains.contains(error->domain());
}

// The clock.

class Clock::Task final : public ScheduledTask {
  public:
    Task(Context& context, std::chrono::milliseconds time, std::function<void()> work)
        : due(time), _context(context), _work(std::move(work)) {}
    bool cancel() noexcept override {
        _context.call("scheduler.cancel", "");
        std::function<void()> dropped;
        std::unique_lock lock(_mutex);
        if (_state == State::waiting) {
            _state = State::cancelled;
            dropped = std::exchange(_work, nullptr);
        }
        if (_state != State::cancelled && _runner != std::this_thread::get_id()) {
            _hasEnded.wait(lock, [this] { return _state == State::ended; });
        }
        return _state == State::cancelled;
    }
    void run() {
        std::unique_lock lock(_mutex);
        if (_state != State::waiting) {
            return;
        }
        _state = State::running;
        _runner = std::this_thread::get_id();
        auto work = std::exchange(_work, nullptr);
        lock.unlock();
        work();
        work = nullptr;
        lock.lock();
        _state = State::ended;
        _runner = {};
        _hasEnded.notify_all();
    }
    const std::chrono::milliseconds due;

  private:
    enum class State { waiting, running, ended, cancelled };
    Context& _context;
    std::mutex _mutex;
    std::condition_variable _hasEnded;
    State _state = State::waiting;
    std::thread::id _runner;
    std::function<void()> _work;
};

std::shared_ptr<ScheduledTask> Clock::runAfter(std::chrono::milliseconds delay, std::function<void()> task) noexcept {
    _context.call("scheduler.runAfter", std::to_string(delay.count()) + " ms");
    const std::lock_guard lock(_mutex);
    _tasks.push_back(std::make_shared<Task>(_context, _now + delay, std::move(task)));
    return _tasks.back();
}

void Clock::advanceTo(std::chrono::milliseconds time) {
    while (const auto task = _nextDue(time)) {
        task->run();
    }
    const std::lock_guard lock(_mutex);
    _now = std::max(_now, time);
}

std::chrono::milliseconds Clock::now() const {
    const std::lock_guard lock(_mutex);
    return _now;
}

std::shared_ptr<Clock::Task> Clock::_nextDue(std::chrono::milliseconds until) {
    const std::lock_guard lock(_mutex);
    const auto next = std::ranges::min_element(_tasks, {}, [](const auto& task) { return task->due; });
    if (next == _tasks.end() || (*next)->due > until) {
        return nullptr;
    }
    auto task = *next;
    _now = std::max(_now, task->due);
    _tasks.erase(next);
    return task;
}

std::size_t Clock::pending() const {
    const std::lock_guard lock(_mutex);
    return _tasks.size();
}

} // namespace appsync::inmemory
