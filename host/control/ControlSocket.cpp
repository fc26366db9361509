#include "host/control/ControlSocket.h"

#include "host/plugin/PlugIn.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace appsync::host {

namespace {

using device::Descriptor;
using Json = nlohmann::json;

constexpr const char* runFolder = "/var/run";
constexpr const char* controlFolder = "/var/run/control";
constexpr const char* socketName = "socket";

/// A path may be too long for a socket's address, the one through its opened folder never is.
sockaddr_un addressIn(int folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(folder) + "/" + socketName;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

Descriptor openControlFolder(const std::string& deviceFolder) {
    return Descriptor(::open((deviceFolder + controlFolder).c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Descriptor newSocket(int flags) {
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

ErrorPtr systemError(const std::string& deviceFolder) {
    return hostError("The control socket of " + deviceFolder + " cannot be made: " + std::strerror(errno) +
                     ". The sync goes on; `qrd status`, `prioritize` and `cancel` do not reach it.");
}

} // namespace

std::string toJson(const ControlRequest& request) {
    Json root{{"command", request.command}};
    if (!request.app.empty()) {
        root["app"] = request.app;
    }
    return root.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool parseControlRequest(std::string_view line, ControlRequest& request, std::string& problem) {
    const Json root = Json::parse(line, nullptr, false);
    if (!root.is_object()) {
        problem = "A request is a JSON object on one line.";
        return false;
    }
    const auto text = [&](const char* key) {
        const auto value = root.find(key);
        return value != root.end() && value->is_string() ? value->get<std::string>() : std::string();
    };
    request = {text("command"), text("app")};
    const bool isQuestion = request.command == "status" || request.command == "follow";
    const bool isAct = request.command == "prioritize" || request.command == "cancel";
    if (!isQuestion && !isAct) {
        problem = "\"command\" is one of status, follow, prioritize, cancel.";
    } else if (isAct && request.app.empty()) {
        problem = "\"app\" names the app by its bundle identifier.";
    }
    return problem.empty();
}

std::string doneAnswer() {
    return Json{{"done", true}}.dump();
}

std::string errorAnswer(const std::string& sentence) {
    return Json{{"error", sentence}}.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Descriptor listenForControl(const std::string& deviceFolder, ErrorPtr* error) {
    ::mkdir((deviceFolder + runFolder).c_str(), 0755);
    ::mkdir((deviceFolder + controlFolder).c_str(), 0700);
    const Descriptor folder = openControlFolder(deviceFolder);
    Descriptor listening = newSocket(SOCK_NONBLOCK);
    if (!folder.isOpen() || !listening.isOpen()) {
        *error = systemError(deviceFolder);
        return {};
    }
    ::unlinkat(folder.get(), socketName, 0);
    const sockaddr_un address = addressIn(folder.get());
    constexpr int waitingConnections = 8;
    if (::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::fchmodat(folder.get(), socketName, 0600, 0) != 0 || ::listen(listening.get(), waitingConnections) != 0) {
        *error = systemError(deviceFolder);
        return {};
    }
    return listening;
}

void removeControlSocket(const std::string& deviceFolder) {
    const Descriptor folder = openControlFolder(deviceFolder);
    if (folder.isOpen()) {
        ::unlinkat(folder.get(), socketName, 0);
    }
}

Descriptor connectToControl(const std::string& deviceFolder) {
    const Descriptor folder = openControlFolder(deviceFolder);
    Descriptor connection = newSocket(0);
    const sockaddr_un address = addressIn(folder.get());
    if (!folder.isOpen() || !connection.isOpen() ||
        ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return {};
    }
    return connection;
}

bool readLine(int connection, std::string& buffer, std::string& line) {
    while (buffer.find('\n') == std::string::npos) {
        std::array<char, 4096> piece{};
        const ssize_t length = ::recv(connection, piece.data(), piece.size(), 0);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return false;
        }
        buffer.append(piece.data(), static_cast<std::size_t>(length));
    }
    line = buffer.substr(0, buffer.find('\n'));
    buffer.erase(0, line.size() + 1);
    return true;
}

bool writeLine(int connection, const std::string& line) {
    const std::string bytes = line + "\n";
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t length = ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(length);
    }
    return true;
}

} // namespace appsync::host
