// Reads what `LogFile` has written.
#pragma once

#include "files/Descriptor.h"
#include "platform/host/Log.h"
#include "values/Result.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

class DeviceFileSystem;

struct LogEntry {
    std::string time; // UTC, as it stands in the log: texts compare like the times
    LogLevel level = LogLevel::standard;
    std::string source; // a category's name, or "subsystem/category"
    std::string text;   // without the escapes
};

/// The entry that a line (without its end) holds; nullopt for a line of another form.
[[nodiscard]] std::optional<LogEntry> parseLogLine(std::string_view line);

/// Reads on from entry to entry, while the log is written and full files are put aside. One thread.
class LogCursor {
  public:
    /// Before the oldest entry. `files` must outlive the cursor.
    explicit LogCursor(DeviceFileSystem& files) : _files(files) {}

    /// Calls `visit` with every entry that has come since the last call, at first with all, oldest first and older
    /// files before the present one, until it returns false. Lines of another form are passed over. A device without a
    /// log has no entries.
    [[nodiscard]] Result<void> readOn(const std::function<bool(const LogEntry&)>& visit);

  private:
    struct OpenedFile {
        Descriptor file;
        ino_t identity = 0;
    };
    [[nodiscard]] Result<std::vector<OpenedFile>> _openFiles();
    /// False when `visit` wants no more.
    [[nodiscard]] Result<bool> _readFile(int file, const std::function<bool(const LogEntry&)>& visit);
    [[nodiscard]] bool _visitLines(const std::function<bool(const LogEntry&)>& visit);

    DeviceFileSystem& _files;
    Descriptor _file;     // that was read last
    ino_t _identity = 0;  // of it
    std::string _unended; // of its last line
    bool _skips = false;  // the rest of a line that is too long to be one
};

} // namespace appsync::device
