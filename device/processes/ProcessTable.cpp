#include "device/processes/ProcessTable.h"

#include "device/processes/Spawn.h"
#include "device/root/Root.h"
#include "files/Syscalls.h"
#include "values/BundleIdentifier.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>

namespace appsync::device {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view runFolder = "/var/run/apps";

std::string recordPath(std::string_view identifier) {
    return std::string(runFolder) + "/" + std::string(identifier) + ".run";
}

std::string busyName(std::string_view identifier) {
    return std::string(identifier) + ".busy";
}

/// The lock is the open file's: children that inherit it hold it, too.
bool askForLock(int record, int command, struct flock& lock) {
    lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET; // from the beginning, of any length
    return ::fcntl(record, command, &lock) == 0;
}

bool takeLock(int record) {
    struct flock lock {};
    return askForLock(record, F_OFD_SETLK, lock);
}

/// Whether another open file holds the lock. It is not taken for that, or one who looks would pass for the app.
bool isLocked(int record) {
    struct flock lock {};
    return askForLock(record, F_OFD_GETLK, lock) && lock.l_type != F_UNLCK;
}

/// Waits until no process holds the record any more. The system's own wait for a lock knows no time-out.
bool waitUntilFree(int record, std::chrono::milliseconds maxWait) {
    constexpr timespec pause{0, 2'000'000};
    for (const auto deadline = Clock::now() + maxWait; isLocked(record);) {
        if (Clock::now() >= deadline) {
            return false;
        }
        ::nanosleep(&pause, nullptr);
    }
    return true;
}

} // namespace

ErrorPtr makeProcessError(ProcessError code, std::string_view identifier, const std::string& reason) {
    return makeError(processErrorDomain, static_cast<std::int64_t>(code),
                     std::string(identifier) + " cannot be launched: " + reason);
}

std::string busyPath(std::string_view identifier) {
    return std::string(runFolder) + "/" + busyName(identifier);
}

Result<pid_t> ProcessTable::launch(const LaunchRequest& request) {
    const std::string& identifier = request.identifier;
    ErrorPtr error;
    if (!_root.files().createDirectory(runFolder, true, std::nullopt, &error)) {
        return error;
    }
    const Descriptor record = isBundleIdentifier(identifier) ? _openRecord(identifier, O_RDWR | O_CREAT) : Descriptor();
    if (!record.isOpen()) {
        return makeProcessError(ProcessError::cannotBeStarted, identifier, "its record cannot be written");
    }
    if (!takeLock(record.get())) {
        return makeProcessError(ProcessError::runsAlready, identifier, "it runs already");
    }
    // Asked for with the lock in hand: who holds the app now has seen the lock, or will not look for it any more.
    if (const Lock lock(_mutex); _held.contains(identifier)) {
        return makeProcessError(ProcessError::beingReplaced, identifier,
                                "it is being replaced; try again when that is done");
    }
    // The number of a process that has ended may be another's by now.
    if (::ftruncate(record.get(), 0) != 0) {
        return makeProcessError(ProcessError::cannotBeStarted, identifier, "its record: " + systemText(errno));
    }
    if (const auto set = _setBusy(identifier, request.busy); !set) {
        return set.error();
    }
    const auto folder = _root.realPath(runFolder);
    if (!folder) {
        return folder.error();
    }
    const auto process = spawnDetached(
        request.executable, request.dataFolder,
        {"HOME=" + request.dataFolder, "APP_BUSY_FILE=" + *folder + "/" + busyName(identifier)}, record.get());
    return process ? process : makeProcessError(ProcessError::cannotBeStarted, identifier, errorText(process.error()));
}

bool ProcessTable::isRunning(std::string_view identifier) {
    const Descriptor record = isBundleIdentifier(identifier) ? _openRecord(identifier, O_RDONLY) : Descriptor();
    return record.isOpen() && isLocked(record.get());
}

RunningApps::Answer ProcessTable::endAndHold(std::string_view identifier) noexcept {
    const Descriptor record = isBundleIdentifier(identifier) ? _openRecord(identifier, O_RDONLY) : Descriptor();
    if (!record.isOpen()) {
        return Answer::notRunning;
    }
    {
        const Lock lock(_mutex);
        _held.emplace(identifier); // before the look, so that the app cannot be launched after it
    }
    const Answer answer = _endIfIdle(identifier, record.get());
    if (answer != Answer::ended) {
        letGo(identifier);
    }
    return answer;
}

RunningApps::Answer ProcessTable::_endIfIdle(std::string_view identifier, int record) {
    if (!isLocked(record)) {
        return Answer::notRunning;
    }
    return !_root.files().fileExists(busyPath(identifier)) && _end(record) ? Answer::ended : Answer::busy;
}

void ProcessTable::letGo(std::string_view identifier) noexcept {
    const Lock lock(_mutex);
    if (const auto held = _held.find(identifier); held != _held.end()) {
        _held.erase(held);
    }
}

Descriptor ProcessTable::_openRecord(std::string_view identifier, int flags) {
    auto record = _root.files().open(recordPath(identifier), flags | O_NOFOLLOW | O_CLOEXEC);
    return record ? std::move(*record) : Descriptor();
}

/// Ends the processes whose group the record names. True when none is left.
bool ProcessTable::_end(int record) const {
    constexpr std::size_t maxDigits = 20;
    std::string text;
    pid_t group = 0;
    if (::lseek(record, 0, SEEK_SET) != 0 || readAll(record, maxDigits, text) != 0) {
        return false;
    }
    std::from_chars(text.data(), text.data() + text.size(), group);
    if (group <= 1) {
        return false;
    }
    ::kill(-group, SIGTERM);
    if (waitUntilFree(record, _grace)) {
        return true;
    }
    ::kill(-group, SIGKILL);
    return waitUntilFree(record, _grace);
}

Result<void> ProcessTable::_setBusy(const std::string& identifier, bool busy) {
    const std::string path = busyPath(identifier);
    if (!busy) {
        _root.files().removeItem(path, nullptr);
        return {};
    }
    return _root.files().open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC).error();
}

} // namespace appsync::device
