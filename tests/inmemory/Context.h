// What all in-memory services share: the journal that they write, and the faults that a test asks for.
#pragma once

#include "platform/Error.h"
#include "tests/inmemory/Journal.h"

#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace appsync::inmemory {

/// The error that a failing call reports unless the test names another.
inline ErrorPtr injectedError() {
    return Error::make("TestDomain", 7);
}

/// Which calls are to fail. Any thread.
class Faults {
  public:
    static constexpr int always = std::numeric_limits<int>::max();

    /// Fails the call of that name, `times` times, after it has gone well `after` times.
    void fail(std::string_view call, int times = 1, int after = 0, ErrorPtr error = injectedError()) {
        const std::lock_guard lock(_mutex);
        _plans[std::string(call)] = {times, after, std::move(error)};
    }
    /// The error with which the call is to fail now; null when it is to go well.
    ErrorPtr take(std::string_view call) {
        const std::lock_guard lock(_mutex);
        const auto plan = _plans.find(call);
        if (plan == _plans.end() || plan->second.times == 0) {
            return nullptr;
        }
        if (plan->second.after > 0) {
            --plan->second.after;
            return nullptr;
        }
        if (plan->second.times != always) {
            --plan->second.times;
        }
        return plan->second.error;
    }

  private:
    struct Plan {
        int times;
        int after;
        ErrorPtr error;
    };
    std::mutex _mutex;
    std::map<std::string, Plan, std::less<>> _plans;
};

struct Context {
    Journal journal;
    Faults faults;

    /// Writes "call(arguments)" to the journal; the error with which the call is to fail, or null.
    ErrorPtr call(std::string_view name, const std::string& arguments = {}) {
        journal.add(std::string(name) + "(" + arguments + ")");
        return faults.take(name);
    }
    /// The same for a call with an error out-argument: true when it is to fail, with the error stored.
    bool fails(std::string_view name, const std::string& arguments, ErrorPtr* error) {
        ErrorPtr fault = call(name, arguments);
        if (fault != nullptr && error != nullptr) {
            *error = fault;
        }
        return fault != nullptr;
    }
};

} // namespace appsync::inmemory
