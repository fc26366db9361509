// Serves the control socket of a device on a thread of its own while a sync runs (host/control/ControlSocket.h).
//
// Nothing is waited for but in one `poll`. What a client has not read yet waits in its `unsent`, and until that is
// empty nothing more is read from it or told to it: so each costs one answer at most, and a client that never reads
// delays nobody.
//
// Followers are told at once that something has changed, and then nothing for a moment. As long as somebody follows,
// what is logged is written at the same moments: whoever watches the device sees both together.
#pragma once

#include "files/Descriptor.h"
#include "files/Event.h"
#include "host/control/ControlSocket.h"
#include "values/Result.h"

#include <chrono>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

struct pollfd;

namespace appsync::host {

/// What the server asks of the run, on the server's thread.
struct ControlHandlers {
    /// The present status as one line of JSON.
    std::function<std::string()> status;
    /// Set when there is another status, or something to be written to the log.
    std::vector<const Event*> changes;
    /// Writes what is logged to the log file.
    std::function<void()> writeLog;
    /// Writes out all that is logged, transactions too.
    std::function<void()> flush;
    /// The error says why nothing was done.
    std::function<Result<void>(const std::string& app)> prioritize;
    std::function<Result<void>(const std::string& app)> cancel;
    /// Called once, when the process has been asked to end.
    std::function<void()> interrupted;
};

/// How many clients are served at once. Of more, the one that has asked nothing for the longest time makes room, but no
/// follower; where all are followers, a new one is told that the sync is busy.
inline constexpr std::size_t maxClients = 16;

struct ControlTimes {
    /// How long the end of a run waits for all followers together to take the last status.
    std::chrono::milliseconds farewell{500};
    /// How long nothing more is told to followers after a change.
    std::chrono::milliseconds stillness{60};
};

class ControlServer {
  public:
    /// `listening` is a socket that does not block, or -1: then only the interrupt is waited for. `interrupt` becomes
    /// readable when the process is asked to end; -1 for none. Both and the handlers must outlive the server.
    ControlServer(int listening, int interrupt, ControlHandlers handlers, ControlTimes times = {});
    /// Tells the followers the last status, hangs up, and ends the thread.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

  private:
    struct Client {
        Descriptor connection;
        std::string received = {}; // that is not answered yet
        std::string unsent = {};
        std::string lastStatus = {}; // that a follower was told
        bool follows = false;
        bool isLast = false;   // hung up on after the last answer
        bool hasEnded = false; // to be dropped
    };

    void _serve();
    [[nodiscard]] std::vector<pollfd> _awaited(bool isStill) const;
    void _accept();
    [[nodiscard]] bool _makeRoom();
    void _attend(Client& client);
    void _read(Client& client);
    void _answerLines(Client& client);
    [[nodiscard]] std::string _answerTo(Client& client, const std::string& line);
    [[nodiscard]] std::string _act(const ControlRequest& request) const;
    void _send(Client& client);
    [[nodiscard]] int _stillTime() const;
    void _tellWhatHasChanged();
    void _tellFollowers();
    void _sayFarewell();
    [[nodiscard]] bool _somebodyFollows() const;

    const int _listening;
    const Event _stop; // the server is to end
    int _interrupt;    // -1 once it has been heard
    const ControlHandlers _handlers;
    const ControlTimes _times;
    std::list<Client> _clients; // the one that has asked last is the last
    bool _isFull = false;       // nobody can be let in just now
    std::chrono::steady_clock::time_point _stillUntil = {};
    std::thread _thread; // last: it uses the rest
};

} // namespace appsync::host
