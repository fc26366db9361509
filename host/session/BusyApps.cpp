#include "host/session/BusyApps.h"

#include <algorithm>
#include <utility>

namespace appsync::host {

namespace {

constexpr std::uint8_t hostIsEnding = 255; // no answer that the home screen gives

} // namespace

/// A retry that waits for its time.
class BusyApps::Retry final : public ScheduledTask {
  public:
    Retry(std::string app, Time when, std::function<void()> task)
        : identifier(std::move(app)), time(when), _task(std::move(task)) {}

    void wait(std::shared_ptr<ScheduledTask> timer) {
        const Lock lock(_mutex);
        _timer = std::move(timer);
    }
    void run() const { _task(); }
    bool cancel() noexcept override {
        const auto timer = [this] {
            const Lock lock(_mutex);
            return _timer;
        }();
        return timer && timer->cancel();
    }

    const std::string identifier;
    const Time time;

  private:
    const std::function<void()> _task;
    Mutex _mutex;
    std::shared_ptr<ScheduledTask> _timer GUARDED_BY(_mutex);
};

void BusyApps::cancel(std::string_view identifier) {
    {
        const Lock lock(_mutex);
        _cancelled.emplace(identifier);
    }
    _tryNow([&](const std::string& app) { return app == identifier; });
}

void BusyApps::giveUp() {
    {
        const Lock lock(_mutex);
        _hasGivenUp = true;
    }
    _tryNow([](const std::string&) { return true; });
}

void BusyApps::_tryNow(const std::function<bool(const std::string& identifier)>& isMeant) {
    std::vector<std::shared_ptr<Retry>> retries;
    {
        const Lock lock(_mutex);
        retries = _retries;
    }
    for (const auto& retry : retries) {
        if (isMeant(retry->identifier) && retry->cancel()) { // otherwise it has begun
            _wait(retry, std::chrono::milliseconds(0));
        }
    }
}

void BusyApps::_wait(const std::shared_ptr<Retry>& retry, std::chrono::milliseconds delay) {
    retry->wait(_scheduler.runAfter(delay, [this, retry] {
        _forget(*retry);
        retry->run();
    }));
}

std::shared_ptr<SKSApplicationTerminationAssertion>
BusyApps::SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                            std::uint8_t* errorCode) noexcept {
    std::uint8_t code = hostIsEnding;
    if (_isGivingUp()) {
        *errorCode = code;
        return nullptr;
    }
    if (_isCancelled(bundleIdentifier)) {
        *errorCode = SKSTerminationAssertionNotFound; // it will not be replaced
        return nullptr;
    }
    auto assertion = _homeScreen.SKSApplicationTerminationAssertionCreateWithError(bundleIdentifier, reason, &code);
    *errorCode = code;
    const Lock lock(_mutex);
    if (code == SKSTerminationAssertionDenied) {
        _justDenied[std::this_thread::get_id()] = bundleIdentifier;
    } else {
        _justDenied.erase(std::this_thread::get_id());
    }
    return assertion;
}

std::shared_ptr<ScheduledTask> BusyApps::runAfter(std::chrono::milliseconds delay,
                                                  std::function<void()> task) noexcept {
    const auto denied = [this] {
        const Lock lock(_mutex);
        return _justDenied.extract(std::this_thread::get_id());
    }();
    if (denied.empty()) {
        return _scheduler.runAfter(delay, std::move(task));
    }
    const auto retry =
        std::make_shared<Retry>(denied.mapped(), std::chrono::system_clock::now() + delay, std::move(task));
    {
        const Lock lock(_mutex);
        _retries.push_back(retry);
    }
    _listener(retry->identifier, retry->time);
    _wait(retry, delay);
    if (_isGivingUp() || _isCancelled(retry->identifier)) { // perhaps since before its timer could be found
        _tryNow([&](const std::string& app) { return app == retry->identifier; });
    }
    return retry;
}

bool BusyApps::_isCancelled(std::string_view identifier) const {
    const Lock lock(_mutex);
    return _cancelled.contains(identifier);
}

bool BusyApps::_isGivingUp() const {
    const Lock lock(_mutex);
    return _hasGivenUp;
}

void BusyApps::_forget(const Retry& retry) {
    const Lock lock(_mutex);
    std::erase_if(_retries, [&](const auto& one) { return one.get() == &retry; });
}

SKPort BusyApps::SKSSkellanBlockableServerPort() noexcept {
    return _homeScreen.SKSSkellanBlockableServerPort();
}

void BusyApps::SKSetIconState(SKPort port, std::string_view iconState) noexcept {
    _homeScreen.SKSetIconState(port, iconState);
}

void BusyApps::SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                       std::size_t* length) noexcept {
    _homeScreen.SKGetFlattenedIconState(port, format, buffer, length);
}

void BusyApps::SKDeallocate(const char* buffer, std::size_t length) noexcept {
    _homeScreen.SKDeallocate(buffer, length);
}

} // namespace appsync::host
