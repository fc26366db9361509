// What the commands do alike that bring apps to a device: `sync`, `restore`, `store`.
#pragma once

#include "host/ExitCode.h"
#include "host/view/Print.h"
#include "values/Result.h"

#include <functional>
#include <string>

namespace appsync::device {
class Device;
}

namespace appsync::host {

class Interrupt;
class SyncView;
struct SyncReport;

struct BringWords {
    const char* purpose; // what others are told who find the device in use, such as "a sync"
    const char* nothing; // when there is no app to tell of
    const char* again;   // the command that goes on after an interruption
};

struct BringWhere {
    const std::string& device;
    const std::string& trace; // the file for the timeline; empty: none
    JsonOutput json;
};

/// An error is one of what the person has named.
using Bring = std::function<Result<SyncReport>(device::Device& device, SyncView& view, const Interrupt& interrupt)>;

/// Opens the device, has installed what an interrupted command has left to it, brings the apps, and prints the report,
/// the notes and failures on the standard error. Without a timeline of what was a dry run.
[[nodiscard]] ExitCode bringApps(const BringWhere& where, const BringWords& words, const Bring& bring);

} // namespace appsync::host
