// The socket by which a person acts on a device while a sync runs.
//
// It stands in the device root, at var/run/control/socket, in a folder that only the owner may enter. A client sends
// one line, a JSON object {"command": "status" | "follow" | "prioritize" | "cancel", "app": identifier}, and gets one
// line back: {"running": true, …} for the first two, {"done": true} or {"error": sentence} for the others. After
// "follow" a further status comes whenever something has changed, until the sync ends and the server hangs up.
#pragma once

#include "device/root/Descriptor.h"
#include "platform/Error.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace appsync::host {

/// The longest line that a client may send, in bytes.
inline constexpr std::size_t longestRequest = 4096;

struct ControlRequest {
    std::string command;
    std::string app = {}; // empty: none
};
[[nodiscard]] std::string toJson(const ControlRequest& request);
/// Of untrusted bytes. False when they are no request; then `problem` says why.
[[nodiscard]] bool parseControlRequest(std::string_view line, ControlRequest& request, std::string& problem);
[[nodiscard]] std::string doneAnswer();
[[nodiscard]] std::string errorAnswer(const std::string& sentence);

/// Makes the socket in a device root and listens on it. The process must have the device open: a socket that an earlier
/// one has left is replaced.
[[nodiscard]] device::Descriptor listenForControl(const std::string& deviceFolder, ErrorPtr* error);
/// Takes the socket away.
void removeControlSocket(const std::string& deviceFolder);
/// Connects to the sync that runs on a device; closed when none runs.
[[nodiscard]] device::Descriptor connectToControl(const std::string& deviceFolder);

/// Reads up to the next line end, which is left out. False at the end of the connection.
[[nodiscard]] bool readLine(int connection, std::string& buffer, std::string& line);
/// Writes a line and its end. False when nobody reads any more.
[[nodiscard]] bool writeLine(int connection, const std::string& line);

} // namespace appsync::host
