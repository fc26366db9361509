#include "device/log/LogReader.h"

#include "device/log/LogFile.h"
#include "device/root/DeviceFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <utility>

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

/// The files that there are, oldest first. Each is opened before any is read, and the younger ones first: what is put
/// aside meanwhile is found under its new name, perhaps twice, but not missed.
Result<std::vector<LogCursor::OpenedFile>> LogCursor::_openFiles() {
    std::vector<OpenedFile> opened;
    for (unsigned age = 0; age <= maxOlderLogFiles; ++age) {
        auto file = _files.open(logPath(age), O_RDONLY);
        struct stat status {};
        if (!file && (file.error()->code() == ENOENT || file.error()->code() == ENOTDIR)) {
            continue;
        }
        if (!file) {
            return file.error();
        }
        const ino_t identity = ::fstat(file->get(), &status) == 0 ? status.st_ino : 0;
        if (std::ranges::find(opened, identity, &OpenedFile::identity) == opened.end()) {
            opened.push_back({std::move(*file), identity});
        }
    }
    std::ranges::reverse(opened);
    return opened;
}

/// A file that is open is read to its end first: it may have been put aside, and others after it.
Result<void> LogCursor::readOn(const std::function<bool(const LogEntry&)>& visit) {
    auto files = _openFiles();
    if (!files) {
        return files.error();
    }
    if (_file.isOpen()) {
        const auto isWanted = _readFile(_file.get(), visit);
        if (!isWanted || !*isWanted) {
            return isWanted.error();
        }
    }
    const auto last = std::ranges::find(*files, _identity, &OpenedFile::identity);
    for (auto file = last == files->end() ? files->begin() : last + 1; file != files->end(); ++file) {
        _unended.clear();
        _skips = false;
        _file = std::move(file->file);
        _identity = file->identity;
        const auto isWanted = _readFile(_file.get(), visit);
        if (!isWanted || !*isWanted) {
            return isWanted.error();
        }
    }
    return {};
}

Result<bool> LogCursor::_readFile(int file, const std::function<bool(const LogEntry&)>& visit) {
    std::array<char, 64U << 10> piece{};
    for (;;) {
        const ssize_t length = ::read(file, piece.data(), piece.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return makePosixError(errno, "reading", logFilePath);
        }
        if (length == 0) {
            return true;
        }
        _unended.append(piece.data(), static_cast<std::size_t>(length));
        if (!_visitLines(visit)) {
            return false;
        }
    }
}

/// Visits the lines that have an end.
bool LogCursor::_visitLines(const std::function<bool(const LogEntry&)>& visit) {
    constexpr std::size_t maxLineSize = 16U << 20;
    std::string_view rest = _unended;
    for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        const auto entry = std::exchange(_skips, false) ? std::nullopt : parseLogLine(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        if (entry && !visit(*entry)) {
            return false;
        }
    }
    _unended.erase(0, _unended.size() - rest.size());
    if (_unended.size() > maxLineSize) {
        _unended.clear();
        _skips = true;
    }
    return true;
}

} // namespace appsync::device
