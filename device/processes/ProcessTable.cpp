#include "device/processes/ProcessTable.h"

#include "device/processes/Spawn.h"
#include "device/root/Root.h"
#include "device/root/Syscalls.h"

#include <sys/file.h>

#include <charconv>
#include <csignal>
#include <ctime>

namespace appsync::device {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view RunFolder = "/var/run/apps";

std::string recordPath(std::string_view identifier) {
    return std::string(RunFolder) + "/" + std::string(identifier) + ".run";
}

std::string busyPath(std::string_view identifier) {
    return std::string(RunFolder) + "/" + std::string(identifier) + ".busy";
}

/// Identifiers become names of files.
bool isFileName(std::string_view identifier) {
    return !identifier.empty() && identifier.find('/') == std::string_view::npos &&
           identifier.find('\0') == std::string_view::npos;
}

bool takeLock(int record) {
    return ::flock(record, LOCK_EX | LOCK_NB) == 0;
}

/// Waits until no process holds the record any more. The system's own wait for a lock knows no time-out.
bool waitForLock(int record, std::chrono::milliseconds longest) {
    constexpr timespec pause{0, 2'000'000};
    for (const auto deadline = Clock::now() + longest; !takeLock(record);) {
        if (Clock::now() >= deadline) {
            return false;
        }
        ::nanosleep(&pause, nullptr);
    }
    return true;
}

ErrorPtr processError(ProcessError code, std::string_view identifier, const std::string& reason) {
    return makeError(ProcessErrorDomain, static_cast<std::int64_t>(code),
                     std::string(identifier) + " cannot be launched: " + reason);
}

} // namespace

Result<pid_t> ProcessTable::launch(const LaunchRequest& request) {
    const std::string& identifier = request.identifier;
    if (_isHeld(identifier)) {
        return processError(ProcessError::beingReplaced, identifier,
                            "it is being replaced; try again when that is done");
    }
    ErrorPtr error;
    if (!_root.files().createDirectory(RunFolder, true, std::nullopt, &error)) {
        return error;
    }
    const Descriptor record = isFileName(identifier) ? _openRecord(identifier, O_RDWR | O_CREAT) : Descriptor();
    if (!record.isOpen()) {
        return processError(ProcessError::cannotBeStarted, identifier, "its record cannot be written");
    }
    if (!takeLock(record.get())) {
        return processError(ProcessError::runsAlready, identifier, "it runs already");
    }
    if (error = _setBusy(identifier, request.busy); error) {
        return error;
    }
    pid_t process = 0;
    const int failed = spawnDetached(
        {.executable = request.executable,
         .folder = request.dataFolder,
         .variables = {"HOME=" + request.dataFolder, "APP_BUSY_FILE=" + _root.hostPath(busyPath(identifier))},
         .record = record.get()},
        process);
    if (failed != 0) {
        return processError(ProcessError::cannotBeStarted, identifier, request.executable + ": " + systemText(failed));
    }
    return process;
}

bool ProcessTable::isRunning(std::string_view identifier) {
    const Descriptor record = isFileName(identifier) ? _openRecord(identifier, O_RDWR) : Descriptor();
    return record.isOpen() && !takeLock(record.get());
}

RunningApps::Answer ProcessTable::endAndHold(std::string_view identifier) noexcept {
    const Descriptor record = isFileName(identifier) ? _openRecord(identifier, O_RDWR) : Descriptor();
    if (!record.isOpen() || takeLock(record.get())) {
        return Answer::notRunning;
    }
    if (_root.files().fileExists(busyPath(identifier)) || !_end(record.get())) {
        return Answer::busy;
    }
    const std::lock_guard lock(_mutex);
    _held.emplace(identifier);
    return Answer::ended;
}

void ProcessTable::letGo(std::string_view identifier) noexcept {
    const std::lock_guard lock(_mutex);
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
    constexpr std::size_t longestNumber = 20;
    std::string text;
    pid_t group = 0;
    if (::lseek(record, 0, SEEK_SET) != 0 || readAll(record, longestNumber, text) != 0) {
        return false;
    }
    std::from_chars(text.data(), text.data() + text.size(), group);
    if (group <= 1) {
        return false;
    }
    ::kill(-group, SIGTERM);
    if (waitForLock(record, _grace)) {
        return true;
    }
    ::kill(-group, SIGKILL);
    return waitForLock(record, _grace);
}

bool ProcessTable::_isHeld(const std::string& identifier) {
    const std::lock_guard lock(_mutex);
    return _held.contains(identifier);
}

ErrorPtr ProcessTable::_setBusy(const std::string& identifier, bool busy) {
    const std::string path = busyPath(identifier);
    if (!busy) {
        _root.files().removeItem(path, nullptr);
        return nullptr;
    }
    return _root.files().open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC).error();
}

} // namespace appsync::device
