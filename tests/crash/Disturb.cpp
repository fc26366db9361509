// Runs a command and disturbs it at one of its changes below a folder: kills it there, lets that change fail, or does
// something to the file behind its back.
//
//   disturb --under DIR [--calls changes|space|reads] [--list FILE]
//           [--kill N | --fail N --error NUMBER | --fail-from N --error NUMBER | --at N --do WORDS | --at N --hold
//           WORDS] COMMAND…
//
// With `--calls space` only changes that need space count, with `reads` instead of changes the calls that look at files
// and folders. They count from 1 over all threads and child processes, in the order in which the kernel is asked for
// them: each of them waits here until it may go on. A killed command dies before its change is made; with
// `--fail-from` all fail from there to the end. `--do` runs the words as a shell does, with the call's path in the
// variable DISTURBED, and lets the call go on then; `--hold` does the same while all other calls go on. `--list` writes
// a line "number<TAB>call<TAB>path below DIR" per call. The exit code is the command's, 128 + its signal, or 125 when
// the kernel does not let a process supervise another one's calls.
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr int cannotSupervise = 125;

/// Where a call names what it changes.
enum class Target {
    descriptor, // argument `place` is a descriptor
    path,       // argument `place` is a path, seen from the working directory
    pathAt,     // arguments `place` and `place` + 1: a folder's descriptor and a path
    opened,     // a path to open, with flags as the argument `place`
    openedAt,   // the same, seen from a folder
    openedHow,  // the same, with a structure that holds the flags
    address,    // a socket's address
};

enum class Effect { reads, needsSpace, otherChange };

struct Call {
    int number;
    const char* name;
    Target target;
    unsigned place;
    Effect effect; // what opens a file either reads or needs space
};

constexpr Call calls[] = {
    {SYS_read, "read", Target::descriptor, 0, Effect::reads},
    {SYS_readv, "readv", Target::descriptor, 0, Effect::reads},
    {SYS_pread64, "pread64", Target::descriptor, 0, Effect::reads},
    {SYS_getdents64, "getdents64", Target::descriptor, 0, Effect::reads},
    {SYS_fstat, "fstat", Target::descriptor, 0, Effect::reads},
    {SYS_newfstatat, "newfstatat", Target::pathAt, 0, Effect::reads},
    {SYS_statx, "statx", Target::pathAt, 0, Effect::reads},
    {SYS_faccessat, "faccessat", Target::pathAt, 0, Effect::reads},
    {SYS_readlinkat, "readlinkat", Target::pathAt, 0, Effect::reads},
    {SYS_openat, "openat", Target::openedAt, 2, Effect::needsSpace},
    {SYS_openat2, "openat2", Target::openedHow, 2, Effect::needsSpace},
    {SYS_write, "write", Target::descriptor, 0, Effect::needsSpace},
    {SYS_writev, "writev", Target::descriptor, 0, Effect::needsSpace},
    {SYS_pwrite64, "pwrite64", Target::descriptor, 0, Effect::needsSpace},
    {SYS_pwritev, "pwritev", Target::descriptor, 0, Effect::needsSpace},
    {SYS_copy_file_range, "copy_file_range", Target::descriptor, 2, Effect::needsSpace},
    {SYS_sendfile, "sendfile", Target::descriptor, 0, Effect::needsSpace},
    {SYS_truncate, "truncate", Target::path, 0, Effect::otherChange},
    {SYS_ftruncate, "ftruncate", Target::descriptor, 0, Effect::otherChange},
    {SYS_fallocate, "fallocate", Target::descriptor, 0, Effect::needsSpace},
    {SYS_fsync, "fsync", Target::descriptor, 0, Effect::otherChange},
    {SYS_fdatasync, "fdatasync", Target::descriptor, 0, Effect::otherChange},
    {SYS_syncfs, "syncfs", Target::descriptor, 0, Effect::otherChange},
    {SYS_renameat2, "renameat2", Target::pathAt, 2, Effect::otherChange},
    {SYS_renameat, "renameat", Target::pathAt, 2, Effect::otherChange},
    {SYS_unlinkat, "unlinkat", Target::pathAt, 0, Effect::otherChange},
    {SYS_mkdirat, "mkdirat", Target::pathAt, 0, Effect::needsSpace},
    {SYS_linkat, "linkat", Target::pathAt, 2, Effect::needsSpace},
    {SYS_symlinkat, "symlinkat", Target::pathAt, 1, Effect::needsSpace},
    {SYS_mknodat, "mknodat", Target::pathAt, 0, Effect::needsSpace},
    {SYS_fchmod, "fchmod", Target::descriptor, 0, Effect::otherChange},
    {SYS_fchmodat, "fchmodat", Target::pathAt, 0, Effect::otherChange},
    {SYS_fchown, "fchown", Target::descriptor, 0, Effect::otherChange},
    {SYS_fchownat, "fchownat", Target::pathAt, 0, Effect::otherChange},
    {SYS_utimensat, "utimensat", Target::pathAt, 0, Effect::otherChange},
    {SYS_bind, "bind", Target::address, 1, Effect::needsSpace},
#ifdef SYS_open // older calls, which newer processors do not have
    {SYS_stat, "stat", Target::path, 0, Effect::reads},
    {SYS_lstat, "lstat", Target::path, 0, Effect::reads},
    {SYS_access, "access", Target::path, 0, Effect::reads},
    {SYS_readlink, "readlink", Target::path, 0, Effect::reads},
    {SYS_open, "open", Target::opened, 1, Effect::needsSpace},
    {SYS_creat, "creat", Target::path, 0, Effect::needsSpace},
    {SYS_rename, "rename", Target::path, 1, Effect::otherChange},
    {SYS_unlink, "unlink", Target::path, 0, Effect::otherChange},
    {SYS_rmdir, "rmdir", Target::path, 0, Effect::otherChange},
    {SYS_mkdir, "mkdir", Target::path, 0, Effect::needsSpace},
    {SYS_link, "link", Target::path, 1, Effect::needsSpace},
    {SYS_symlink, "symlink", Target::path, 1, Effect::needsSpace},
    {SYS_mknod, "mknod", Target::path, 0, Effect::needsSpace},
    {SYS_chmod, "chmod", Target::path, 0, Effect::otherChange},
    {SYS_chown, "chown", Target::path, 0, Effect::otherChange},
    {SYS_lchown, "lchown", Target::path, 0, Effect::otherChange},
#endif
};

