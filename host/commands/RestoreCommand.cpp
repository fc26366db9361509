// `qrd restore`: puts a backup onto a device and has the plug-in make a placeholder of each app in it.
#include "concurrency/Mutex.h"
#include "device/Device.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/root/Tree.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/backup/BackupFolder.h"
#include "host/backup/CopyTree.h"
#include "host/commands/BringApps.h"
#include "host/control/Interrupt.h"
#include "host/control/RunControl.h"
#include "host/plugin/ClientOnDevice.h"
#include "host/transfer/TransferQueue.h"
#include "host/view/SyncReport.h"
#include "host/view/SyncView.h"
#include "platform/host/Places.h"
#include "propertylist/Codec.h"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <set>

namespace appsync::host {

namespace {

constexpr int desktopRestore = 2; // the type for which the plug-in reads the restore info
const std::string restoreInfoPath(paths::restoreInfo);
const std::string restoreFolder = restoreInfoPath.substr(0, restoreInfoPath.rfind('/'));
/// Where an app's data arrives before the backup service takes it.
const std::string incomingFolder = "/tmp/com.zuvex.qrd.RestoreData";

constexpr BringWords restoreWords{"a restore", "The backup holds no apps.", "restore again"};

class Restore {
  public:
    Restore(device::Device& device, BackupContent content, const BackupFolder& folder, SyncView& view)
        : _device(device), _content(std::move(content)), _folder(folder), _view(view) {}

    SyncReport run(int type, const std::string& plugInPath, const Interrupt& interrupt) {
        _type = type;
        _clearAway();
        _arrangeIcons();
        for (BackupApp& app : _content.apps) {
            if (app.problem.empty()) {
                app.problem = _problemOnDevice(app);
            }
        }
        _putDemotedApps();
        TransferQueue queue(_announced());
        const RunControl control(_device, _view, &interrupt, _wishes(queue));
        _putAllData(queue);
        _giveUpCancelled();
        _report.interrupted = Interrupt::requested();
        if (_report.interrupted) {
            _clearAway(); // the next one puts all again
        } else if (auto done = _putRestoreInfo(); !done) {
            _report.failure = done.error();
        } else {
            _report.failure = _reconcile(plugInPath).error();
        }
        _device.files().removeItem(restoreInfoPath, nullptr); // where the plug-in has left it nobody will read it
        _findOutcomes();
        _view.ended();
        _device.log().flush();
        if (const ErrorPtr failure = _device.log().failure()) {
            _content.problems.push_back("The device's log is not complete: " + reasonOf(failure));
        }
        _report.problems = _content.problems;
        _report.isIncomplete = _report.isIncomplete || !_report.problems.empty();
        return std::move(_report);
    }

  private:
    /// What a restore that was cut short has left.
    void _clearAway() {
        _device.files().removeItem(incomingFolder, nullptr);
        _device.files().removeItem(restoreFolder, nullptr);
    }

    void _arrangeIcons() {
        if (!_content.iconState) {
            return; // none that is a layout, which the reading of the backup has told
        }
        auto layout = device::IconLayout::fromPropertyList(*_content.iconState);
        if (!layout) {
            return;
        }
        if (const auto arranged = _device.homeScreen().arrange(std::move(*layout)); !arranged) {
            _content.problems.push_back("The icons could not be arranged as in the backup: " +
                                        reasonOf(arranged.error()));
        }
    }

    void _putDemotedApps() {
        if (!_content.demoted) {
            return;
        }
        device::DemotionLists lists = _device.demotedApps().lists(); // its own apps stay what they are
        for (const BackupApp& app : _content.apps) {
            if (app.problem.empty() && _content.demoted->contains(app.identifier)) {
                lists.put(app.identifier, _content.demoted->automatic.contains(app.identifier));
            }
        }
        const auto set = _device.demotedApps().set(lists);
        if (set) {
            return;
        }
        const std::string problem = "The list of demoted apps could not be put on the device: " + reasonOf(set.error());
        _content.problems.push_back(problem);
        for (BackupApp& app : _content.apps) {
            if (app.problem.empty() && _comesBackDemoted(app.identifier)) {
                app.problem = problem; // it would come back as an app for the store
            }
        }
    }

    bool _comesBackDemoted(const std::string& identifier) const {
        return _device.coordinationIsEnabled() && _content.demoted->contains(identifier);
    }

    /// What on the device keeps an app from being restored; empty when nothing does.
    std::string _problemOnDevice(const BackupApp& app) {
        const auto present = _device.registry().application(app.identifier);
        if (present && (present->isInstalled || _hasDemoted(*present))) {
            return "The device has it already; remove it first.";
        }
        return "";
    }

    /// Whether the data of a demoted app is all there; it may be newer than that of the backup.
    bool _hasDemoted(const device::Application& app) {
        const bool isDemoted = app.isDemoted() || (app.installType != PDInstallTypeRestore &&
                                                   _device.demotedApps().installTypeOf(app.identifier));
        const auto waiting = _device.backup().restoreDataFolder(app.identifier);
        return isDemoted && waiting && !*waiting && _device.files().fileExists(app.dataContainerPath);
    }

