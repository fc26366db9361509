// The timeline of a command, in the file that `--trace` names.
#pragma once

#include "files/OutputFile.h"
#include "timeline/Timeline.h"

#include <memory>
#include <string>

namespace appsync::host {

struct SyncReport;

class TraceFile {
  public:
    /// Without a timeline when the path is empty. Fails when nothing can be written there, or the report goes there.
    [[nodiscard]] static Result<TraceFile> open(const std::string& path);

    /// Null when nobody asked for one.
    [[nodiscard]] Timeline* timeline() const noexcept { return _timeline.get(); }
    /// Writes the file. What it lacks, or why there is none, becomes a problem of the report. Once; without it there is
    /// no file.
    void finish(SyncReport& report);

  private:
    std::unique_ptr<OutputFile> _file;
    std::unique_ptr<Timeline> _timeline;
};

} // namespace appsync::host
