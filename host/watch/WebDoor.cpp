#include "host/watch/WebDoor.h"

#include "files/Syscalls.h"
#include "host/plugin/PlugIn.h"

#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace appsync::host {

std::string makeToken() {
    constexpr std::string_view digits = "0123456789abcdef";
    std::array<unsigned char, 16> bytes{};
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return "";
    }
    std::string token;
    for (const unsigned char byte : bytes) {
        token += {digits[byte >> 4], digits[byte & 15]};
    }
    return token;
}

ErrorPtr cannotListenError(std::uint16_t port, const std::string& reason) {
    return hostError("cannot listen at " + (port == 0 ? "any port" : "port " + std::to_string(port)) +
                     " of 127.0.0.1: " + reason + (port == 0 ? "" : "; name another port, or none"));
}

Result<Descriptor> listenAt(std::uint16_t& port) {
    constexpr int waitingConnections = 64;
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen()) {
        return cannotListenError(port, systemText(errno));
    }
    const int isReused = 1; // connections of a server that has just ended may still be closing
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &isReused, sizeof isReused);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        ::listen(socket.get(), waitingConnections) != 0 ||
        ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return cannotListenError(port, systemText(errno));
    }
    port = ntohs(address.sin_port);
    return socket;
}

std::string addressOf(std::uint16_t port, const std::string& token) {
    return "http://127.0.0.1:" + std::to_string(port) + "/?token=" + token;
}

} // namespace appsync::host
