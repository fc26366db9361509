// The exit codes of `qrd`.
#pragma once

namespace appsync::host {

enum class ExitCode : int {
    done = 0,
    someAppFailed = 1,
    wrongUse = 2,
    deviceInUse = 3,    // try again later
    deviceUnusable = 4, // the device root cannot be used
    failed = 5,         // anything else, such as an output that cannot be written
    hungUp = 129,       // by SIGHUP: the terminal went away
    interrupted = 130,  // by Ctrl-C
    brokenPipe = 141,   // nobody reads the output any more
    terminated = 143,   // by SIGTERM
};

} // namespace appsync::host