struct Options {
    std::string folder;
    std::string list;
    std::string calls = "changes";
    std::uint64_t killAt = 0;
    std::uint64_t failAt = 0;
    std::uint64_t failFrom = 0;
    std::uint64_t doAt = 0;
    std::string words;  // of a shell
    bool holds = false; // only the call waits for them
    int error = EIO;
    char** command = nullptr;
};

/// Reads the memory and the descriptors of the process that waits in a call.
class Caller {
  public:
    explicit Caller(pid_t thread) : _process("/proc/" + std::to_string(thread)) {}

    [[nodiscard]] bool read(std::uint64_t address, void* bytes, std::size_t size) const {
        return _readSome(address, bytes, size) == static_cast<ssize_t>(size);
    }
    [[nodiscard]] std::string text(std::uint64_t address) const {
        std::string text;
        for (std::array<char, 256> piece{}; text.size() < PATH_MAX;) {
            // Not over the end of a page, where the memory may end.
            const std::size_t size = piece.size() - address % piece.size();
            const ssize_t length = _readSome(address, piece.data(), size);
            if (length <= 0) {
                break;
            }
            const std::string_view read(piece.data(), static_cast<std::size_t>(length));
            const std::size_t end = read.find('\0');
            text += read.substr(0, end);
            if (end != std::string_view::npos) {
                break;
            }
            address += read.size();
        }
        return text;
    }
    [[nodiscard]] std::string ofDescriptor(int descriptor) const {
        std::error_code failed;
        const auto link = descriptor == AT_FDCWD ? "/cwd" : "/fd/" + std::to_string(descriptor);
        return std::filesystem::read_symlink(_process + link, failed).string();
    }
    /// An absolute path; its folders without symbolic links, the last name as it is.
    [[nodiscard]] std::string absolute(int folder, const std::string& path, bool folderIsRoot = false) const {
        constexpr std::string_view self = "/proc/self";
        std::filesystem::path whole;
        if (path.empty()) {
            return ofDescriptor(folder);
        }
        if (path.starts_with(self)) {
            whole = _process + path.substr(self.size());
        } else if (path.starts_with('/') && !folderIsRoot) {
            whole = path;
        } else {
            whole = ofDescriptor(folder) + "/" + path;
        }
        std::error_code failed;
        const auto above = std::filesystem::weakly_canonical(whole.parent_path(), failed);
        return (above / whole.filename()).string();
    }

