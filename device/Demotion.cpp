// Demoting an app: its bundle goes, its data and a placeholder stay.
#include "archive/InstallerError.h"
#include "device/Device.h"
#include "device/archive/Extraction.h"
#include "device/processes/ProcessTable.h"
#include "device/services/DemotedApps.h"

namespace appsync::device {

namespace {

/// Keeps an app from running; lets it go at the end.
class Hold {
  public:
    Hold(ProcessTable& processes, const std::string& identifier)
        : _processes(processes), _identifier(identifier), _answer(processes.endAndHold(identifier)) {}
    ~Hold() {
        if (_answer == RunningApps::Answer::ended) {
            _processes.letGo(_identifier);
        }
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    [[nodiscard]] bool isRefused() const noexcept { return _answer == RunningApps::Answer::busy; }

  private:
    ProcessTable& _processes;
    const std::string& _identifier;
    const RunningApps::Answer _answer;
};

PlaceholderRequest placeholderOf(DeviceFileSystem& files, const Application& app, bool isAutomatic) {
    PlaceholderRequest request;
    request.identifier = app.identifier;
    request.info.set("BXBundleDisplayName", app.name);
    if (app.version) {
        request.info.set("BXBundleVersion", *app.version);
    }
    request.iconPath = app.iconPath;
    request.installType = isAutomatic ? PDInstallTypeDowngrade : PDInstallTypeIntentionalDowngrade;
    request.metadata = files.readFile(app.containerPath + "/" + std::string(metadataFileName), nullptr);
    request.sinf = files.readFile(app.containerPath + "/" + std::string(sinfFileName), nullptr);
    request.isSystem = app.isSystem;
    request.replacesApp = true;
    return request;
}

} // namespace

Result<void> Device::demote(const std::string& identifier, bool isAutomatic) {
    const auto app = registry().application(identifier);
    if (!app || (!app->isDemoted() && (!app->isInstalled || app->isPlaceholder))) {
        const std::string reason = !app ? "the device has no such app" : "it is on its way; wait until it is installed";
        return makeInstallerError(InstallerError::invalidRequest, "cannot demote " + identifier + ": " + reason);
    }
    const Hold hold(processes(), identifier);
    if (hold.isRefused()) {
        return makeError(ProcessErrorDomain, static_cast<std::int64_t>(ProcessError::inUse),
                         identifier + " is in use and cannot be ended now; close it and try again");
    }
    // First the list: one that names an installed app is put right when the device is opened.
    if (auto listed = demotedApps().add(identifier, isAutomatic); !listed) {
        return listed;
    }
    auto demoted = registry().installPlaceholder(placeholderOf(files(), *app, isAutomatic));
    if (!demoted && app->isInstalled) {
        (void)demotedApps().remove(identifier);
    }
    return demoted;
}

} // namespace appsync::device
