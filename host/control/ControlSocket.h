// The socket by which a person acts on a device while a sync runs, or a restore, or a visit to the store; what is said
// of a sync here and beside this file holds for each of them.
//
// It stands in the device root, at var/run/control/socket, in a folder that only the owner may enter. A client sends
// one line, a JSON object {"command": "status" | "follow" | "flush" | "prioritize" | "cancel", "app": identifier}, and
// gets one line back: {"running": true, …} for the first two, {"done": true} or {"error": sentence} for the others.
// After "follow" a further status comes whenever something has changed, until the sync ends and the server hangs up.
// "flush" has the sync write out what it has logged.
#pragma once

#include "files/Descriptor.h"
#include "values/Result.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace appsync::device {
class DeviceFileSystem;
}

namespace appsync::host {

/// The longest line that a client may send, in bytes.
inline constexpr std::size_t maxRequestSize = 4096;

struct ControlRequest {
    std::string command;
    std::string app = {}; // empty: none
};
[[nodiscard]] std::string toJson(const ControlRequest& request);
/// Of untrusted bytes.
[[nodiscard]] Result<ControlRequest> parseControlRequest(std::string_view line);
[[nodiscard]] std::string doneAnswer();
[[nodiscard]] std::string errorAnswer(const std::string& sentence);

/// What a client is told that does not get its turn.
[[nodiscard]] std::string busySentence();

/// The socket in a device root, which the process must have open: a socket that an earlier one has left is replaced.
/// Taken away with the object.
class ListeningSocket {
  public:
    [[nodiscard]] static Result<ListeningSocket> open(device::DeviceFileSystem& files);
    ~ListeningSocket();
    ListeningSocket(ListeningSocket&&) = default;
    ListeningSocket& operator=(ListeningSocket&&) = delete;

    /// Does not block.
    [[nodiscard]] int descriptor() const noexcept { return _socket.get(); }

  private:
    ListeningSocket(Descriptor folder, Descriptor socket) : _folder(std::move(folder)), _socket(std::move(socket)) {}

    Descriptor _folder;
    Descriptor _socket;
};

/// Connects to what runs on a device. Closed when nothing does that can be asked; an error when there is something that
/// cannot be reached. Neither connecting nor sending takes longer than `patience`.
[[nodiscard]] Result<Descriptor> connectToControl(const std::string& deviceFolder, std::chrono::milliseconds patience);

using ControlClock = std::function<std::chrono::steady_clock::time_point()>;
enum class ReadResult {
    line,
    noAnswer, // for too long a time
    ended,    // the connection, or it was no answer: one without end
};
/// Reads up to the next line end, which is left out. However the line comes in pieces, all of it takes no longer than
/// `patience`.
[[nodiscard]] ReadResult readLine(int connection, std::string& buffer, std::string& line,
                                  std::chrono::milliseconds patience,
                                  const ControlClock& now = std::chrono::steady_clock::now);
/// Writes a line and its end. False when nobody reads any more.
[[nodiscard]] bool writeLine(int connection, const std::string& line);

} // namespace appsync::host