  private:
    ssize_t _readSome(std::uint64_t address, void* bytes, std::size_t size) const {
        const int memory = ::open((_process + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
        const ssize_t length = memory < 0 ? -1 : ::pread(memory, bytes, size, static_cast<off_t>(address));
        ::close(memory);
        return length;
    }

    const std::string _process;
};

Effect effectOfOpening(std::uint64_t flags) {
    return (flags & (O_CREAT | O_TRUNC)) == 0 ? Effect::reads : Effect::needsSpace;
}

std::string pathOfAddress(const Caller& caller, std::uint64_t address) {
    sockaddr_un name{};
    if (!caller.read(address, &name.sun_family, sizeof name.sun_family) || name.sun_family != AF_UNIX) {
        return {};
    }
    const std::string path = caller.text(address + offsetof(sockaddr_un, sun_path));
    return path.empty() ? path : caller.absolute(AT_FDCWD, path);
}

/// What a call is about to do, and to which path; the path is empty when it is none of a file.
struct Act {
    Effect effect;
    std::string path;
};

Act actOf(const Call& call, const seccomp_data& data, const Caller& caller) {
    const auto argument = [&](unsigned place) { return data.args[place]; };
    const auto descriptor = [&](unsigned place) { return static_cast<int>(data.args[place]); };
    switch (call.target) {
    case Target::descriptor: return {call.effect, caller.ofDescriptor(descriptor(call.place))};
    case Target::path: return {call.effect, caller.absolute(AT_FDCWD, caller.text(argument(call.place)))};
    case Target::pathAt: {
        const std::string path = argument(call.place + 1) == 0 ? "" : caller.text(argument(call.place + 1));
        return {call.effect, caller.absolute(descriptor(call.place), path)};
    }
    case Target::opened:
        return {effectOfOpening(argument(call.place)), caller.absolute(AT_FDCWD, caller.text(argument(0)))};
    case Target::openedAt:
        return {effectOfOpening(argument(call.place)), caller.absolute(descriptor(0), caller.text(argument(1)))};
    case Target::openedHow: {
        open_how how{};
        (void)caller.read(argument(call.place), &how, sizeof how);
        return {effectOfOpening(how.flags),
                caller.absolute(descriptor(0), caller.text(argument(1)), (how.resolve & RESOLVE_IN_ROOT) != 0)};
    }
    case Target::address: return {call.effect, pathOfAddress(caller, argument(call.place))};
    }
    return {call.effect, ""};
}

/// Lets this process's calls, and those of all that it becomes or starts, wait for an answer to the descriptor
/// returned; -1 when the kernel does not allow that.
int superviseCalls() {
    std::vector<sock_filter> filter;
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const Call& call : calls) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call.number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return -1;
    }
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

// A descriptor goes from one process to another through a socket, beside one byte.

union ControlSpace {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr alignment;
};

bool sendDescriptor(int socket, int descriptor) {
    char byte = 0;
    iovec content{&byte, 1};
    ControlSpace control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return ::sendmsg(socket, &message, 0) == 1;
}

int receiveDescriptor(int socket) {
    char byte = 0;
    iovec content{&byte, 1};
    ControlSpace control{};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes;
    message.msg_controllen = sizeof control.bytes;
    int descriptor = -1;
    if (::recvmsg(socket, &message, 0) == 1 && CMSG_FIRSTHDR(&message)) {
        std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof descriptor);
    }
    return descriptor;
}

[[noreturn]] void becomeCommand(char** command, int socket) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int listener = superviseCalls();
    if (listener < 0 || !sendDescriptor(socket, listener)) {
        ::_exit(cannotSupervise);
    }
    ::close(listener);
    ::close(socket);
    ::execvp(command[0], command);
    ::_exit(127);
}

/// Answers one call after another, and disturbs the chosen one.
class Supervisor {
  public:
    Supervisor(const Options& options, pid_t command, int listener)
        : _options(options), _command(command), _listener(listener) {
        if (!options.list.empty()) {
            _list.open(options.list, std::ios::trunc);
        }
    }

    /// Whether the command has been killed; its other threads get no answers any more.
    [[nodiscard]] bool hasKilled() const { return _options.killAt != 0 && _number >= _options.killAt; }

