#include "host/Interrupt.h"

#include <csignal>
#include <initializer_list>

namespace appsync::host {

namespace {

volatile std::sig_atomic_t signalled = 0; // a signal handler can reach nothing but a global

void handle(int signal) {
    if (signalled != 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
    }
    signalled = 1;
}

} // namespace

Interrupt::Interrupt() {
    signalled = 0;
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, handle);
    }
}

Interrupt::~Interrupt() {
    for (const int signal : {SIGINT, SIGTERM}) {
        std::signal(signal, SIG_DFL);
    }
}

bool Interrupt::requested() noexcept {
    return signalled != 0;
}

} // namespace appsync::host
