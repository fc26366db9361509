// What has happened in all lives together, so that a simulation in which nothing happens is noticed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace appsync::simulation {

enum class Event : std::size_t {
    lifeWithCoordination,
    lifeWithoutCoordination,
    sync,
    removal,
    requestedApp,
    refusedPreparation,
    progress,
    progressOutOfRange,
    arrival,
    arrivalAgain,
    progressAfterTheEnd,
    failedTransfer,
    upload,
    waitForUserData,
    unsafePathOffered,
    installDone,
    installFailed,
    installDenied,
    assertionUnknown,
    installWithinACall,
    installAwaited,
    installDropped,
    retryDropped,
    undoneInstall,
    appLostToUndoing,
    coordinatedDone,
    coordinatedFailed,
    cancellation,
    prioritisation,
    callWithinACall,
    settledAtTheEnd,
    restore,
    restoredApp,
    wipe,
    sideQuery,
    failureInjected,
    hostDeath,
    hostDeathWithinACall,
    count
};

inline constexpr std::array<std::string_view, static_cast<std::size_t>(Event::count)> eventNames = {
    "lives with install coordination",
    "lives without it",
    "syncs",
    "apps removed for the to-do list",
    "apps requested",
    "preparations refused",
    "progress reports",
    "progress reports out of range",
    "arrivals",
    "arrivals for the second time",
    "progress reports after the end of the transfer",
    "transfers failed",
    "uploads",
    "restored packages that wait for their data",
    "identifiers and paths with \"/..\" offered",
    "installs done",
    "installs failed",
    "assertions denied",
    "assertions that failed for unknown reasons",
    "installs in the midst of another call",
    "installs that the end of the transfers waited for",
    "installs dropped at teardown",
    "retries dropped at teardown",
    "failed installs undone",
    "installed apps that went with an undone install",
    "coordinated installs done",
    "coordinated installs failed",
    "cancellations",
    "prioritisations",
    "calls on another thread in the midst of a call",
    "unfinished transfers settled",
    "restores",
    "apps restored",
    "wipes of all sync data",
    "side queries",
    "failures injected",
    "host deaths between calls",
    "host deaths within a call",
};

class Tally {
  public:
    void add(Event event, std::uint64_t times = 1) noexcept { _counts[static_cast<std::size_t>(event)] += times; }
    [[nodiscard]] std::uint64_t of(std::size_t event) const noexcept { return _counts[event]; }

  private:
    std::array<std::uint64_t, eventNames.size()> _counts{};
};

} // namespace appsync::simulation
