#include "host/control/Interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace appsync::host {

namespace {

// A signal handler can reach nothing but globals; these need no lock.
std::atomic<bool> signalled = false;
std::atomic<int> event = -1;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void handle(int signal) {
    if (signalled.exchange(true)) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
    if (event >= 0) {
        const int before = errno;
        (void)::eventfd_write(event, 1);
        errno = before;
    }
}

} // namespace

Interrupt::Interrupt() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    signalled = false;
    event = _event;
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, handle);
    }
}

Interrupt::~Interrupt() {
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, SIG_DFL);
    }
    event = -1;
    signalled = false;
    ::close(_event);
}

void Interrupt::waitFor(std::chrono::nanoseconds time) const noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const timespec timeout{seconds.count(), (time - seconds).count()};
    pollfd awaited{_event, POLLIN, 0};
    ::ppoll(&awaited, 1, &timeout, nullptr);
}

bool Interrupt::requested() noexcept {
    return signalled;
}

} // namespace appsync::host
