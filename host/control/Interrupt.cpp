#include "host/control/Interrupt.h"

#include "host/view/Terminal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

namespace appsync::host {

namespace {

// A signal handler can reach nothing but globals; these need no lock.
std::atomic<int> signalled = 0; // the first that has come
std::atomic<int> event = -1;
std::atomic<int> handling = 0; // threads that may be about to write to the event
static_assert(std::atomic<int>::is_always_lock_free);

constexpr std::array signals{SIGINT, SIGTERM, SIGHUP, SIGPIPE};

void handle(int signal) {
    int none = 0;
    if (!signalled.compare_exchange_strong(none, signal) && (signal == SIGINT || signal == SIGTERM)) {
        eraseDrawing();
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
    ++handling;
    if (const int opened = event; opened >= 0) {
        const int before = errno;
        (void)::eventfd_write(opened, 1);
        errno = before;
    }
    --handling;
}

} // namespace

Interrupt::Interrupt() : _event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    signalled = 0;
    event = _event;
    for (std::size_t place = 0; place < signals.size(); ++place) {
        const auto before = std::signal(signals[place], handle);
        _before[place] = before;
        if (before == SIG_IGN && signals[place] != SIGPIPE) {
            std::signal(signals[place], SIG_IGN);
        }
    }
}

Interrupt::~Interrupt() {
    for (std::size_t place = 0; place < signals.size(); ++place) {
        std::signal(signals[place], _before[place]);
    }
    event = -1;
    while (handling > 0) { // on another thread; its number may be another file's once this one is closed
        std::this_thread::yield();
    }
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

ExitCode Interrupt::exitCode() noexcept {
    switch (signalled) {
    case 0: return ExitCode::done;
    case SIGHUP: return ExitCode::hungUp;
    case SIGPIPE: return ExitCode::brokenPipe;
    case SIGTERM: return ExitCode::terminated;
    default: return ExitCode::interrupted;
    }
}

} // namespace appsync::host
