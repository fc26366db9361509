// By which a person reaches what brings apps to a device, be it a sync, a restore or a visit to the store.
#pragma once

#include "host/control/ControlServer.h"
#include "host/control/ControlSocket.h"
#include "values/Result.h"

#include <functional>
#include <optional>
#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

class Interrupt;
class SyncView;

/// What a person may want of it; done on another thread. The error says why nothing was done.
struct Wishes {
    std::function<Result<void>(const std::string& app)> prioritize; // brings an app first
    std::function<Result<void>(const std::string& app)> cancel;     // takes an app back
    std::function<void()> end = [] {};                              // the process has been asked to end
};

/// While it lives, the control socket of the device answers with the status that a view shows, and does what a person
/// wants. Where the socket cannot be made it goes on without, and the view says so.
class RunControl {
  public:
    /// All must outlive it. `interrupt` may be null.
    RunControl(device::Device& device, SyncView& view, const Interrupt* interrupt, Wishes wishes);

  private:
    const Result<ListeningSocket> _listening;
    const ControlServer _server;
};

/// That there is no install of an app which a person could take back or have first.
[[nodiscard]] ErrorPtr notUnderWayError(const std::string& app);
[[nodiscard]] ErrorPtr notWaitingError(const std::string& app);

} // namespace appsync::host
