// What the rules share.
#pragma once

#include "tests/contract/Contract.h"
#include "values/Error.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace appsync::contract {

/// Waits for what other threads bring about. A wait that nothing ends fails after a time which no working device comes
/// near, and says what was awaited; the next ones of a device that is known to be broken are less patient.
[[nodiscard]] inline testing::AssertionResult awaitOn(std::condition_variable& changed,
                                                      std::unique_lock<std::mutex>& lock,
                                                      const std::function<bool()>& condition,
                                                      const std::string& awaited) {
    static std::atomic<bool> hasWaitedInVain = false;
    const std::chrono::seconds patience(hasWaitedInVain || testing::Test::HasFailure() ? 1 : 10);
    if (changed.wait_for(lock, patience, condition)) {
        return testing::AssertionSuccess();
    }
    hasWaitedInVain = true;
    return testing::AssertionFailure() << "waited " << patience.count() << " s in vain for " << awaited;
}

/// Counts what happens on other threads.
class Signal {
  public:
    /// What happens, as a failed wait names it.
    explicit Signal(std::string what) : _what(std::move(what)) {}
    void raise() {
        const std::lock_guard lock(_mutex);
        ++_count;
        _raised.notify_all();
    }
    /// Takes one count, waiting for it.
    [[nodiscard]] testing::AssertionResult wait() {
        std::unique_lock lock(_mutex);
        auto raised = awaitOn(
            _raised, lock, [this] { return _count > 0; }, _what);
        _count -= raised ? 1 : 0;
        return raised;
    }

  private:
    const std::string _what;
    std::mutex _mutex;
    std::condition_variable _raised;
    int _count = 0;
};

/// What a rule cannot go on without. An absent one fails the rule, which says what it was, and ends it; only on the
/// thread of the rule.
template <class T> [[nodiscard]] const T& given(const T& answer, const std::string& what) {
    if (!answer) {
        throw std::runtime_error("the device gave none where the rule needs it: " + what);
    }
    return answer;
}

/// A pointer that the device gave. A null one may be compared and handed on; using what it points to is as with
/// `given`.
template <class T> class Answer : public std::shared_ptr<T> {
  public:
    Answer() = default;
    Answer(std::shared_ptr<T> answer, std::string what)
        : std::shared_ptr<T>(std::move(answer)), _what(std::move(what)) {}
    T* operator->() const { return given<std::shared_ptr<T>>(*this, _what).get(); }

  private:
    std::string _what;
};

inline FileURL fileAt(std::string_view path) {
    return *FileURL::fileURLWithPath(path, false);
}
inline FileURL folderAt(std::string_view path) {
    return *FileURL::fileURLWithPath(path, true);
}
/// How a failed expectation shows an error.
inline std::string textOf(const ErrorPtr& error) {
    return error ? error->description() : "no error";
}

} // namespace appsync::contract
