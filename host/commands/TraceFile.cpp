#include "host/commands/TraceFile.h"

#include "host/view/SyncReport.h"

#include <cerrno>

namespace appsync::host {

Result<TraceFile> TraceFile::open(const std::string& path) {
    TraceFile trace;
    if (path.empty()) {
        return trace;
    }
    if (isStandardOutput(path)) {
        return makeError(posixErrorDomain, EINVAL, "'" + path + "' is where the report goes; name a file for --trace.");
    }
    auto file = OutputFile::open(path);
    if (!file) {
        return file.error();
    }
    trace._file = std::move(*file);
    trace._timeline = std::make_unique<Timeline>();
    return trace;
}

void TraceFile::finish(SyncReport& report) {
    if (!_file) {
        return;
    }
    auto written = _timeline->write(*_file);
    if (written) {
        written = _file->finish();
    }
    if (!written) {
        report.problems.push_back("There is no timeline: " + reasonOf(written.error()));
        report.isIncomplete = true;
    } else if (const std::uint64_t dropped = _timeline->dropped(); dropped > 0) {
        report.problems.push_back("The timeline lacks the last " + std::to_string(dropped) +
                                  " of its spans: it holds no more than " + std::to_string(Timeline::defaultMaxEvents) +
                                  " events.");
    }
}

} // namespace appsync::host
