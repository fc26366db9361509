#include "host/watch/WebServer.h"

#include "files/Syscalls.h"
#include "host/watch/Page.h"
#include "host/watch/WebAnswer.h"
#include "host/watch/WebDoor.h"

#include <microhttpd.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace appsync::host {

namespace {

MHD_Result keepHeader(void* kept, MHD_ValueKind, const char* name, const char* value) {
    auto& request = *static_cast<WebRequest*>(kept);
    const std::pair<const char*, std::optional<std::string>*> places[] = {{"Host", &request.host},
                                                                          {"Origin", &request.origin},
                                                                          {"Cookie", &request.cookie},
                                                                          {"Content-Type", &request.contentType}};
    for (const auto& [known, place] : places) {
        if (::strcasecmp(name, known) == 0) {
            request.isAmbiguous = request.isAmbiguous || place->has_value();
            *place = value ? value : "";
        }
    }
    return MHD_YES;
}

/// Whether the head of a request announces more than a body may have, or does not say how much.
bool announcesTooMuch(MHD_Connection* connection) {
    if (MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Transfer-Encoding")) {
        return true;
    }
    const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Content-Length");
    std::size_t size = 0;
    const auto end = length ? length + std::strlen(length) : nullptr;
    return length && (std::from_chars(length, end, size).ec != std::errc() || size > maxBodySize);
}

} // namespace

struct WebServer::Connection {
    WebServer& server;
    MHD_Connection* const handle;
    const int socket;
    std::optional<Clock::time_point> due; // when it is hung up on, or its delay is over
    Stage stage = Stage::asking;
    std::optional<Act> act = {}; // in the stage `acting`
    // Of one who watches:
    bool sleeps = false;    // it has been told everything
    bool isWelcome = false; // it has been told what there was before
    std::string welcome = {};
    std::uint64_t next = 0; // of what was told
    std::size_t sent = 0;   // of the present text
    // The library's thread alone:
    WebRequest request = {};
    bool hasHead = false;
};

struct WebServer::Calls {
    static Connection* of(MHD_Connection* handle) {
        const auto* found = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
        return found ? static_cast<Connection*>(found->socket_context) : nullptr;
    }
    static void connection(void* server, MHD_Connection* handle, void** context, MHD_ConnectionNotificationCode code) {
        if (code == MHD_CONNECTION_NOTIFY_STARTED) {
            *context = static_cast<WebServer*>(server)->_open(handle);
        } else {
            static_cast<WebServer*>(server)->_close(static_cast<Connection*>(*context));
        }
    }
    static void* target(void*, const char* target, MHD_Connection* handle) {
        if (Connection* connection = of(handle)) {
            connection->request.target = target;
        }
        return nullptr;
    }
    static MHD_Result request(void* server, MHD_Connection* handle, const char*, const char* method, const char*,
                              const char* body, std::size_t* size, void**) {
        Connection* connection = of(handle);
        const bool isHandled = connection && static_cast<WebServer*>(server)->_handle(*connection, method, body, size);
        return isHandled ? MHD_YES : MHD_NO;
    }
    static ssize_t read(void* context, std::uint64_t, char* out, std::size_t room) {
        auto& connection = *static_cast<Connection*>(context);
        return connection.server._read(connection, out, room);
    }
};

WebServer::WebServer(Door door, Icon icon, WebLimits limits)
    : _icon(std::move(icon)), _limits(limits), _door(std::move(door)) {}

Result<std::unique_ptr<WebServer>> WebServer::start(std::uint16_t port, Icon icon, WebLimits limits) {
    auto socket = listenAt(port);
    if (!socket) {
        return socket.error();
    }
    const std::string token = makeToken();
    if (token.empty()) {
        return cannotListenError(port, "the system has no random numbers");
    }
    std::unique_ptr<WebServer> server(new WebServer({port, token}, std::move(icon), limits));
    const auto started = server->_start(MHD_USE_EPOLL_INTERNAL_THREAD, port, socket->get());
    if (!started) {
        return started.error();
    }
    (void)socket->release(); // the library closes it
    return server;
}

Result<std::unique_ptr<WebServer>> WebServer::makeSilent(const Door& door, Icon icon, WebLimits limits) {
    std::unique_ptr<WebServer> server(new WebServer(door, std::move(icon), limits));
    const auto started = server->_start(MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET, door.port, -1);
    return started ? Result(std::move(server)) : started.error();
}

