// Showing a device in the browser while it is used.
#include "device/Device.h"
#include "files/Syscalls.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/control/Interrupt.h"
#include "host/control/RunningSync.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/watch/WatchedDevice.h"
#include "host/watch/WebServer.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <iostream>

namespace appsync::host {

namespace {

using Clock = WebServer::Clock;
using namespace std::chrono_literals;

constexpr auto tellInterval = 70ms;  // between two looks at the device
constexpr int tellShare = 20;        // looking and telling takes at most this part of a processor's time
constexpr auto signOfLife = 5s;      // after which those who watch are told that there is nothing to tell
constexpr auto actPatience = 1000ms; // with a sync that does not answer: meanwhile nobody is told anything

/// What the sync says to a wish of the person.
void perform(const WebServer::Act& act, const std::string& device, WebServer& server) {
    constexpr unsigned done = 200;
    constexpr unsigned conflict = 409;
    RunningSync running(device, actPatience);
    if (!running.isThere()) {
        return server.answer(act, conflict, errorAnswer(noSyncSentence(device)));
    }
    const auto answer = running.ask({act.command, act.app});
    const std::string problem = answer.is_object() ? textIn(answer, "error") : running.problem();
    server.answer(act, problem.empty() ? done : conflict, problem.empty() ? doneAnswer() : errorAnswer(problem));
}

struct Wait {
    int interrupt;
    int server;
    int changes; // of the device; -1: not awaited
    int sync;    // likewise
    Clock::time_point until;
};

struct Changed {
    bool device = false;
    bool sync = false;
};

/// Until one of the descriptors can be read or the time has come. Who has something to tell.
Changed waitFor(const Wait& wait) {
    std::array<pollfd, 4> awaited{
        {{wait.changes, POLLIN, 0}, {wait.sync, POLLIN, 0}, {wait.interrupt, POLLIN, 0}, {wait.server, POLLIN, 0}}};
    int time = -1;
    if (wait.until != Clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(wait.until - Clock::now());
        time = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60'000));
    }
    (void)::poll(awaited.data(), awaited.size(), time);
    return {awaited[0].revents != 0, awaited[1].revents != 0};
}

ExitCode serve(WatchedDevice& device, WebServer& server, const std::string& folder, const Interrupt& interrupt) {
    // A sync does not tell too often by itself, and has written its log just before: so it is heard at once, and what
    // else changes meanwhile is looked at with it.
    Clock::time_point nextHear = {};
    Clock::time_point nextLook = {};
    Clock::time_point nextSign = {};
    Changed changed{.device = true};
    while (!Interrupt::requested()) {
        const auto now = Clock::now();
        const auto attend = server.attend(now).value_or(Clock::time_point::max());
        if (changed.device || changed.sync || (now >= nextLook && now >= device.nextUpdate())) {
            const auto before = usedTime();
            if (const auto updated = device.update(now); !updated) {
                return fail(reasonOf(updated.error()), ExitCode::deviceUnusable);
            }
            if (const std::string news = device.takeNews(); !news.empty()) {
                server.tell(news);
            }
            const Clock::duration rest = tellShare * (usedTime() - before);
            nextHear = changed.sync ? Clock::now() + rest : nextHear;
            nextLook = Clock::now() + std::max<Clock::duration>(rest, tellInterval);
        }
        if (server.hasNewcomers()) {
            server.welcome(device.everything());
        }
        if (const auto act = server.nextAct()) {
            perform(*act, folder, server);
            continue;
        }
        const bool isWatched = server.isWatched();
        if (isWatched && now >= nextSign) {
            server.tell(":\n\n");
            nextSign = now + signOfLife;
        }
        // What has changed is not even asked for before it may be told.
        const bool mayHear = Clock::now() >= nextHear;
        const bool mayLook = Clock::now() >= nextLook;
        changed = waitFor({.interrupt = interrupt.descriptor(),
                           .server = server.descriptor(),
                           .changes = mayLook ? device.changes() : -1,
                           .sync = mayHear ? device.sync() : -1,
                           .until = std::min({attend, isWatched ? nextSign : Clock::time_point::max(),
                                              !mayHear  ? nextHear
                                              : mayLook ? device.nextUpdate()
                                                        : nextLook})});
    }
    return Interrupt::exitCode();
}

/// In the person's browser, which goes on without this process.
void openInBrowser(const std::string& address) {
    const char* arguments[] = {"xdg-open", address.c_str(), nullptr};
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
    }
    pid_t process = 0;
    const int failed =
        ::posix_spawnp(&process, arguments[0], &actions, &attributes, const_cast<char* const*>(arguments), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (failed != 0) {
        printLine(std::cerr,
                  "note: xdg-open cannot be started (" + systemText(failed) + "); open the address yourself");
    }
}

} // namespace

ExitCode watch(const WatchArguments& arguments) {
    if (const auto looked = lookAtDevice(arguments.device); !looked) {
        return fail(looked.error());
    }
    const auto device = WatchedDevice::open(arguments.device);
    if (!device) {
        return fail(device.error());
    }
    const auto server = WebServer::start(arguments.port, [&device](const std::string& app, const std::string& version) {
        return (*device)->icons().png({app, version});
    });
    if (!server) {
        return fail(reasonOf(server.error()));
    }
    const Interrupt interrupt; // from when others can know the address
    printLine(std::cout, (*server)->address());
    std::cout.flush();
    if (!std::cout.good()) {
        return ExitCode::done; // nobody knows the address
    }
    if (arguments.opensBrowser) {
        openInBrowser((*server)->addressForOnce());
    }
    return serve(**device, **server, arguments.device, interrupt);
}

} // namespace appsync::host
