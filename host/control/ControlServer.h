// Serves the control socket of a device on a thread of its own while a sync runs (host/control/ControlSocket.h).
//
// Nothing is waited for but in one `poll`. What a client has not read yet waits in its `unsent`, and until that is
// empty nothing more is read from it or told to it: so each costs one answer at most, and a client that never reads
// delays nobody.
#pragma once

#include "files/Descriptor.h"
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

/// What the server asks of the sync, on the server's thread.
struct ControlHandlers {
    /// The present status as one line of JSON.
    std::function<std::string()> status;
    /// Writes out what is logged.
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
/// How long the end of a sync waits for all followers together to take the last status.
inline constexpr std::chrono::milliseconds farewellTime{500};

class ControlServer {
  public:
    /// `listening` is a socket that does not block, or -1: then only the interrupt is waited for. `interrupt` becomes
    /// readable when the process is asked to end; -1 for none. Both and the handlers must outlive the server.
    ControlServer(int listening, int interrupt, ControlHandlers handlers,
                  std::chrono::milliseconds farewell = farewellTime);
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
    [[nodiscard]] std::vector<pollfd> _awaited() const;
    void _accept();
    [[nodiscard]] bool _makeRoom();
    void _attend(Client& client);
    void _read(Client& client);
    void _answerLines(Client& client);
    [[nodiscard]] std::string _answerTo(Client& client, const std::string& line);
    [[nodiscard]] std::string _act(const ControlRequest& request) const;
    void _send(Client& client);
    void _tellFollowers();
    void _sayFarewell();
    [[nodiscard]] bool _somebodyFollows() const;

    const int _listening;
    const Descriptor _stop; // becomes readable when the server is to end
    int _interrupt;         // -1 once it has been heard
    const ControlHandlers _handlers;
    const std::chrono::milliseconds _farewell;
    std::list<Client> _clients; // the one that has asked last is the last
    bool _isFull = false;       // nobody can be let in just now
    std::thread _thread;        // last: it uses the rest
};

} // namespace appsync::host
