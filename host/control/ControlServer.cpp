#include "host/control/ControlServer.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace appsync::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int fullInterval = 50;       // milliseconds until it is tried again to let somebody in
constexpr std::size_t firstClient = 3; // among what is waited for

} // namespace

ControlServer::ControlServer(int listening, int interrupt, ControlHandlers handlers, ControlTimes times)
    : _listening(listening), _interrupt(interrupt), _handlers(std::move(handlers)), _times(times),
      _thread([this] { _serve(); }) {}

ControlServer::~ControlServer() {
    _stop.set();
    _thread.join();
}

/// Last what has changed, which nobody wants to know while nobody follows or nothing may be told.
std::vector<pollfd> ControlServer::_awaited(bool isStill) const {
    std::vector<pollfd> awaited{
        {_stop.descriptor(), POLLIN, 0}, {_interrupt, POLLIN, 0}, {_isFull ? -1 : _listening, POLLIN, 0}};
    for (const Client& client : _clients) {
        const short wish = client.unsent.empty() ? POLLIN : POLLOUT;
        awaited.push_back({client.connection.get(), wish, 0});
    }
    for (const Event* change : _handlers.changes) {
        awaited.push_back({_somebodyFollows() && !isStill ? change->descriptor() : -1, POLLIN, 0});
    }
    return awaited;
}

/// For how many milliseconds from now followers are told nothing.
int ControlServer::_stillTime() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_stillUntil - Clock::now());
    return _somebodyFollows() ? std::max(0, static_cast<int>(left.count())) : 0;
}

bool ControlServer::_somebodyFollows() const {
    return std::ranges::any_of(_clients, &Client::follows);
}

void ControlServer::_serve() {
    for (;;) {
        const int stillTime = _stillTime();
        auto awaited = _awaited(stillTime != 0);
        ::poll(awaited.data(), awaited.size(), stillTime != 0 ? stillTime : _isFull ? fullInterval : -1);
        _isFull = false;
        std::vector<Client*> present;
        for (Client& client : _clients) {
            present.push_back(&client);
        }
        for (std::size_t place = 0; place < present.size(); ++place) {
            if (awaited[firstClient + place].revents != 0) {
                _attend(*present[place]);
            }
        }
        _clients.remove_if([](const Client& client) { return client.hasEnded; });
        if (awaited[2].revents != 0) {
            _accept();
        }
        if (awaited[1].revents != 0) {
            _interrupt = -1;
            _handlers.interrupted();
        }
        _tellWhatHasChanged();
        if (awaited[0].revents != 0) {
            _sayFarewell();
            return;
        }
    }
}

void ControlServer::_accept() {
    Descriptor connection(::accept4(_listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!connection.isOpen()) {
        // Without descriptors it stays ready to be accepted: not to be asked again at once.
        _isFull = errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
        if (_isFull) {
            (void)_makeRoom();
        }
        return;
    }
    if (_clients.size() < maxClients || _makeRoom()) {
        _clients.push_back({std::move(connection)});
        return;
    }
    const std::string answer = errorAnswer(busySentence()) + "\n";
    (void)::send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL); // a new connection takes that much
}

/// Drops the client that has asked nothing for the longest time and follows nothing; false when there is none.
bool ControlServer::_makeRoom() {
    const auto idle = std::ranges::find(_clients, false, &Client::follows);
    if (idle == _clients.end()) {
        return false;
    }
    _clients.erase(idle);
    return true;
}

void ControlServer::_attend(Client& client) {
    if (client.unsent.empty()) {
        _read(client);
    } else {
        _send(client);
    }
    _answerLines(client);
}

void ControlServer::_read(Client& client) {
    std::array<char, maxRequestSize> piece{};
    const ssize_t length = ::recv(client.connection.get(), piece.data(), piece.size(), 0);
    if (length <= 0) {
        client.hasEnded = length == 0 || (errno != EAGAIN && errno != EINTR);
        return;
    }
    client.received.append(piece.data(), static_cast<std::size_t>(length));
}

/// Answers what has come, as far as the client takes the answers.
void ControlServer::_answerLines(Client& client) {
    for (std::size_t end = 0;
         client.unsent.empty() && !client.hasEnded && (end = client.received.find('\n')) != std::string::npos;) {
        const std::string line = client.received.substr(0, end);
        client.received.erase(0, end + 1);
        client.unsent = _answerTo(client, line);
        _send(client);
        const auto place = std::ranges::find(_clients, &client, [](const Client& other) { return &other; });
        _clients.splice(_clients.end(), _clients, place);
    }
    if (client.unsent.empty() && client.received.size() > maxRequestSize) {
        client.received.clear();
        client.unsent = errorAnswer("The request is longer than 4096 bytes.") + "\n";
        client.isLast = true;
        _send(client);
    }
}

/// A line; empty when none is due yet.
std::string ControlServer::_answerTo(Client& client, const std::string& line) {
    const auto request = parseControlRequest(line);
    if (!request) {
        return errorAnswer(errorText(request.error())) + "\n";
    }
    if (request->command == "follow") {
        client.follows = true;
        return {}; // the first status comes with those of all followers
    }
    if (request->command == "flush") {
        _handlers.flush();
        return doneAnswer() + "\n";
    }
    return (request->command == "status" ? _handlers.status() : _act(*request)) + "\n";
}

std::string ControlServer::_act(const ControlRequest& request) const {
    const auto done = request.command == "cancel" ? _handlers.cancel(request.app) : _handlers.prioritize(request.app);
    return done ? doneAnswer() : errorAnswer(errorText(done.error()));
}

/// Sends what the client takes at once.
void ControlServer::_send(Client& client) {
    while (!client.unsent.empty()) {
        const ssize_t length =
            ::send(client.connection.get(), client.unsent.data(), client.unsent.size(), MSG_NOSIGNAL);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            client.hasEnded = errno != EAGAIN;
            return;
        }
        client.unsent.erase(0, static_cast<std::size_t>(length));
    }
    client.hasEnded = client.hasEnded || client.isLast;
}

/// Also to those who follow from now on, or have read at last what they were told before.
void ControlServer::_tellWhatHasChanged() {
    if (!_somebodyFollows() || _stillTime() != 0) {
        return;
    }
    const auto isSet = [](const Event* change) { return change->take(); };
    if (std::ranges::count_if(_handlers.changes, isSet) != 0) { // each of them is taken
        _handlers.writeLog();
        _stillUntil = Clock::now() + _times.stillness;
    }
    _tellFollowers();
}

/// A follower that has not read the last status yet is told the next one when it has.
void ControlServer::_tellFollowers() {
    std::string status;
    for (Client& client : _clients) {
        if (!client.follows || !client.unsent.empty()) {
            continue;
        }
        status = status.empty() ? _handlers.status() : status;
        if (status != client.lastStatus) {
            client.unsent = status + "\n";
            client.lastStatus = status;
            _send(client);
        }
    }
    _clients.remove_if([](const Client& client) { return client.hasEnded; });
}

/// All followers are to have the last status, but none keeps the sync from ending.
void ControlServer::_sayFarewell() {
    const auto end = Clock::now() + _times.farewell;
    for (;;) {
        _tellFollowers();
        std::vector<pollfd> behind;
        for (const Client& client : _clients) {
            if (client.follows && !client.unsent.empty()) {
                behind.push_back({client.connection.get(), POLLOUT, 0});
            }
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (behind.empty() || left.count() <= 0 ||
            ::poll(behind.data(), behind.size(), static_cast<int>(left.count())) == 0) {
            return;
        }
        for (Client& client : _clients) {
            _send(client);
        }
    }
}

} // namespace appsync::host