Result<void> WebServer::_start(unsigned flags, std::uint16_t port, int listening) {
    constexpr unsigned overflow = 16; // until the oldest have been hung up on
    constexpr std::size_t memory = 16U << 10;
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(_limits.time);
    // The library takes no socket when it is told that there is none.
    MHD_OptionItem socket[] = {{listening >= 0 ? MHD_OPTION_LISTEN_SOCKET : MHD_OPTION_END, listening, nullptr},
                               {MHD_OPTION_END, 0, nullptr}};
    _daemon = MHD_start_daemon(flags | MHD_ALLOW_SUSPEND_RESUME, port, nullptr, nullptr, &Calls::request, this, //
                               MHD_OPTION_ARRAY, socket,                                                        //
                               MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(_limits.connections) + overflow,
                               MHD_OPTION_CONNECTION_TIMEOUT,
                               static_cast<unsigned>(seconds.count()),                 // also of who does not read
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, memory,             //
                               MHD_OPTION_STRICT_FOR_CLIENT, 1,                        //
                               MHD_OPTION_NOTIFY_CONNECTION, &Calls::connection, this, //
                               MHD_OPTION_URI_LOG_CALLBACK, &Calls::target, this,      //
                               MHD_OPTION_END);
    return _daemon ? Result<void>() : cannotListenError(port, systemText(errno));
}

/// What is suspended must go on before the library can end.
WebServer::~WebServer() {
    if (!_daemon) {
        return;
    }
    {
        const Lock lock(_mutex);
        _isEnding = true;
        for (Connection& connection : _connections) {
            if (connection.stage == Stage::delayed || connection.stage == Stage::acting || connection.sleeps) {
                _resume(connection);
            }
        }
    }
    MHD_stop_daemon(_daemon);
}

std::string WebServer::address() const {
    const Lock lock(_mutex);
    return addressOf(_door.port, _door.token);
}

std::string WebServer::addressForOnce() {
    const Lock lock(_mutex);
    _door.once = makeToken();
    _endOfOnce = Clock::now() + _limits.once;
    return addressOf(_door.port, _door.once);
}

WebServer::Connection* WebServer::_open(MHD_Connection* handle) {
    const auto* socket = MHD_get_connection_info(handle, MHD_CONNECTION_INFO_CONNECTION_FD);
    const Lock lock(_mutex);
    _makeRoom();
    _connections.push_back({*this, handle, socket ? socket->connect_fd : -1, Clock::now() + _limits.time});
    _wake.set();
    return &_connections.back();
}

void WebServer::_close(Connection* connection) {
    const Lock lock(_mutex);
    _connections.remove_if([connection](const Connection& other) { return &other == connection; });
}

void WebServer::_makeRoom() {
    const auto idle = std::ranges::find(_connections, Stage::asking, &Connection::stage);
    if (_connections.size() >= _limits.connections && idle != _connections.end()) {
        idle->stage = Stage::answering;
        ::shutdown(idle->socket, SHUT_RDWR);
    }
}

void WebServer::_resume(Connection& connection) {
    connection.sleeps = false;
    MHD_resume_connection(connection.handle);
}

std::size_t WebServer::_count(Stage stage) const {
    return static_cast<std::size_t>(std::ranges::count(_connections, stage, &Connection::stage));
}

/// Is called with the head, with each piece of the body, and at the end.
bool WebServer::_handle(Connection& connection, const char* method, const char* body, std::size_t* size) {
    WebRequest& request = connection.request;
    if (!connection.hasHead) {
        connection.hasHead = true;
        request.method = method;
        (void)MHD_get_connection_values(connection.handle, MHD_HEADER_KIND, &keepHeader, &request);
        if (!announcesTooMuch(connection.handle)) {
            return true;
        }
        request.body.assign(maxBodySize + 1, ' ');
    }
    if (*size != 0) {
        request.body.append(body, std::min(*size, maxBodySize + 1 - request.body.size()));
        *size = 0;
        return true;
    }
    return _answer(connection);
}

Ruling WebServer::_ruleOn(Connection& connection) {
    const Lock lock(_mutex);
    if (Clock::now() >= _endOfOnce) {
        _door.once.clear();
    }
    const Ruling ruling = ruleOn(connection.request, _door);
    connection.stage = Stage::answering;
    if (ruling.act == WebAct::enterOnce) {
        _door.once.clear();
    }
    return ruling;
}

