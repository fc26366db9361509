// The sync that runs on a device, as seen by one who asks it something.
#pragma once

#include "files/Descriptor.h"
#include "host/control/ControlSocket.h"
#include "values/Result.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

namespace appsync::device {
class Device;
struct DeviceOwner;
} // namespace appsync::device

namespace appsync::host {

/// Who looks would rather see the rest than wait.
inline constexpr std::chrono::milliseconds lookersPatience{300};

/// One thread. The other end may be no sync of this program: what it says is untrusted.
class RunningSync {
  public:
    /// Neither connecting nor an answer takes longer than `patience`.
    RunningSync(const std::string& deviceFolder, std::chrono::milliseconds patience)
        : RunningSync(connectToControl(deviceFolder, patience), patience) {}

    [[nodiscard]] bool isThere() const { return _connection.isOpen() || !_problem.empty(); }
    /// An answer; of another kind than an object when none came, as `problem` says then.
    [[nodiscard]] nlohmann::ordered_json ask(const ControlRequest& request);
    /// Sends a request whose answers are read later, with `next`. False when nobody reads any more.
    [[nodiscard]] bool send(const ControlRequest& request) const;
    /// Whether the next line, its begin at least, or the end can be read without waiting for it.
    [[nodiscard]] bool hasNext() const;
    /// -1 when nothing is connected.
    [[nodiscard]] int descriptor() const noexcept { return _connection.get(); }
    /// The next line of an answer that has several.
    [[nodiscard]] nlohmann::ordered_json next();
    /// False when something else is to be read instead, from this descriptor unless it is -1. Waits without a bound.
    [[nodiscard]] bool waitForNext(int instead = -1) const;
    [[nodiscard]] const std::string& problem() const { return _problem; }

  private:
    RunningSync(Result<Descriptor> connection, std::chrono::milliseconds patience);

    const std::chrono::milliseconds _patience;
    std::string _problem;
    std::string _buffer;
    Descriptor _connection;
};

/// What is said where no sync can be asked: a device may be in use by another command, or by a sync that just begins.
[[nodiscard]] std::string noSyncSentence(const std::string& deviceFolder);
[[nodiscard]] nlohmann::ordered_json toJsonObject(const device::DeviceOwner& owner);

// Of an answer; an element of another kind counts as absent.

/// Empty when it is absent.
[[nodiscard]] std::string textIn(const nlohmann::ordered_json& object, const char* key);
/// Between 0 and a million; 0 when it is absent.
[[nodiscard]] double numberIn(const nlohmann::ordered_json& object, const char* key);
/// An array; empty when it is absent.
[[nodiscard]] const nlohmann::ordered_json& listIn(const nlohmann::ordered_json& object, const char* key);

/// Has a device that is looked at show how far the sync is that runs on it, which that alone knows: the progress of its
/// apps, and that it syncs. A sync that does not answer soon is told of on standard error.
void showProgressOf(const std::string& deviceFolder, device::Device& device);

} // namespace appsync::host
