// The sync host's log.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace appsync {

/// The host's log handles.
enum class QRLogCategory {
    SyncBundle,          // the plug-in's messages
    SyncBundle_Oversize, // its large payloads, such as the whole to-do list
    Framework,           // type checks of values read from files
};
inline constexpr QRLogCategory QRLogCategorySyncBundle = QRLogCategory::SyncBundle;
inline constexpr QRLogCategory QRLogCategorySyncBundle_Oversize = QRLogCategory::SyncBundle_Oversize;
inline constexpr QRLogCategory QRLogCategoryFramework = QRLogCategory::Framework;

enum class LogLevel { standard, error };

/// The sink of all messages. Called on any thread, several at a time.
class HostLog {
  public:
    virtual ~HostLog() = default;
    /// Asked before a message is rendered; one that is not wanted costs no more than this question.
    [[nodiscard]] virtual bool isEnabled(QRLogCategory category, LogLevel level) noexcept = 0;
    /// `format` is the message as it stands in the code, "%{public}@" included; `text` is the rendered message.
    virtual void write(QRLogCategory category, LogLevel level, std::string_view format,
                       std::string_view text) noexcept = 0;
};

/// A log of the system, named by the subsystem and category of its messages.
struct SystemLog {
    std::string subsystem;
    std::string category;
};
using SystemLogPtr = std::shared_ptr<const SystemLog>;

} // namespace appsync