/// The library is not called with the lock in hand: it calls back with its own.
bool WebServer::_answer(Connection& connection) {
    const Ruling ruling = _ruleOn(connection);
    MHD_Connection* const handle = connection.handle;
    switch (ruling.act) {
    case WebAct::refuse: return refuse(handle);
    case WebAct::refuseLater: return _suspend(connection, Stage::delayed, _limits.delayed);
    case WebAct::enterOnce:
    case WebAct::enter: {
        const WebAnswer response = textAnswer("");
        MHD_add_response_header(response.get(), "Location", "/");
        MHD_add_response_header(response.get(), "Set-Cookie",
                                (ruling.subject + "; HttpOnly; SameSite=Strict; Path=/").c_str());
        return send(handle, MHD_HTTP_SEE_OTHER, response);
    }
    case WebAct::page: {
        const PagePart& part = *findPagePart(ruling.subject);
        return send(handle, MHD_HTTP_OK, answerOf(part.bytes, part.type.data()));
    }
    case WebAct::icon: {
        const auto png = _icon(ruling.subject, ruling.version);
        return png ? send(handle, MHD_HTTP_OK, answerOf(*png, "image/png", "private, max-age=31536000, immutable"))
                   : send(handle, MHD_HTTP_NOT_FOUND, textAnswer("There is no such icon.\n"));
    }
    case WebAct::events: return _letWatch(connection);
    case WebAct::prioritize: return _takeAct(connection, "prioritize", ruling.subject);
    case WebAct::cancel: return _takeAct(connection, "cancel", ruling.subject);
    case WebAct::notFound: return send(handle, MHD_HTTP_NOT_FOUND, textAnswer("There is no such page.\n"));
    case WebAct::wrongMethod: {
        const WebAnswer response = textAnswer("Only " + ruling.subject + " is possible here.\n");
        MHD_add_response_header(response.get(), "Allow", ruling.subject.c_str());
        return send(handle, MHD_HTTP_METHOD_NOT_ALLOWED, response);
    }
    case WebAct::tooLarge: return send(handle, 413, textAnswer("A body says how long it is: at most 4096 bytes.\n"));
    case WebAct::malformed:
        return send(handle, MHD_HTTP_BAD_REQUEST,
                    jsonAnswer(R"({"error":"The body is to be JSON, {\"app\": the bundle identifier}."})"));
    }
    return false;
}

/// Until another thread has something for it. False when as many wait already.
bool WebServer::_suspend(Connection& connection, Stage stage, std::size_t most, std::optional<Act> act) {
    const Lock lock(_mutex);
    if (_isEnding || _count(stage) >= most) {
        return false;
    }
    connection.stage = stage;
    connection.due = stage == Stage::delayed ? std::optional(Clock::now() + _limits.delay) : std::nullopt;
    connection.act = std::move(act);
    if (connection.act) {
        connection.act->number = ++_lastAct;
    }
    MHD_suspend_connection(connection.handle);
    _wake.set();
    return true;
}

bool WebServer::_takeAct(Connection& connection, const char* command, const std::string& app) {
    return _suspend(connection, Stage::acting, _limits.acts, Act{0, command, app}) ||
           send(connection.handle, MHD_HTTP_SERVICE_UNAVAILABLE,
                jsonAnswer(R"({"error":"Too much is asked for at once; try again."})"));
}

bool WebServer::_mayWatch(Connection& connection) {
    const Lock lock(_mutex);
    if (_count(Stage::watching) >= _limits.watchers) {
        _dropWhoLeft();
    }
    if (_count(Stage::watching) >= _limits.watchers) {
        return false;
    }
    connection.stage = Stage::watching;
    connection.due.reset();
    _wake.set();
    return true;
}

bool WebServer::_letWatch(Connection& connection) {
    if (!_mayWatch(connection)) {
        return send(connection.handle, MHD_HTTP_SERVICE_UNAVAILABLE,
                    textAnswer("The device is watched from too many pages; close one.\n"));
    }
    constexpr std::size_t pieceSize = 16U << 10;
    return send(
        connection.handle, MHD_HTTP_OK,
        answerWith(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, pieceSize, &Calls::read, &connection, nullptr),
                   "text/event-stream"));
}