    /// Until the plug-in is told of the apps it is enough to leave one out; then the device has its placeholder.
    Wishes _wishes(TransferQueue& queue) {
        return {.prioritize = [&queue](const std::string& app) -> Result<void> {
                    return queue.prioritize(app) ? Result<void>() : notWaitingError(app);
                },
                .cancel = [this](const std::string& app) -> Result<void> {
                    return _leaveOut(app) || _cancelOnDevice(app) ? Result<void>() : notUnderWayError(app);
                }};
    }

    bool _leaveOut(const std::string& app) {
        const Lock lock(_mutex);
        if (!_isHandedOver && _bytes.contains(app)) {
            _cancelled.insert(app);
            return true;
        }
        return false;
    }

    bool _cancelOnDevice(const std::string& app) {
        const auto present = _device.registry().application(app);
        if (!present || !present->isPlaceholder) {
            return false;
        }
        const bool isDone = _device.coordinationIsEnabled()
                                ? _device.coordinator().cancelByUser(app)
                                : present->installType == PDInstallTypeRestore && _device.registry().cancelInstall(app);
        const Lock lock(_mutex);
        if (isDone) {
            _cancelled.insert(app);
        }
        return isDone;
    }

    bool _isCancelled(const std::string& app) {
        const Lock lock(_mutex);
        return _cancelled.contains(app);
    }

    /// Ends early when the restore is interrupted.
    void _putAllData(TransferQueue& queue) {
        std::map<std::string, BackupApp*> byIdentifier;
        for (BackupApp& app : _content.apps) {
            byIdentifier[app.identifier] = &app;
        }
        while (const auto identifier = queue.next()) {
            if (_isCancelled(*identifier)) {
                continue;
            }
            _view.transferBegan(*identifier);
            const auto put = _putData(*identifier);
            if (Interrupt::requested()) {
                return;
            }
            if (!_isCancelled(*identifier)) {
                byIdentifier.at(*identifier)->problem = reasonOf(put.error());
                _view.transferEnded(*identifier, put.error());
            }
        }
    }

    /// From now on who takes an app back does it on the device.
    void _giveUpCancelled() {
        std::set<std::string> cancelled;
        {
            const Lock lock(_mutex);
            _isHandedOver = true;
            cancelled = _cancelled;
        }
        for (BackupApp& app : _content.apps) {
            if (cancelled.contains(app.identifier) && app.problem.empty()) {
                app.problem = reasonOf(cancelledByUserError());
                (void)_device.backup().cancelRestore(app.identifier); // the outcome tells what is left
                _view.transferEnded(app.identifier, cancelledByUserError());
            }
        }
    }

    /// The apps whose data is to be put.
    std::vector<std::string> _announced() {
        std::vector<std::string> identifiers;
        std::vector<AppStatus> planned;
        for (const BackupApp& app : _content.apps) {
            if (app.problem.empty()) {
                auto data = _folder.openData(app.identifier);
                std::uint64_t bytes = 0;
                if (data && *data) {
                    (void)device::treeSize(std::move(**data), bytes); // only to be shown; copying will tell
                }
                planned.push_back({app.identifier, app.name, bytes});
                identifiers.push_back(app.identifier);
                _bytes[app.identifier] = bytes;
            }
        }
        _view.began(std::move(planned));
        return identifiers;
    }

