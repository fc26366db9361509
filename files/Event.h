// Something that one thread sets and another waits for in a `poll`.
#pragma once

#include "files/Descriptor.h"

#include <sys/eventfd.h>

namespace appsync {

/// Any thread. Where the system has no descriptor left it is never set.
class Event {
  public:
    Event() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    /// Readable while it is set.
    [[nodiscard]] int descriptor() const noexcept { return _event.get(); }
    void set() const noexcept { (void)::eventfd_write(_event.get(), 1); }
    /// Whether it was set; it is no longer.
    bool take() const noexcept {
        eventfd_t count = 0;
        return ::eventfd_read(_event.get(), &count) == 0;
    }

  private:
    Descriptor _event;
};

} // namespace appsync
