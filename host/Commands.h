// What `qrd` can do: one function a command, each answering with its exit code after telling the person.
#pragma once

#include "host/ExitCode.h"
#include "host/view/Print.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace appsync::host {

struct DeviceCreateArguments {
    std::string device = {};
    bool noCoordination = false;
    bool forbidInstall = false;
    bool forbidRemoval = false;
};
[[nodiscard]] ExitCode createDevice(const DeviceCreateArguments& arguments);

struct SyncArguments {
    std::string device = {};
    std::string library = {};
    std::vector<std::string> install = {}; // identifiers or names; none means everything that the device lacks
    std::vector<std::string> remove = {};
    std::string plugin = {}; // empty: the bundle beside the program
    bool reinstall = false;  // those of `install` also when they are there in the library's version
    bool downgrade = false;  // also to an older version
    bool dryRun = false;
    JsonOutput json = JsonOutput::none;
    std::string bandwidth = {}; // of the transfers, "10MB/s"; empty: as fast as it goes
    std::string trace = {};     // the file for the timeline; empty: none
};
[[nodiscard]] ExitCode sync(const SyncArguments& arguments);

struct LaunchArguments {
    std::string device = {};
    std::string app = {};
    bool busy = false;
};
[[nodiscard]] ExitCode launch(const LaunchArguments& arguments);

/// Ends a running app, unless it is busy.
struct QuitArguments {
    std::string device = {};
    std::string app = {};
};
[[nodiscard]] ExitCode quit(const QuitArguments& arguments);

/// Of the sync that runs on a device.
struct ControlArguments {
    std::string device = {};
    std::string app = {};
};
[[nodiscard]] ExitCode prioritize(const ControlArguments& arguments);
[[nodiscard]] ExitCode cancel(const ControlArguments& arguments);

struct StatusArguments {
    std::string device = {};
    bool follow = false;
    bool json = false;
};
[[nodiscard]] ExitCode showSyncStatus(const StatusArguments& arguments);

/// Shows the device in a browser of this machine, until the process is asked to end.
struct WatchArguments {
    std::string device = {};
    std::uint16_t port = 0; // 0: any free one
    bool opensBrowser = false;
};
[[nodiscard]] ExitCode watch(const WatchArguments& arguments);

struct AppsArguments {
    std::string device = {};
    bool json = false;
};
[[nodiscard]] ExitCode listApps(const AppsArguments& arguments);

struct LogArguments {
    std::string device = {};
    std::string app = {};                 // only what names this app; empty: of all apps
    std::string level = {};               // only this one and worse; empty: every level
    std::string since = {};               // a time that `parseTime` takes; empty: from the beginning
    std::optional<std::size_t> tail = {}; // only so many, the last ones
    bool follow = false;                  // go on with what is still to come
    bool transactions = false;
    bool json = false;
};
[[nodiscard]] ExitCode showLog(const LogArguments& arguments);

/// Of the plug-in, outside of a sync.
struct QueryArguments {
    std::string device = {};
    std::string plugin = {}; // empty: the bundle beside the program
    bool json = false;
};
/// Which apps were deleted on the device since the last sync.
[[nodiscard]] ExitCode showInventory(const QueryArguments& arguments);
[[nodiscard]] ExitCode showMetrics(const QueryArguments& arguments);
[[nodiscard]] ExitCode showAccounts(const QueryArguments& arguments);

/// As a person on the device would.
struct UninstallArguments {
    std::string device = {};
    std::string app = {};
};
[[nodiscard]] ExitCode uninstall(const UninstallArguments& arguments);

struct ResetArguments {
    std::string device = {};
    std::string plugin = {};
    bool yes = false; // do not ask first
};
[[nodiscard]] ExitCode reset(const ResetArguments& arguments);

/// Lets go of an app's bundle and keeps its data.
struct DemoteArguments {
    std::string device = {};
    std::string app = {};
    bool automatic = false; // by the system, not by a person
};
[[nodiscard]] ExitCode demote(const DemoteArguments& arguments);

struct BackupArguments {
    std::string device = {};
    std::string output = {}; // a folder that does not exist yet
    std::string plugin = {};
};
[[nodiscard]] ExitCode backup(const BackupArguments& arguments);

struct RestoreArguments {
    std::string device = {};
    std::string from = {}; // a folder that `backup` has made
    int type = 2;          // the restore type that the plug-in is told
    std::string plugin = {};
    JsonOutput json = JsonOutput::none;
    std::string trace = {}; // the file for the timeline; empty: none
};
[[nodiscard]] ExitCode restore(const RestoreArguments& arguments);

/// As the store would, brings the apps that a restore left to it.
struct StoreArguments {
    std::string device = {};
    std::string catalogue = {}; // a folder of app archives
    JsonOutput json = JsonOutput::none;
    std::string trace = {}; // the file for the timeline; empty: none
};
[[nodiscard]] ExitCode store(const StoreArguments& arguments);

struct ScreenArguments {
    std::string device = {};
    std::string output = {};
};
[[nodiscard]] ExitCode drawScreen(const ScreenArguments& arguments);

struct PackArguments {
    std::string app = {};
    std::string output = {};                // the archive; of a new app the folder to make it in, empty: this one
    std::optional<std::string> newApp = {}; // its name, when an app's folder is to be made and nothing packed
};
[[nodiscard]] ExitCode pack(const PackArguments& arguments);

struct PlistArguments {
    std::string file = {};
    std::string output = {}; // convert: empty means in place
    bool toXml = false;      // convert: otherwise to binary
};
[[nodiscard]] ExitCode printPlist(const PlistArguments& arguments);
[[nodiscard]] ExitCode convertPlist(const PlistArguments& arguments);
[[nodiscard]] ExitCode checkPlist(const PlistArguments& arguments);

} // namespace appsync::host
