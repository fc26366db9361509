// The sync host's log: "/var/log/qrd.log" on the device, one line a message.
//
//   2026-11-21T08:27:54.123456Z error SyncBundle com.zuvex.tzl.Quorrel.AppSync|can't create work area
//
// are time (UTC), level ("standard" or "error"), source and text. The source is a category of the host or, for other
// logs of the system, "subsystem/category". In the text a backslash is doubled and control characters are escaped
// ("\n", "\x1b"), so that a message is a line. A full file becomes "qrd.log.1", an older one "qrd.log.2" and so on.
#pragma once

#include "concurrency/Mutex.h"
#include "files/Descriptor.h"
#include "files/Event.h"
#include "platform/host/Log.h"
#include "values/Result.h"

#include <sys/types.h>

#include <cassert>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

class DeviceFileSystem;

inline constexpr std::string_view logFilePath = "/var/log/qrd.log";
/// More full files are never kept.
inline constexpr unsigned maxOlderLogFiles = 99;

struct LogLimits {
    std::uint64_t fileSize = 8U << 20; // bytes after which a new file is begun
    unsigned olderFiles = 3;           // how many full ones are kept, at most `maxOlderLogFiles`
};

/// Messages are written to the file when the buffer is full, with every error, by `flush` and at the end. What cannot
/// be written is dropped; a line says how much once writing works again. Any thread.
class LogFile final : public HostLog {
  public:
    /// Goes on at the end of the file that is there. `files` must outlive the log.
    [[nodiscard]] static Result<std::unique_ptr<LogFile>> open(DeviceFileSystem& files, LogLimits limits = {});
    /// Of a device that is only looked at: nothing is wanted, and nothing written.
    [[nodiscard]] static std::unique_ptr<LogFile> makeSilent(DeviceFileSystem& files);
    ~LogFile() override;

    /// Every message is wanted, or none.
    [[nodiscard]] bool isEnabled(QRLogCategory, LogLevel) noexcept override { return !_isSilent; }
    void write(QRLogCategory category, LogLevel level, std::string_view format,
               std::string_view text) noexcept override;

    /// A message of another log of the system.
    void write(const SystemLog& log, LogLevel level, std::string_view text) noexcept;
    void flush() noexcept;
    /// Set when a message begins to wait for `flush`.
    [[nodiscard]] const Event& waiting() const noexcept { return _waiting; }
    /// Why messages have been dropped of which the log does not tell; null when there are none.
    [[nodiscard]] ErrorPtr failure() noexcept;

  private:
    LogFile(DeviceFileSystem& files, LogLimits limits, bool isSilent = false)
        : _files(files), _limits(limits), _isSilent(isSilent) {
        assert(limits.olderFiles <= maxOlderLogFiles);
    }

    [[nodiscard]] Result<void> _open() REQUIRES(_mutex);
    void _append(std::string_view source, LogLevel level, std::string_view text) EXCLUDES(_mutex);
    void _flush() REQUIRES(_mutex);
    [[nodiscard]] Result<void> _writeOut(std::string_view bytes) REQUIRES(_mutex);
    void _rotate() REQUIRES(_mutex);

    DeviceFileSystem& _files;
    const LogLimits _limits;
    const bool _isSilent;
    const Event _waiting;
    Mutex _mutex;
    Descriptor _file GUARDED_BY(_mutex);
    std::uint64_t _size GUARDED_BY(_mutex) = 0;
    std::string _buffer GUARDED_BY(_mutex);
    std::size_t _bufferedMessages GUARDED_BY(_mutex) = 0;
    std::uint64_t _lostMessages GUARDED_BY(_mutex) = 0;
    ErrorPtr _failure GUARDED_BY(_mutex); // of the last flush
};

/// The path of the present file, or of an older one: 1 is the youngest.
[[nodiscard]] std::string logPath(unsigned age = 0);

/// A point in time as it stands in the log.
[[nodiscard]] std::string formatLogTime(std::chrono::system_clock::time_point time);
/// The point in time, to the second; the beginning of 1970 for what is none.
[[nodiscard]] std::chrono::system_clock::time_point parseLogTime(const std::string& text);

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
