// What the rules share.
#pragma once

#include "tests/contract/Contract.h"
#include "values/Error.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Skips a rule on a device that lacks what it speaks of.
#define APPSYNC_NEEDS(ability)                                                                                         \
    if (!device().can(Ability::ability)) {                                                                             \
        GTEST_SKIP() << "the device lacks: " #ability;                                                                 \
    }

namespace appsync::contract {

/// A wait that nothing ends fails after this time, which no working device comes near; once a rule is known to be
/// broken, its other waits need not be that patient.
inline std::chrono::seconds watchdog() {
    return std::chrono::seconds(testing::Test::HasFailure() ? 1 : 30);
}

/// Counts what happens on other threads.
class Signal {
  public:
    void raise() {
        const std::lock_guard lock(_mutex);
        ++_count;
        _raised.notify_all();
    }
    /// Takes one count, waiting for it. False: the watchdog's time passed.
    [[nodiscard]] bool wait() {
        std::unique_lock lock(_mutex);
        if (!_raised.wait_for(lock, watchdog(), [this] { return _count > 0; })) {
            return false;
        }
        --_count;
        return true;
    }

  private:
    std::mutex _mutex;
    std::condition_variable _raised;
    int _count = 0;
};

inline FileURL fileAt(std::string_view path) {
    return *FileURL::fileURLWithPath(path, false);
}
inline FileURL folderAt(std::string_view path) {
    return *FileURL::fileURLWithPath(path, true);
}
/// How a failed expectation shows an error.
inline std::string textOf(const ErrorPtr& error) {
    return error != nullptr ? error->description() : "no error";
}

} // namespace appsync::contract
