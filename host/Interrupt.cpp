#include "host/Interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace appsync::host {

namespace {

// A signal handler can reach nothing but globals.
volatile std::sig_atomic_t signalled = 0;
volatile std::sig_atomic_t event = -1;

void handle(int signal) {
    if (signalled != 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
    signalled = 1;
    if (event >= 0) {
        const int before = errno;
        (void)::eventfd_write(event, 1);
        errno = before;
    }
}

} // namespace

Interrupt::Interrupt() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    signalled = 0;
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
    signalled = 0;
    ::close(_event);
}

void Interrupt::waitFor(std::chrono::nanoseconds time) const noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const timespec timeout{seconds.count(), (time - seconds).count()};
    pollfd awaited{_event, POLLIN, 0};
    ::ppoll(&awaited, 1, &timeout, nullptr);
}

bool Interrupt::requested() noexcept {
    return signalled != 0;
}

} // namespace appsync::host
