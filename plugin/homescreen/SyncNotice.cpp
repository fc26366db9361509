// Tells the home screen that an app sync is starting or done.
#include "plugin/client/AppsClient.h"

#include "platform/HomeScreen.h"
#include "platform/Notifications.h"

namespace appsync {

void AppsClient::_notifySkellan(bool starting) {
    int token{};
    const std::uint32_t status = _platform.notifications.notify_register_check(syncNoticeName, &token);
    _log.message("Notifying SK we are %s syncing", starting ? "starting" : "done");
    // Asking for the port wakes the home screen; the answer is not needed.
    static_cast<void>(_platform.homeScreen.SKSSkellanBlockableServerPort());
    if (status != 0) {
        _log.error("Uh Oh...can't send notification to SK:%d", status);
        return;
    }
    _platform.notifications.notify_set_state(token, starting ? 1 : 0);
    _platform.notifications.notify_post(syncNoticeName);
}

} // namespace appsync
