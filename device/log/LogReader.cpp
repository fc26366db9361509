#include "device/log/LogReader.h"

#include "device/log/LogFile.h"
#include "device/root/DeviceFileSystem.h"

#include <cerrno>
#include <charconv>

namespace appsync::device {

namespace {

std::string withoutEscapes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        unsigned byte = 0;
        if (text[i] != '\\') {
            out += text[i];
        } else if (next == 'x' && i + 4 <= text.size() &&
                   std::from_chars(&text[i + 2], &text[i + 2] + 2, byte, 16).ptr == &text[i + 2] + 2) {
            out += static_cast<char>(byte);
            i += 3;
        } else {
            out += next == 'n' ? '\n' : next;
            ++i;
        }
    }
    return out;
}

/// Cuts the text up to the first blank off the front of the line.
std::optional<std::string_view> cutField(std::string_view& line) {
    const auto blank = line.find(' ');
    if (blank == std::string_view::npos) {
        return std::nullopt;
    }
    const auto field = line.substr(0, blank);
    line.remove_prefix(blank + 1);
    return field;
}

} // namespace

std::optional<LogEntry> parseLogLine(std::string_view line) {
    const auto time = cutField(line);
    const auto level = time ? cutField(line) : std::nullopt;
    const auto source = level ? cutField(line) : std::nullopt;
    if (!source || (*level != "standard" && *level != "error") || !time->ends_with('Z')) {
        return std::nullopt;
    }
    return LogEntry{std::string(*time), *level == "error" ? LogLevel::error : LogLevel::standard, std::string(*source),
                    withoutEscapes(line)};
}

Result<void> readLog(DeviceFileSystem& files, const std::function<bool(const LogEntry&)>& visit) {
    for (unsigned age = maxOlderLogFiles + 1; age-- > 0;) {
        ErrorPtr error;
        const auto content = files.readFile(logPath(age), &error);
        if (!content && (error->code() == ENOENT || error->code() == ENOTDIR)) {
            continue;
        }
        if (!content) {
            return error;
        }
        std::string_view rest = content->bytes();
        for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            const auto entry = parseLogLine(rest.substr(0, end));
            if (entry && !visit(*entry)) {
                return {};
            }
            rest.remove_prefix(end + 1);
        }
    }
    return {};
}

} // namespace appsync::device
