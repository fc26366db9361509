#include "bench/Watchers.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <utility>

extern char** environ;

namespace appsync::bench {

namespace {

[[noreturn]] void fail(std::string_view sentence) {
    std::cerr << "watchers: " << sentence << '\n';
    std::_Exit(1);
}

/// Reads until a text has come; what came so far.
std::string readUntil(int from, std::string_view text) {
    std::string read;
    std::array<char, 4096> piece;
    while (read.find(text) == std::string::npos) {
        const ssize_t count = ::read(from, piece.data(), piece.size());
        if (count <= 0) {
            fail("the server has ended");
        }
        read.append(piece.data(), static_cast<std::size_t>(count));
    }
    return read;
}

struct Page {
    Descriptor connection; // on which its events come
    std::string begin;     // that has been read from it
};

Page openPage(const std::string& port, const std::string& token) {
    Descriptor connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string request =
        "GET /events HTTP/1.0\r\nHost: 127.0.0.1:" + port + "\r\nCookie: qrd-" + port + "=" + token + "\r\n\r\n";
    if (::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::write(connection.get(), request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        fail("no page can be opened");
    }
    std::string begin = readUntil(connection.get(), "event: screen");
    return {std::move(connection), std::move(begin)};
}

} // namespace

Watchers::Watchers(const std::string& qrd, const std::string& device, int pages) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail("no pipe");
    }
    _output = Descriptor(ends[0]);
    const Descriptor input(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
    std::array<std::string, 3> words{qrd, "watch", device};
    std::array<char*, 4> arguments{words[0].data(), words[1].data(), words[2].data(), nullptr};
    if (::posix_spawnp(&_server, qrd.c_str(), &actions, nullptr, arguments.data(), environ) != 0) {
        fail("cannot run " + qrd);
    }
    posix_spawn_file_actions_destroy(&actions);
    const std::string address = readUntil(_output.get(), "\n"); // http://127.0.0.1:PORT/?token=TOKEN
    const std::size_t port = address.rfind(':') + 1;
    const std::size_t path = address.find('/', port);
    const std::size_t token = address.find("token=") + 6;
    for (int page = 0; page < pages; ++page) {
        Page opened = openPage(address.substr(port, path - port), address.substr(token, address.find('\n') - token));
        Heard* const heard = page == 0 ? &_heard : nullptr;
        if (heard) {
            heard->emplace_back(std::chrono::system_clock::now(), std::move(opened.begin));
        }
        _pages.emplace_back([heard, connection = std::move(opened.connection)] {
            Heard unwanted;
            hear(connection.get(), heard ? *heard : unwanted);
        });
    }
}

void hear(int from, Heard& heard) {
    std::array<char, 65536> piece;
    for (ssize_t length = 0; (length = ::read(from, piece.data(), piece.size())) > 0;) {
        heard.emplace_back(std::chrono::system_clock::now(),
                           std::string(piece.data(), static_cast<std::size_t>(length)));
    }
}

Heard Watchers::end() {
    ::kill(_server, SIGTERM);
    ::waitpid(std::exchange(_server, 0), nullptr, 0);
    _pages.clear();
    return std::move(_heard);
}

Watchers::~Watchers() {
    if (_server != 0) {
        (void)end();
    }
}

} // namespace appsync::bench
