// One life of the plug-in: a device, some syncs and restores, and whatever comes in between.
#pragma once

#include "tests/simulation/Chaos.h"

namespace appsync::simulation {

class Life {
  public:
    /// With `records`, the journal keeps every call and message.
    Life(std::uint64_t seed, Tally& tally, OtherThreads& threads, bool records);
    ~Life();
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;

    /// Lives until the end or the first violation.
    std::optional<Violation> live();
    [[nodiscard]] std::vector<std::string> journal() { return _state.world.journal.take(); }

  private:
    void _beBorn();
    void _liveAnEpisode();
    void _sync();
    void _transfer();
    void _doSomethingWith(std::size_t transfer);
    void _restore();
    /// Whether the life goes on as planned; false when the host is dead, who then starts again, or something did not
    /// hold.
    bool _goesOn();
    void _die();

    State _state;
    OtherThreads& _threads;
    ListeningLog _log;
    Calls _calls;
    Chaos _chaos;
};

} // namespace appsync::simulation
