// Serves the control socket of a device on a thread of its own while a sync runs (host/control/ControlSocket.h).
#pragma once

#include "device/root/Descriptor.h"
#include "host/control/ControlSocket.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace appsync::host {

/// What the server asks of the sync, on the server's thread.
struct ControlHandlers {
    /// The present status as one line of JSON.
    std::function<std::string()> status;
    /// Each answers with an empty string, or with the sentence that says why nothing was done.
    std::function<std::string(const std::string& app)> prioritize;
    std::function<std::string(const std::string& app)> cancel;
    /// Called once, when the process has been asked to end.
    std::function<void()> interrupted;
};

class ControlServer {
  public:
    /// `listening` may be closed: then only the interrupt is waited for. `interrupt` becomes readable when the process
    /// is asked to end; -1 for none. Both handlers and descriptor must outlive the server.
    ControlServer(device::Descriptor listening, int interrupt, ControlHandlers handlers);
    /// Tells the followers the last status, hangs up, and ends the thread.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

  private:
    struct Client {
        device::Descriptor connection;
        std::string received;
        bool follows = false;
        std::string lastStatus;
        bool hasEnded = false;
    };

    void _serve();
    void _accept();
    void _read(Client& client);
    void _answer(Client& client, const std::string& line);
    void _tellFollowers();
    [[nodiscard]] std::string _act(const ControlRequest& request) const;

    const device::Descriptor _listening;
    const device::Descriptor _stop; // becomes readable when the server is to end
    int _interrupt;                 // -1 once it has been heard
    const ControlHandlers _handlers;
    std::vector<Client> _clients;
    std::thread _thread; // last: it uses the rest
};

} // namespace appsync::host
