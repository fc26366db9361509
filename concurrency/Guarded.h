// A value that several threads use, each as a whole.
#pragma once

#include "concurrency/Mutex.h"

#include <utility>

namespace appsync {

/// Any thread.
template <class Type> class Guarded {
  public:
    [[nodiscard]] Type get() const EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        return _value;
    }
    void set(Type value) EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        _value = std::move(value);
    }

  private:
    mutable Mutex _mutex;
    Type _value GUARDED_BY(_mutex){};
};

} // namespace appsync
