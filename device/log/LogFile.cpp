#include "device/log/LogFile.h"

#include "device/root/DeviceFileSystem.h"
#include "files/Syscalls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <utility>

namespace appsync::device {

namespace {

constexpr std::size_t bufferSize = 16U << 10;
constexpr std::string_view ownSource = "Log"; // of what the log says about itself

void appendEscaped(std::string& out, std::string_view text) {
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\\') {
            out += "\\\\";
        } else if (character == '\n') {
            out += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            constexpr std::string_view digits = "0123456789abcdef";
            out += "\\x";
            out += digits[byte >> 4];
            out += digits[byte & 15U];
        } else {
            out += character;
        }
    }
}

std::string makeLine(std::string_view source, LogLevel level, std::string_view text) {
    std::string line = formatLogTime(std::chrono::system_clock::now());
    line.reserve(line.size() + source.size() + text.size() + 16);
    line += level == LogLevel::error ? " error " : " standard ";
    line += source;
    line += ' ';
    appendEscaped(line, text);
    return line += '\n';
}

std::string_view nameOf(QRLogCategory category) noexcept {
    switch (category) {
    case QRLogCategory::SyncBundle: return "SyncBundle";
    case QRLogCategory::SyncBundle_Oversize: return "SyncBundle_Oversize";
    case QRLogCategory::Framework: return "Framework";
    }
    return "Unknown";
}

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

std::string logPath(unsigned age) {
    return std::string(logFilePath) + (age > 0 ? "." + std::to_string(age) : "");
}

std::string formatLogTime(std::chrono::system_clock::time_point time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds).count();
    const std::time_t moment = std::chrono::system_clock::to_time_t(seconds);
    std::tm utc{};
    gmtime_r(&moment, &utc);
    char text[80];
    const int length =
        std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                      utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(micros));
    return {text, static_cast<std::size_t>(length)};
}

std::chrono::system_clock::time_point parseLogTime(const std::string& text) {
    std::tm utc{};
    const bool isTime = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc) != nullptr;
    return std::chrono::system_clock::from_time_t(isTime ? ::timegm(&utc) : 0);
}

Result<std::unique_ptr<LogFile>> LogFile::open(DeviceFileSystem& files, LogLimits limits) {
    ErrorPtr error;
    const std::string_view folder = logFilePath.substr(0, logFilePath.rfind('/'));
    if (!files.createDirectory(folder, true, std::nullopt, &error)) {
        return error;
    }
    std::unique_ptr<LogFile> log(new LogFile(files, limits));
    const Lock lock(log->_mutex);
    if (const auto opened = log->_open(); !opened) {
        return opened.error();
    }
    return log;
}

std::unique_ptr<LogFile> LogFile::makeSilent(DeviceFileSystem& files) {
    return std::unique_ptr<LogFile>(new LogFile(files, {}, true));
}

LogFile::~LogFile() {
    flush();
}

void LogFile::write(QRLogCategory category, LogLevel level, std::string_view /*format*/,
                    std::string_view text) noexcept {
    _append(nameOf(category), level, text);
}

void LogFile::write(const SystemLog& log, LogLevel level, std::string_view text) noexcept {
    _append(log.subsystem + "/" + log.category, level, text);
}

void LogFile::flush() noexcept {
    const Lock lock(_mutex);
    _flush();
}

ErrorPtr LogFile::failure() noexcept {
    const Lock lock(_mutex);
    return _failure;
}

Result<void> LogFile::_open() {
    auto file = _files.open(logFilePath, O_WRONLY | O_APPEND | O_CREAT);
    if (!file) {
        return file.error();
    }
    struct stat information {};
    _size = ::fstat(file->get(), &information) == 0 ? static_cast<std::uint64_t>(information.st_size) : 0;
    _file = std::move(*file);
    return {};
}

void LogFile::_append(std::string_view source, LogLevel level, std::string_view text) {
    if (_isSilent) {
        return;
    }
    const std::string line = makeLine(source, level, text);
    const Lock lock(_mutex);
    const bool isFirst = _buffer.empty();
    _buffer += line;
    ++_bufferedMessages;
    if (level == LogLevel::error || _buffer.size() >= bufferSize) {
        _flush();
    } else if (isFirst) {
        _waiting.set();
    }
}

void LogFile::_flush() {
    if (_buffer.empty()) {
        return;
    }
    if (_size > 0 && _size + _buffer.size() > _limits.fileSize) {
        _rotate();
    }
    std::string note;
    if (_lostMessages > 0) {
        note = makeLine(ownSource, LogLevel::error, std::to_string(_lostMessages) + " messages could not be written");
    }
    _failure = _writeOut(note + _buffer).error();
    _lostMessages = _failure ? _lostMessages + _bufferedMessages : 0;
    _buffer.clear();
    _bufferedMessages = 0;
}

Result<void> LogFile::_writeOut(std::string_view bytes) {
    if (!_file.isOpen()) {
        if (auto opened = _open(); !opened) {
            return opened;
        }
    }
    if (const int failed = writeAll(_file.get(), bytes)) {
        _file = Descriptor(); // its size is not known any more
        return makePosixError(failed, "writing", logFilePath);
    }
    _size += bytes.size();
    return {};
}

/// When a name cannot be changed, that file stays where it is and the log grows on.
void LogFile::_rotate() {
    _files.removeItem(logPath(_limits.olderFiles), nullptr);
    for (unsigned age = _limits.olderFiles; age > 0; --age) {
        _files.moveItem(logPath(age - 1), logPath(age), nullptr);
    }
    _file = Descriptor();
    (void)_open(); // tried again with the next write when it fails
}

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
