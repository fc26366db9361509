// Reads what `LogFile` has written.
#pragma once

#include "platform/host/Log.h"
#include "values/Result.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

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

/// Calls `visit` with every entry, oldest first and older files before the present one, until it returns false. Lines
/// of another form are passed over. A device without a log has no entries. The log may be written meanwhile.
[[nodiscard]] Result<void> readLog(DeviceFileSystem& files, const std::function<bool(const LogEntry&)>& visit);

} // namespace appsync::device
