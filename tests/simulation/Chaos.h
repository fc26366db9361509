// What comes in between: services that fail, calls on other threads in the midst of a call, and the host's death.
#pragma once

#include "platform/host/Log.h"
#include "tests/simulation/Calls.h"
#include "tests/simulation/OtherThread.h"

#include <array>
#include <atomic>
#include <thread>

namespace appsync::simulation {

/// The threads besides the host's, kept from life to life.
struct OtherThreads {
    OtherThread later;                     // what a call waits for
    std::array<OtherThread, 2> inTheMidst; // what comes in the midst of a call, and in the midst of that
};

class Chaos {
  public:
    /// Stands between the plug-in and the services of the state's world from now on.
    Chaos(State& state, Calls& calls, OtherThreads& threads);

    /// The host dies at the call to a service after so many, unless 0.
    std::size_t callsUntilDeath = 0;
    /// How rarely a call fails: one in so many; 0 for never.
    std::size_t failsOneIn = 0;
    /// How rarely something comes in the midst of a call.
    std::size_t interruptedOneIn = 50;
    /// A call that always fails.
    std::string_view broken;

  private:
    ErrorPtr _intercept(std::string_view call, std::string_view arguments);
    ErrorPtr _live(std::string_view call, std::string_view arguments);
    void _waitForLater();
    ErrorPtr _fault(std::string_view call);
    void _interrupt();
    void _callInBetween();
    void _completeRefresh();

    State& _state;
    Calls& _calls;
    OtherThreads& _threads;
    const std::thread::id _host = std::this_thread::get_id();
    std::atomic<bool> _hostIsBack = false;
    std::size_t _depth = 0;
};

/// The calls that can fail.
[[nodiscard]] std::string_view someFallibleCall(Chance& chance);

/// The host's log. The first message of a call tells the other thread that the call is under way.
class ListeningLog final : public HostLog {
  public:
    ListeningLog(inmemory::Log& log, inmemory::Journal& journal, OtherThread& later)
        : _log(log), _journal(journal), _later(later) {}
    bool isEnabled(QRLogCategory category, LogLevel level) noexcept override;
    void write(QRLogCategory category, LogLevel level, std::string_view format,
               std::string_view text) noexcept override;

  private:
    inmemory::Log& _log;
    inmemory::Journal& _journal;
    OtherThread& _later;
};

} // namespace appsync::simulation
