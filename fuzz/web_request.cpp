// Any bytes from a browser, with the library that reads them: answers that say what every answer says, and nothing of
// the device or its page for who does not know the token.
#include "fuzz/Fuzz.h"
#include "host/watch/WebServer.h"

#include <sys/socket.h>

#include <array>
#include <chrono>
#include <string>

using appsync::Descriptor;
using appsync::fuzz::expect;
using appsync::fuzz::require;
using appsync::host::WebServer;

namespace {

constexpr const char* token = "0123456789abcdef0123456789abcdef";
constexpr const char* all = "event: screen\n\n";

/// Has the server do what it can, as its thread and the one of the device would in turn.
void serve(WebServer& server) {
    constexpr int rounds = 12; // what is delayed is resumed, answered and hung up on
    const auto later = WebServer::Clock::now() + std::chrono::hours(1);
    for (int round = 0; round < rounds; ++round) {
        server.run();
        (void)server.attend(later);
        server.welcome(all);
        if (const auto act = server.nextAct()) {
            expect(act->command == "cancel" || act->command == "prioritize", "there are two acts");
            expect(!act->app.empty(), "an act has an app");
            server.answer(*act, 200, "{}");
        }
    }
}

std::string received(int socket) {
    std::string text;
    std::array<char, 4096> piece{};
    for (ssize_t length = 0; (length = ::recv(socket, piece.data(), piece.size(), MSG_DONTWAIT)) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(length));
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t maxSize = 60'000; // what a socket takes at once
    const auto icon = [](const std::string&, const std::string&) {
        return std::make_shared<const std::string>("icon");
    };
    const auto server = WebServer::makeSilent({8080, token}, icon, {.delay = std::chrono::milliseconds(0)});
    require(bool(server), "the library starts");
    std::array<int, 2> pair{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) == 0,
            "a pair of sockets");
    const Descriptor browser(pair[0]);
    (*server)->adopt(Descriptor(pair[1]));
    const auto text = appsync::fuzz::text(bytes, std::min(size, maxSize));
    (void)::send(browser.get(), text.data(), text.size(), MSG_NOSIGNAL);
    serve(**server);
    const std::string answer = received(browser.get());

    const bool isOwn = answer.find("Content-Security-Policy: default-src 'none'") != std::string::npos;
    const bool isGiven =
        answer.find("Set-Cookie") != std::string::npos || answer.find("HTTP/1.1 200") != std::string::npos;
    expect(!isGiven || text.find(token) != std::string::npos, "who does not know the token is given nothing");
    expect(!isGiven || isOwn, "what is given says what a browser may do with it");
    expect(!isGiven || text.find(":8080") != std::string::npos, "it was asked for here");
    return 0;
}