    void answerOne() {
        seccomp_notif notice{};
        if (::ioctl(_listener, SECCOMP_IOCTL_NOTIF_RECV, &notice) != 0) {
            return; // the caller is gone
        }
        seccomp_notif_resp answer{};
        answer.id = notice.id;
        answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        if (_counts(notice)) {
            if (++_number == _options.killAt) {
                ::kill(_command, SIGKILL);
                return;
            }
            if (_number == _options.failAt || (_options.failFrom != 0 && _number >= _options.failFrom)) {
                answer.flags = 0;
                answer.error = -_options.error;
            }
            if (_number == _options.doAt) {
                ::setenv("DISTURBED", _path.c_str(), 1);
                if (_options.holds) {
                    _holding = std::jthread([this, answer]() mutable {
                        (void)!std::system(_options.words.c_str());
                        ::ioctl(_listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
                    });
                    return;
                }
                (void)!std::system(_options.words.c_str());
            }
        }
        ::ioctl(_listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }

  private:
    bool _counts(const seccomp_notif& notice) {
        const auto call = std::ranges::find(calls, notice.data.nr, &Call::number);
        const Act act = actOf(*call, notice.data, Caller(static_cast<pid_t>(notice.pid)));
        const bool isOfTheseCalls = _options.calls == "reads"   ? act.effect == Effect::reads
                                    : _options.calls == "space" ? act.effect == Effect::needsSpace
                                                                : act.effect != Effect::reads;
        if (!isOfTheseCalls || (act.path != _options.folder && !act.path.starts_with(_options.folder + "/"))) {
            return false;
        }
        _path = act.path;
        if (_list.is_open()) {
            _list << _number + 1 << '\t' << call->name << '\t' << act.path.substr(_options.folder.size()) << std::endl;
        }
        return true;
    }

    const Options& _options;
    const pid_t _command;
    const int _listener;
    std::ofstream _list;
    std::uint64_t _number = 0;
    std::string _path; // of the last call that counted
    std::jthread _holding;
};

int run(const Options& options) {
    std::array<int, 2> sockets{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
        return cannotSupervise;
    }
    const pid_t command = ::fork();
    if (command == 0) {
        becomeCommand(options.command, sockets[1]);
    }
    ::close(sockets[1]);
    const int listener = receiveDescriptor(sockets[0]);
    const int ended = static_cast<int>(::syscall(SYS_pidfd_open, command, 0));
    if (listener >= 0 && ended >= 0) {
        Supervisor supervisor(options, command, listener);
        std::array<pollfd, 2> waiting{{{listener, POLLIN, 0}, {ended, POLLIN, 0}}};
        while (!supervisor.hasKilled() && ::poll(waiting.data(), waiting.size(), -1) > 0 && waiting[1].revents == 0) {
            supervisor.answerOne();
        }
    }
    int status = 0;
    ::waitpid(command, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::optional<Options> parse(int count, char** words) {
    Options options;
    for (int place = 1; place < count; place += 2) {
        const std::string_view word = words[place];
        if (!word.starts_with("--")) {
            options.command = words + place;
            break;
        }
        if (place + 1 == count) {
            return std::nullopt;
        }
        const std::string value = words[place + 1];
        if (word == "--under") {
            options.folder = std::filesystem::canonical(value).string();
        } else if (word == "--list") {
            options.list = value;
        } else if (word == "--calls") {
            options.calls = value;
        } else if (word == "--kill") {
            options.killAt = std::stoull(value);
        } else if (word == "--fail") {
            options.failAt = std::stoull(value);
        } else if (word == "--fail-from") {
            options.failFrom = std::stoull(value);
        } else if (word == "--at") {
            options.doAt = std::stoull(value);
        } else if (word == "--do" || word == "--hold") {
            options.words = value;
            options.holds = word == "--hold";
        } else if (word == "--error") {
            options.error = std::stoi(value);
        } else {
            return std::nullopt;
        }
    }
    return options.folder.empty() || !options.command ? std::nullopt : std::optional(options);
}

} // namespace

int main(int count, char** words) {
    const auto options = parse(count, words);
    if (!options) {
        std::fputs(
            "usage: disturb --under DIR [--calls changes|space|reads] [--list FILE]\n"
            "               [--kill N | --fail N --error NUMBER | --fail-from N --error NUMBER | --at N --do WORDS |\n"
            "                --at N --hold WORDS] COMMAND [ARGUMENT]...\n",
            stderr);
        return 2;
    }
    return run(*options);
}