    Result<void> _putData(const std::string& identifier) {
        auto from = _folder.openData(identifier);
        if (!from) {
            return from.error();
        }
        if (!*from) {
            return {};
        }
        const std::string incoming = incomingFolder + "/" + identifier;
        _device.files().removeItem(incoming, nullptr);
        ErrorPtr error;
        if (!_device.files().createDirectory(incoming, true, std::nullopt, &error)) {
            return error;
        }
        auto to = _device.files().open(incoming, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        double sent = 0;
        const auto copied = [&](std::size_t bytes) {
            sent += static_cast<double>(bytes);
            _view.transferring(identifier, std::min(1.0, sent / static_cast<double>(_bytes[identifier])));
        };
        const auto isOver = [&] { return Interrupt::requested() || _isCancelled(identifier); };
        auto put =
            to ? copyTree(std::move(**from), std::move(*to), _folder.dataPath(identifier), isOver, copied) : to.error();
        if (put) {
            put = _device.backup().addRestoreData(identifier, incoming);
        }
        if (!put) {
            _device.files().removeItem(incoming, nullptr);
        }
        return put;
    }

    Result<void> _reconcile(const std::string& plugInPath) {
        const auto plugIn = ClientOnDevice::start(_device, plugInPath);
        if (!plugIn) {
            return plugIn.error();
        }
        ErrorPtr error;
        (*plugIn)->client().reconcileRestoreOfType_withError(_type, &error);
        _device.coordinator().waitUntilIdle();
        return error;
    }

    Result<void> _putRestoreInfo() {
        Dictionary info;
        for (BackupApp& app : _content.apps) {
            if (app.problem.empty()) {
                info.set(app.identifier, std::move(app.entry));
            }
        }
        ErrorPtr error;
        const auto bytes =
            _device.propertyLists().dataWithPropertyList(std::move(info), PropertyListFormat::binary, &error);
        if (bytes && _device.files().createDirectory(restoreFolder, true, std::nullopt, &error)) {
            _device.files().writeFileAtomically(restoreInfoPath, bytes->bytes(), &error);
        }
        return error;
    }

    void _findOutcomes() {
        const auto open = _device.coordinator().openCoordinators();
        for (const BackupApp& app : _content.apps) {
            AppReport row{app.identifier, app.name, app.version, AppResult::failed, app.problem};
            if (const auto bytes = _bytes.find(app.identifier); bytes != _bytes.end()) {
                row.size = bytes->second;
                _report.bytes += row.size;
            }
            if (_isCancelled(app.identifier) && _resultOf(app.identifier, open) == AppResult::failed) {
                row.result = AppResult::cancelled;
                row.reason = reasonOf(cancelledByUserError());
                _giveUpData(row);
            } else if (app.problem.empty()) {
                _findOutcome(row, open);
                if (!app.remark.empty()) {
                    row.reason += (row.reason.empty() ? "" : " ") + app.remark;
                    _report.isIncomplete = true;
                }
            }
            if (_bytes.contains(app.identifier) && row.result != AppResult::waiting) {
                const bool isCancelled = row.result == AppResult::cancelled;
                const bool isFailed = row.result == AppResult::failed;
                _view.installEnded(app.identifier, isCancelled ? cancelledByUserError()
                                                   : isFailed  ? hostError(row.reason)
                                                               : nullptr);
            }
            _report.apps.push_back(std::move(row));
        }
    }

    void _findOutcome(AppReport& row, const std::vector<device::OpenCoordinator>& open) {
        row.result = _resultOf(row.identifier, open);
        if (row.result == AppResult::restored) {
            row.reason = _device.coordinationIsEnabled() ? "`qrd store` brings it." : "`qrd sync` brings it.";
        } else if (row.result == AppResult::demoted && _device.backup().restoreDataSize(row.identifier)) {
            row.result = AppResult::failed;
            row.reason = "It is there, demoted, but its data could not be put in place (`qrd log` tells why); that is "
                         "tried again when the device is next used.";
        } else if (row.result == AppResult::failed && _report.interrupted) {
            row.result = AppResult::waiting;
            row.reason = "The restore was interrupted.";
        } else if (row.result == AppResult::failed) {
            row.reason = _type == desktopRestore
                             ? "The device could not prepare it; `qrd log` tells why."
                             : "A restore of type " + std::to_string(_type) + " brings no apps back.";
            _giveUpData(row);
        }
    }

    /// Of an app that has no placeholder; one without data has nothing to give up.
    void _giveUpData(AppReport& row) {
        const auto given = _device.backup().cancelRestore(row.identifier);
        if (!given && !isError(given.error(), device::backupErrorDomain, device::BackupError::nothingToCancel)) {
            row.reason += " Its data is still on the device: " + reasonOf(given.error());
        }
    }

    AppResult _resultOf(const std::string& identifier, const std::vector<device::OpenCoordinator>& open) {
        const auto coordinator = std::ranges::find(open, identifier, &device::OpenCoordinator::bundleID);
        if (coordinator != open.end() && coordinator->responsibleClient == KXClientCorbin) {
            return AppResult::restored;
        }
        const auto app = _device.registry().application(identifier);
        if (!app || !app->isPlaceholder) {
            return AppResult::failed;
        }
        if (app->isDemoted()) {
            return AppResult::demoted;
        }
        const bool waitsForSync = app->installType == PDInstallTypeRestore && !_device.coordinationIsEnabled();
        return waitsForSync ? AppResult::restored : AppResult::failed;
    }

    device::Device& _device;
    BackupContent _content;
    const BackupFolder& _folder;
    SyncView& _view;
    std::map<std::string, std::uint64_t> _bytes; // of the data of the apps that are brought back
    int _type = desktopRestore;
    SyncReport _report;
    Mutex _mutex;
    std::set<std::string> _cancelled GUARDED_BY(_mutex);
    bool _isHandedOver GUARDED_BY(_mutex) = false; // the plug-in is told of the apps
};

} // namespace

ExitCode restore(const RestoreArguments& arguments) {
    PropertyListCodec codec;
    const auto folder = BackupFolder::open(arguments.from);
    auto content = folder ? folder->read(codec) : folder.error();
    if (!content) {
        return fail(reasonOf(content.error()), ExitCode::someAppFailed);
    }
    const BringWhere where{arguments.device, arguments.trace, arguments.json};
    return bringApps(where, restoreWords, [&](device::Device& device, SyncView& view, const Interrupt& interrupt) {
        return Result(
            Restore(device, std::move(*content), *folder, view).run(arguments.type, arguments.plugin, interrupt));
    });
}

} // namespace appsync::host
