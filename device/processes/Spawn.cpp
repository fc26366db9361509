#include "device/processes/Spawn.h"

#include "files/Descriptor.h"
#include "files/Syscalls.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace appsync::device {

namespace {

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

} // namespace

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

} // namespace appsync::device
