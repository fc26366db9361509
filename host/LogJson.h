// A line of a device's log, for programs.
#pragma once

#include "device/log/LogFile.h"

#include <nlohmann/json.hpp>

namespace appsync::host {

[[nodiscard]] inline const char* levelName(LogLevel level) {
    return level == LogLevel::error ? "error" : "default";
}

[[nodiscard]] inline nlohmann::ordered_json toJsonObject(const device::LogEntry& entry) {
    return {{"time", entry.time}, {"level", levelName(entry.level)}, {"source", entry.source}, {"text", entry.text}};
}

} // namespace appsync::host
