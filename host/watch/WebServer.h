// The HTTP side of `qrd watch`: lets in who may (host/watch/WebRequest.h) and hands out the page, icons and events.
//
// The library's one thread serves all connections and never waits for one, nor for the device. What has to wait (who
// watches and has seen everything, an act that the device is still asked for, who did not know the token) is suspended
// until the thread that owns the device has something for it.
//
// All who watch get the same bytes, from one list of what was told last. Whoever has not read what falls out of that
// list is dropped; the page then connects again and gets everything anew. Each connection is for one request.
#pragma once

#include "concurrency/Mutex.h"
#include "files/Descriptor.h"
#include "files/Event.h"
#include "host/watch/WebRequest.h"
#include "values/Result.h"

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct MHD_Daemon;
struct MHD_Connection;
struct MHD_Response;

namespace appsync::host {

struct WebLimits {
    std::size_t connections = 48;          // beyond these the oldest that has not asked yet makes room
    std::size_t watchers = 8;              // more are told to try later
    std::size_t delayed = 16;              // more who do not know the token are hung up on
    std::size_t acts = 4;                  // that wait for the device
    std::size_t backlog = 4U << 20;        // bytes of what was told last
    std::chrono::milliseconds delay{1000}; // of the answer to who does not know the token
    std::chrono::milliseconds time{10000}; // for a request and its answer
    std::chrono::milliseconds once{30000}; // within which the address for one time lets in
};

/// Any thread, but for what is said to be that of the library.
class WebServer {
  public:
    using Clock = std::chrono::steady_clock;
    /// The PNG of an app's icon; null when there is none. On the library's thread.
    using Icon = std::function<std::shared_ptr<const std::string>(const std::string& app, const std::string& version)>;

    /// What a person wants done, as the page says.
    struct Act {
        std::uint64_t number;
        std::string command; // of the control socket
        std::string app;
    };

    /// Listens at 127.0.0.1; port 0 is any free one.
    [[nodiscard]] static Result<std::unique_ptr<WebServer>> start(std::uint16_t port, Icon icon, WebLimits limits = {});
    /// For tests: listens nowhere and has no thread; `run` serves what `adopt` has been given.
    [[nodiscard]] static Result<std::unique_ptr<WebServer>> makeSilent(const Door& door, Icon icon, WebLimits limits);
    /// Hangs up on everybody.
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    /// Where a person enters.
    [[nodiscard]] std::string address() const;
    /// The same for one time, and for a short one: others may see the words with which a browser is started.
    [[nodiscard]] std::string addressForOnce();

    /// Becomes readable when `attend` is to be called.
    [[nodiscard]] int descriptor() const noexcept { return _wake.descriptor(); }
    /// Hangs up on who takes too long, and answers whose delay is over. Returns when to call it again at the latest.
    [[nodiscard]] std::optional<Clock::time_point> attend(Clock::time_point now);
    /// The one that waits longest; nullopt when none does.
    [[nodiscard]] std::optional<Act> nextAct();
    void answer(const Act& act, unsigned status, const std::string& json);
    /// Whether somebody watches who has been told nothing.
    [[nodiscard]] bool hasNewcomers() const;
    [[nodiscard]] bool isWatched() const;
    /// Tells the newcomers, who get from now on what all get.
    void welcome(const std::string& events);
    void tell(const std::string& events);

    void adopt(Descriptor socket);
    void run();

  private:
    enum class Stage {
        asking,    // its request has not come as a whole
        delayed,   // it did not know the token
        acting,    // the device is to be asked
        watching,  //
        answering, // or hung up on
    };
    struct Connection;
    struct Calls; // of the library

    WebServer(Door door, Icon icon, WebLimits limits);
    [[nodiscard]] Result<void> _start(unsigned flags, std::uint16_t port, int listening);
    [[nodiscard]] bool _handle(Connection& connection, const char* method, const char* body, std::size_t* size);
    [[nodiscard]] Ruling _ruleOn(Connection& connection);
    [[nodiscard]] bool _answer(Connection& connection);
    [[nodiscard]] bool _suspend(Connection& connection, Stage stage, std::size_t most, std::optional<Act> act = {});
    [[nodiscard]] bool _takeAct(Connection& connection, const char* command, const std::string& app);
    [[nodiscard]] bool _mayWatch(Connection& connection);
    [[nodiscard]] bool _letWatch(Connection& connection);
    [[nodiscard]] std::ptrdiff_t _read(Connection& connection, char* out, std::size_t room);
    [[nodiscard]] Connection* _open(MHD_Connection* handle);
    void _close(Connection* connection);
    void _makeRoom() REQUIRES(_mutex);
    void _resume(Connection& connection) REQUIRES(_mutex);
    [[nodiscard]] std::size_t _count(Stage stage) const REQUIRES(_mutex);
    void _dropWhoLeft() REQUIRES(_mutex);

    const Icon _icon;
    const WebLimits _limits;
    const Event _wake;
    MHD_Daemon* _daemon = nullptr;
    mutable Mutex _mutex;
    Door _door GUARDED_BY(_mutex);
    Clock::time_point _endOfOnce GUARDED_BY(_mutex) = {};
    std::list<Connection> _connections GUARDED_BY(_mutex); // the oldest first
    std::deque<std::string> _told GUARDED_BY(_mutex);
    std::size_t _toldBytes GUARDED_BY(_mutex) = 0;
    std::uint64_t _firstTold GUARDED_BY(_mutex) = 0; // the number of the first that is kept
    std::uint64_t _lastAct GUARDED_BY(_mutex) = 0;
    bool _isEnding GUARDED_BY(_mutex) = false;
};

} // namespace appsync::host
