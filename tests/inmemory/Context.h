// What all in-memory services share: the journal that they write, and the faults that a test asks for.
#pragma once

#include "tests/inmemory/Journal.h"
#include "values/Error.h"
#include "values/PropertyList.h"

#include <functional>
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

/// As a value prints, but with all bytes of its data where a message has only their number.
inline std::string wholeText(const Value& value) {
    std::string text;
    if (const auto data = value.data()) {
        return text.append("<").append(data->bytes()).append(">");
    }
    if (!value.dictionary()) {
        return value.description();
    }
    for (const auto& [key, entry] : *value.dictionary()) {
        text.append(text.empty() ? "" : " ").append(key).append(" = ").append(wholeText(entry)).append(";");
    }
    return "{" + text + "}";
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
    /// Sees each call on its caller's thread before it is done, and may answer the error with which it is to fail. A
    /// call on an object has the name "coordinator.setInstallOptions" and begins its arguments with the object's name.
    std::function<ErrorPtr(std::string_view call, std::string_view arguments)> interceptor;

    /// Writes "call(arguments)" to the journal; the error with which the call is to fail, or null.
    ErrorPtr call(std::string_view name, const std::string& arguments = {}) {
        if (journal.isRecording()) {
            journal.add(std::string(name) + "(" + arguments + ")");
        }
        return _fault(name, arguments);
    }
    /// Writes "kind(object).name(arguments)"; the fault has the name "kind.name".
    ErrorPtr callOn(std::string_view kind, const std::string& object, std::string_view name,
                    const std::string& arguments = {}) {
        if (journal.isRecording()) {
            journal.add(std::string(kind) + "(" + object + ")." + std::string(name) + "(" + arguments + ")");
        }
        const std::string call = std::string(kind) + "." + std::string(name);
        return interceptor ? _fault(call, object + ", " + arguments) : faults.take(call);
    }
    /// The same for a call with an error out-argument: true when it is to fail, with the error stored.
    bool fails(std::string_view name, const std::string& arguments, ErrorPtr* error) {
        ErrorPtr fault = call(name, arguments);
        if (fault && error) {
            *error = fault;
        }
        return fault != nullptr;
    }

  private:
    ErrorPtr _fault(std::string_view name, std::string_view arguments) {
        if (interceptor) {
            if (ErrorPtr fault = interceptor(name, arguments)) {
                return fault;
            }
        }
        return faults.take(name);
    }
};

} // namespace appsync::inmemory