/// Those whose page has gone, which the library finds out when it sends them something.
void WebServer::_dropWhoLeft() {
    for (Connection& connection : _connections) {
        pollfd watched{connection.socket, POLLRDHUP, 0};
        if (connection.stage == Stage::watching && ::poll(&watched, 1, 0) == 1) {
            connection.stage = Stage::answering;
            if (connection.sleeps) {
                _resume(connection);
            }
        }
    }
}

std::ptrdiff_t WebServer::_read(Connection& connection, char* out, std::size_t room) {
    const Lock lock(_mutex);
    if (_isEnding || connection.stage != Stage::watching) {
        return MHD_CONTENT_READER_END_OF_STREAM;
    }
    const bool isBehind = connection.welcome.empty();
    if (isBehind && connection.isWelcome && connection.next < _firstTold) {
        return MHD_CONTENT_READER_END_WITH_ERROR; // it will connect again
    }
    if (isBehind && (!connection.isWelcome || connection.next == _firstTold + _told.size())) {
        connection.sleeps = true;
        MHD_suspend_connection(connection.handle);
        return 0;
    }
    const std::string& text = isBehind ? _told[connection.next - _firstTold] : connection.welcome;
    const std::size_t length = text.copy(out, room, connection.sent);
    connection.sent += length;
    if (connection.sent == text.size()) {
        connection.sent = 0;
        connection.next += isBehind ? 1 : 0;
        connection.welcome.clear();
    }
    return static_cast<std::ptrdiff_t>(length);
}

std::optional<WebServer::Clock::time_point> WebServer::attend(Clock::time_point now) {
    _wake.take();
    std::optional<Clock::time_point> next;
    const Lock lock(_mutex);
    for (Connection& connection : _connections) {
        if (connection.due && *connection.due <= now) {
            connection.due.reset();
            if (connection.stage != Stage::delayed) {
                ::shutdown(connection.socket, SHUT_RDWR);
                continue;
            }
            connection.stage = Stage::answering;
            connection.due = now + _limits.time;
            (void)refuse(connection.handle);
            _resume(connection);
        }
        if (connection.due) {
            next = std::min(next.value_or(*connection.due), *connection.due);
        }
    }
    return next;
}

std::optional<WebServer::Act> WebServer::nextAct() {
    const Lock lock(_mutex);
    std::optional<Act> first;
    for (const Connection& connection : _connections) {
        if (connection.act && (!first || connection.act->number < first->number)) {
            first = connection.act;
        }
    }
    return first;
}

void WebServer::answer(const Act& act, unsigned status, const std::string& json) {
    const Lock lock(_mutex);
    const auto asking = std::ranges::find_if(_connections, [&](const Connection& connection) {
        return connection.act && connection.act->number == act.number;
    });
    if (asking != _connections.end()) {
        asking->stage = Stage::answering;
        asking->act.reset();
        asking->due = Clock::now() + _limits.time;
        (void)send(asking->handle, status, jsonAnswer(json));
        _resume(*asking);
    }
}

bool WebServer::hasNewcomers() const {
    const Lock lock(_mutex);
    return std::ranges::any_of(_connections, [](const Connection& connection) {
        return connection.stage == Stage::watching && !connection.isWelcome;
    });
}

bool WebServer::isWatched() const {
    const Lock lock(_mutex);
    return _count(Stage::watching) != 0;
}

void WebServer::welcome(const std::string& events) {
    const Lock lock(_mutex);
    for (Connection& connection : _connections) {
        if (connection.stage == Stage::watching && !connection.isWelcome) {
            connection.isWelcome = true;
            connection.welcome = events;
            connection.next = _firstTold + _told.size();
            if (connection.sleeps) {
                _resume(connection);
            }
        }
    }
}

void WebServer::tell(const std::string& events) {
    const Lock lock(_mutex);
    _told.push_back(events);
    _toldBytes += events.size();
    for (; _toldBytes > _limits.backlog && _told.size() > 1; ++_firstTold) {
        _toldBytes -= _told.front().size();
        _told.pop_front();
    }
    for (Connection& connection : _connections) {
        if (connection.sleeps && connection.isWelcome) {
            _resume(connection);
        } else if (connection.stage == Stage::watching && connection.isWelcome && connection.next < _firstTold) {
            ::shutdown(connection.socket, SHUT_RDWR); // it does not read
        }
    }
}

void WebServer::adopt(Descriptor socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)MHD_add_connection(_daemon, socket.release(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

void WebServer::run() {
    (void)MHD_run(_daemon);
}

} // namespace appsync::host
