#include "host/control/ControlSocket.h"

#include "device/root/DeviceFileSystem.h"
#include "files/Syscalls.h"
#include "host/plugin/PlugIn.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace appsync::host {

namespace {

using Json = nlohmann::json;

constexpr std::string_view runFolder = "/var/run";
constexpr std::string_view controlFolder = "/var/run/control";
constexpr const char* socketName = "socket";
/// Of a line that a server sends: the status of some ten thousand apps.
constexpr std::size_t maxAnswerSize = std::size_t{4} << 20;

/// A path may be too long for a socket's address, the one through an opened folder or socket never is.
sockaddr_un addressThrough(int opened, const std::string& name = {}) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(opened) + name;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// The socket as it is seen from inside a device root; closed when there is none.
Descriptor openSocket(const std::string& deviceFolder) {
    const Descriptor root(::open(deviceFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    Descriptor socket;
    struct stat status {};
    const bool isSocket =
        root.isOpen() &&
        openInRoot(root.get(), std::string(controlFolder) + "/" + socketName, O_PATH | O_NOFOLLOW, 0, socket) == 0 &&
        ::fstat(socket.get(), &status) == 0 && S_ISSOCK(status.st_mode);
    return isSocket ? std::move(socket) : Descriptor();
}

Descriptor newSocket(int flags) {
    return Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

ErrorPtr socketError(const std::string& reason) {
    return hostError("The control socket of the device cannot be made: " + reason +
                     "; `qrd status`, `prioritize` and `cancel` do not reach what goes on.");
}

/// Makes the folder of the socket, which only the owner may enter.
Result<Descriptor> makeControlFolder(device::DeviceFileSystem& files) {
    ErrorPtr error;
    if (!files.createDirectory(runFolder, true, std::nullopt, &error) ||
        !files.createDirectory(controlFolder, true, std::nullopt, &error)) {
        return socketError(errorText(error));
    }
    auto opened = files.open(controlFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!opened) {
        return socketError(errorText(opened.error()));
    }
    if (::fchmod(opened->get(), 0700) != 0) {
        return socketError(std::strerror(errno));
    }
    return opened;
}

} // namespace

std::string toJson(const ControlRequest& request) {
    Json root{{"command", request.command}};
    if (!request.app.empty()) {
        root["app"] = request.app;
    }
    return root.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Result<ControlRequest> parseControlRequest(std::string_view line) {
    const Json root = Json::parse(line, nullptr, false);
    if (!root.is_object()) {
        return hostError("A request is a JSON object on one line.");
    }
    const auto text = [&](const char* key) {
        const auto value = root.find(key);
        return value != root.end() && value->is_string() ? value->get<std::string>() : std::string();
    };
    ControlRequest request{text("command"), text("app")};
    const bool isQuestion = request.command == "status" || request.command == "follow" || request.command == "flush";
    const bool isAct = request.command == "prioritize" || request.command == "cancel";
    if (!isQuestion && !isAct) {
        return hostError("\"command\" is one of status, follow, flush, prioritize, cancel.");
    }
    if (isAct && request.app.empty()) {
        return hostError("\"app\" names the app by its bundle identifier.");
    }
    return request;
}

std::string busySentence() {
    return "What runs on the device is busy and does not answer; try again.";
}

std::string doneAnswer() {
    return Json{{"done", true}}.dump();
}

std::string errorAnswer(const std::string& sentence) {
    return Json{{"error", sentence}}.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Result<ListeningSocket> ListeningSocket::open(device::DeviceFileSystem& files) {
    auto folder = makeControlFolder(files);
    if (!folder) {
        return folder.error();
    }
    constexpr int waitingConnections = 64;
    ::unlinkat(folder->get(), socketName, 0);
    Descriptor socket = newSocket(SOCK_NONBLOCK);
    const sockaddr_un address = addressThrough(folder->get(), std::string("/") + socketName);
    if (!socket.isOpen() || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::fchmodat(folder->get(), socketName, 0600, 0) != 0 || ::listen(socket.get(), waitingConnections) != 0) {
        return socketError(std::strerror(errno));
    }
    return ListeningSocket(std::move(*folder), std::move(socket));
}

ListeningSocket::~ListeningSocket() {
    if (_socket.isOpen()) {
        ::unlinkat(_folder.get(), socketName, 0);
    }
}

Result<Descriptor> connectToControl(const std::string& deviceFolder, std::chrono::milliseconds patience) {
    const Descriptor socket = openSocket(deviceFolder);
    if (!socket.isOpen()) {
        return Descriptor();
    }
    Descriptor connection = newSocket(0);
    // Also how long the connection waits for its turn.
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
    const timeval timeout{seconds.count(), std::chrono::microseconds(patience - seconds).count()};
    ::setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    const sockaddr_un address = addressThrough(socket.get());
    if (connection.isOpen() &&
        ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return connection;
    }
    if (errno == EAGAIN) {
        return hostError(busySentence());
    }
    if (errno != ENOENT && errno != ECONNREFUSED) {
        return hostError("What runs on " + deviceFolder + " cannot be reached: " + std::strerror(errno) + ".");
    }
    return Descriptor();
}

ReadResult readLine(int connection, std::string& buffer, std::string& line, std::chrono::milliseconds patience,
                    const ControlClock& now) {
    const auto end = now() + patience;
    std::size_t searched = 0;
    while (buffer.find('\n', searched) == std::string::npos) {
        searched = buffer.size();
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now());
        pollfd awaited{connection, POLLIN, 0};
        const int ready = left.count() > 0 ? ::poll(&awaited, 1, static_cast<int>(left.count())) : 0;
        if (ready == 0) {
            return ReadResult::noAnswer;
        }
        std::array<char, 4096> piece{};
        const ssize_t length = ::recv(connection, piece.data(), piece.size(), MSG_DONTWAIT);
        if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (length <= 0 || searched > maxAnswerSize) {
            return ReadResult::ended;
        }
        buffer.append(piece.data(), static_cast<std::size_t>(length));
    }
    line = buffer.substr(0, buffer.find('\n', searched));
    buffer.erase(0, line.size() + 1);
    return ReadResult::line;
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
