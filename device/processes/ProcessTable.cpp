#include "device/processes/ProcessTable.h"

#include "device/root/Root.h"
#include "files/Syscalls.h"
#include "values/BundleIdentifier.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <vector>

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

/// What the new process tells the old one; it fits into one write.
struct Report {
    pid_t process = 0;
    int failed = 0;
};

/// Everything that the new process needs, made ready: between the fork and the new program nothing may be allocated.
struct Prepared {
    const char* executable;
    const char* folder;
    std::vector<char*> variables;
    int record;
    int report; // closed when the new program begins
};

[[noreturn]] void fail(const Prepared& prepared) {
    const Report report{0, errno};
    (void)!::write(prepared.report, &report, sizeof report);
    ::_exit(127);
}

ErrorPtr spawnError(int failed, const std::string& executable) {
    return makeError(posixErrorDomain, failed, executable + ": " + systemText(failed), executable);
}

bool writeNumber(int file, pid_t number) {
    std::array<char, 16> digits{};
    std::size_t first = digits.size();
    for (pid_t rest = number; rest > 0; rest /= 10) {
        digits[--first] = static_cast<char>('0' + rest % 10);
    }
    const std::size_t length = digits.size() - first;
    return ::ftruncate(file, 0) == 0 &&
           ::pwrite(file, digits.data() + first, length, 0) == static_cast<ssize_t>(length);
}

/// The new process, from its beginning to the new program.
[[noreturn]] void become(const Prepared& prepared) {
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        ::signal(signal, SIG_DFL);
    }
    const int nowhere = ::open("/dev/null", O_RDWR);
    // Nothing that the starter has open is handed on but the record, not even what was opened without O_CLOEXEC.
    ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    if (nowhere < 0 || ::setsid() < 0 || !writeNumber(prepared.record, ::getpid()) ||
        ::fcntl(prepared.record, F_SETFD, 0) < 0 || ::chdir(prepared.folder) != 0) {
        fail(prepared);
    }
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(nowhere, stream);
    }
    if (nowhere > STDERR_FILENO) {
        ::close(nowhere);
    }
    const Report report{::getpid(), 0};
    (void)!::write(prepared.report, &report, sizeof report);
    char* const arguments[] = {const_cast<char*>(prepared.executable), nullptr};
    ::execve(prepared.executable, arguments, prepared.variables.data());
    fail(prepared);
}

/// Starts a program without arguments in a folder, with variables ("NAME=value") beside PATH, as the leader of a
/// session and a process group of its own, without a terminal, its output thrown away. `record` is a file that the
/// process writes its number into, keeps open, and hands on to its children. Nobody has to wait for it. Returns its
/// number.
Result<pid_t> spawnDetached(const std::string& executable, const std::string& folder,
                            std::vector<std::string> variables, int record) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return spawnError(errno, executable);
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const char* path = std::getenv("PATH");
    variables.push_back(std::string("PATH=") + (path ? path : "/usr/bin:/bin"));
    Prepared prepared{executable.c_str(), folder.c_str(), {}, record, writing.get()};
    for (std::string& variable : variables) {
        prepared.variables.push_back(variable.data());
    }
    prepared.variables.push_back(nullptr);

    // A process between the two ends at once, so that the new one has no parent that must wait for it.
    const pid_t between = ::fork();
    if (between < 0) {
        return spawnError(errno, executable);
    }
    if (between == 0) {
        const pid_t child = ::fork();
        if (child == 0) {
            become(prepared);
        }
        if (child < 0) {
            fail(prepared);
        }
        ::_exit(0);
    }
    while (::waitpid(between, nullptr, 0) < 0 && errno == EINTR) {
    }
    writing = Descriptor();
    // Its number, then nothing more when the program has begun, or why it has not.
    pid_t process = 0;
    int failed = ECHILD;
    Report report;
    for (ssize_t length = 0; (length = ::read(reading.get(), &report, sizeof report)) != 0;) {
        if (length < 0 && errno != EINTR) {
            return spawnError(errno, executable);
        }
        if (length == sizeof report) {
            failed = report.failed;
            process = report.process != 0 ? report.process : process;
        }
    }
    return failed == 0 ? Result(process) : spawnError(failed, executable);
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
