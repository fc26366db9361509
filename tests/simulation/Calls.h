// Each call into the plug-in that a life makes, with what must come of it.
#pragma once

#include "tests/simulation/InstallStage.h"
#include "tests/simulation/State.h"

namespace appsync::simulation {

class OtherThread;

class Calls {
  public:
    /// Installs that the end of the transfers waits for run on the other thread.
    Calls(State& state, OtherThread& later) : _state(state), _later(later) {}

    // The host's calls.

    /// Opens a sync with what is staged; nothing is a list that cannot be understood, or none.
    bool reconcile(const std::optional<Array>& staged);
    void takeInventory();
    void plan();
    void reportProgress(std::size_t transfer);
    void arrive(std::size_t transfer);
    void fail(std::size_t transfer, const ErrorPtr& error);
    void endTransfers(bool success);
    void endSync(bool success);
    void restore(int type);
    void wipe();
    void askAside();

    // The services' calls, and a person's.

    void cancel(std::string_view identifier);
    void cancelRestores();
    void prioritise(std::string_view identifier);
    void showPlaceholder(std::string_view identifier);
    /// Lets a coordinator end whose app has arrived, if there is one of an app that no call is about.
    void completeACoordinator();
    void runAnInstall(std::size_t position);
    /// Thirty seconds: what was put off is queued again.
    void passTime();
    /// Calls that take each of the client's locks once; they end if none is held.
    void takeEveryLock();
    /// Lets the services do what they have been asked to.
    void letServicesAct();

    /// Whether the other thread does what the present call waits for; see `Chaos`.
    bool laterIsRunning = false;

  private:
    void _finishInstalls();
    void _expectArrival(const QRAsset& asset);
    void _checkSettled(const Frame& frame, bool success);
    [[nodiscard]] std::multiset<std::string> _planned(const Array& toDoList) const;
    [[nodiscard]] std::set<std::string> _toBeRestored() const;

    State& _state;
    OtherThread& _later;
};

} // namespace appsync::simulation
