// A value that several threads use, each as a whole.
#pragma once

#include <mutex>
#include <utility>

namespace appsync {

/// Any thread.
template <class Type> class Guarded {
  public:
    [[nodiscard]] Type get() const {
        const std::lock_guard lock(_mutex);
        return _value;
    }
    void set(Type value) {
        const std::lock_guard lock(_mutex);
        _value = std::move(value);
    }

  private:
    mutable std::mutex _mutex;
    Type _value{};
};

} // namespace appsync
