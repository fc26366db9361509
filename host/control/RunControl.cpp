#include "host/control/RunControl.h"

#include "device/Device.h"
#include "device/log/TransactionLog.h"
#include "host/control/Interrupt.h"
#include "host/plugin/PlugIn.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"

namespace appsync::host {

RunControl::RunControl(device::Device& device, SyncView& view, const Interrupt* interrupt, Wishes wishes)
    : _listening(ListeningSocket::open(device.files())),
      _server(_listening ? _listening->descriptor() : -1, interrupt ? interrupt->descriptor() : -1,
              {.status = [&view] { return toJson(view.status()); },
               .changes = {&view.changes(), &device.log().waiting()},
               .writeLog = [&device] { device.log().flush(); },
               .flush =
                   [&device] {
                       device.log().flush();
                       (void)device.transactionLog().flush(); // tried again by its own thread
                   },
               .prioritize = std::move(wishes.prioritize),
               .cancel = std::move(wishes.cancel),
               .interrupted = std::move(wishes.end)}) {
    if (!_listening) {
        view.note(reasonOf(_listening.error()));
    }
}

ErrorPtr notUnderWayError(const std::string& app) {
    return hostError("'" + app + "' is not being installed; `qrd status` shows what is.");
}

ErrorPtr notWaitingError(const std::string& app) {
    return hostError("'" + app + "' does not wait for its transfer.");
}

} // namespace appsync::host
