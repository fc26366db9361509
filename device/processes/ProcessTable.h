// The apps that run. Each is a process of its own and outlives the one that started it.
//
//   /var/run/apps/<bundle identifier>.run    locked as long as a process of the app lives; holds the first one's number
//   /var/run/apps/<bundle identifier>.busy   stands there while the app holds itself busy
//
// An app finds the path of the second on this machine in the variable APP_BUSY_FILE: it makes the file to be left alone
// and removes it to let go. HOME is the app's data container.
#pragma once

#include "concurrency/Mutex.h"
#include "device/screen/RunningApps.h"
#include "files/Descriptor.h"
#include "values/Result.h"

#include <sys/types.h>

#include <chrono>
#include <set>
#include <string>

namespace appsync::device {

class Root;

inline constexpr std::string_view processErrorDomain = "DeviceProcess";
enum class ProcessError : std::int64_t {
    notInstalled = 1,    // the device has no such app, or a placeholder of it only
    prohibited = 2,      // the app may not be launched
    noExecutable = 3,    // its Info.plist names none, or one that cannot be run
    runsAlready = 4,     //
    beingReplaced = 5,   // somebody holds a termination assertion for it
    cannotBeStarted = 6, // the system's reason is in the description
    inUse = 7,           // it is busy and cannot be ended now
};

/// Why an app cannot be launched.
[[nodiscard]] ErrorPtr makeProcessError(ProcessError code, std::string_view identifier, const std::string& reason);
/// The file by which an app holds itself busy.
[[nodiscard]] std::string busyPath(std::string_view bundleIdentifier);

/// What to start; the paths are paths of this machine.
struct LaunchRequest {
    std::string identifier;
    std::string executable;
    std::string dataFolder; // becomes the working directory and HOME; must exist
    bool busy = false;      // it begins busy, before its first instruction
};

/// Any thread.
class ProcessTable final : public RunningApps {
  public:
    /// The root must outlive the table. An app that was asked to end and has not done so within `grace` is killed.
    explicit ProcessTable(Root& root, std::chrono::milliseconds grace = std::chrono::seconds(5))
        : _root(root), _grace(grace) {}

    /// The number of the new process.
    [[nodiscard]] Result<pid_t> launch(const LaunchRequest& request);
    [[nodiscard]] bool isRunning(std::string_view bundleIdentifier);

    /// Asks all processes of the app to end with SIGTERM.
    [[nodiscard]] Answer endAndHold(std::string_view bundleIdentifier) noexcept override;
    void letGo(std::string_view bundleIdentifier) noexcept override;

  private:
    [[nodiscard]] Descriptor _openRecord(std::string_view identifier, int flags);
    [[nodiscard]] bool _end(int record) const;
    [[nodiscard]] Answer _endIfIdle(std::string_view identifier, int record);
    [[nodiscard]] Result<void> _setBusy(const std::string& identifier, bool busy);

    Root& _root;
    const std::chrono::milliseconds _grace;
    Mutex _mutex;
    std::multiset<std::string, std::less<>> _held GUARDED_BY(_mutex); // one entry a hold
};

} // namespace appsync::device
