#include "host/control/ControlServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>

namespace appsync::host {

namespace {

constexpr std::size_t mostClients = 16;
constexpr int followInterval = 200; // milliseconds between two looks for what has changed

} // namespace

ControlServer::ControlServer(device::Descriptor listening, int interrupt, ControlHandlers handlers)
    : _listening(std::move(listening)), _stop(::eventfd(0, EFD_CLOEXEC)), _interrupt(interrupt),
      _handlers(std::move(handlers)), _thread([this] { _serve(); }) {}

ControlServer::~ControlServer() {
    ::eventfd_write(_stop.get(), 1);
    _thread.join();
}

void ControlServer::_serve() {
    for (;;) {
        std::vector<pollfd> waited{{_stop.get(), POLLIN, 0}, {_interrupt, POLLIN, 0}, {_listening.get(), POLLIN, 0}};
        bool somebodyFollows = false;
        for (const Client& client : _clients) {
            waited.push_back({client.connection.get(), POLLIN, 0});
            somebodyFollows = somebodyFollows || client.follows;
        }
        ::poll(waited.data(), waited.size(), somebodyFollows ? followInterval : -1);
        for (std::size_t place = 0; place < _clients.size(); ++place) {
            if (waited[place + 3].revents != 0) {
                _read(_clients[place]);
            }
        }
        if (waited[2].revents != 0) {
            _accept();
        }
        if (waited[1].revents != 0) {
            _interrupt = -1;
            _handlers.interrupted();
        }
        _tellFollowers();
        std::erase_if(_clients, [](const Client& client) { return client.hasEnded; });
        if (waited[0].revents != 0) {
            return;
        }
    }
}

void ControlServer::_accept() {
    device::Descriptor connection(::accept4(_listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    constexpr timeval patience{2, 0};
    ::setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (connection.isOpen() && _clients.size() < mostClients) {
        _clients.push_back({std::move(connection), {}, false, {}, false});
    }
}

void ControlServer::_read(Client& client) {
    std::array<char, longestRequest> piece{};
    const ssize_t length = ::recv(client.connection.get(), piece.data(), piece.size(), 0);
    if (length <= 0) {
        client.hasEnded = length == 0 || (errno != EAGAIN && errno != EINTR);
        return;
    }
    client.received.append(piece.data(), static_cast<std::size_t>(length));
    for (std::size_t end = 0; (end = client.received.find('\n')) != std::string::npos;) {
        const std::string line = client.received.substr(0, end);
        client.received.erase(0, end + 1);
        _answer(client, line);
    }
    if (client.received.size() > longestRequest) {
        (void)writeLine(client.connection.get(), errorAnswer("The request is longer than 4096 bytes."));
        client.hasEnded = true;
    }
}

void ControlServer::_answer(Client& client, const std::string& line) {
    ControlRequest request;
    std::string problem;
    std::string answer;
    if (!parseControlRequest(line, request, problem)) {
        answer = errorAnswer(problem);
    } else if (request.command == "follow") {
        client.follows = true;
        return; // the first status comes with those of all followers
    } else if (request.command == "status") {
        answer = _handlers.status();
    } else {
        answer = _act(request);
    }
    client.hasEnded = !writeLine(client.connection.get(), answer) || client.hasEnded;
}

std::string ControlServer::_act(const ControlRequest& request) const {
    const std::string problem =
        request.command == "cancel" ? _handlers.cancel(request.app) : _handlers.prioritize(request.app);
    return problem.empty() ? doneAnswer() : errorAnswer(problem);
}

/// A follower that does not read what it is told is dropped.
void ControlServer::_tellFollowers() {
    std::string status;
    for (Client& client : _clients) {
        if (!client.follows) {
            continue;
        }
        status = status.empty() ? _handlers.status() : status;
        if (status != client.lastStatus) {
            client.hasEnded = !writeLine(client.connection.get(), status) || client.hasEnded;
            client.lastStatus = status;
        }
    }
}

} // namespace appsync::host
