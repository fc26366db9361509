// Who is let in by the server of `qrd watch`, and that nobody holds up anybody.
#include "host/watch/WebRequest.h"
#include "host/watch/WebServer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <functional>
#include <thread>

namespace appsync::host {
namespace {

using namespace std::chrono_literals;

const Door door{8080, "0123456789abcdef0123456789abcdef"};

WebRequest withCookie(const std::string& method, const std::string& target) {
    return {.method = method,
            .target = target,
            .host = "127.0.0.1:8080",
            .origin = method == "POST" ? std::optional<std::string>("http://127.0.0.1:8080") : std::nullopt,
            .cookie = cookieOf(door),
            .contentType = "application/json",
            .body = R"({"app":"com.example.a"})"};
}

struct RulingCase {
    const char* name;
    std::function<void(WebRequest&)> change;
    WebAct act;
    std::string subject = {};
};

void PrintTo(const RulingCase& one, std::ostream* out) {
    *out << one.name;
}

class Rulings : public testing::TestWithParam<RulingCase> {};

TEST_P(Rulings, AreAsTheRulesSay) {
    WebRequest request = withCookie("GET", "/");
    GetParam().change(request);
    const Ruling ruling = ruleOn(request, door);
    EXPECT_EQ(ruling.act, GetParam().act);
    EXPECT_EQ(ruling.subject, GetParam().subject);
}

void toPost(WebRequest& request, const std::string& path = "/cancel") {
    request = withCookie("POST", path);
}

const RulingCase rulings[] = {
    {"ThePage", [](WebRequest&) {}, WebAct::page, "/"},
    {"ThePageWithAQuery", [](WebRequest& r) { r.target = "/?x=1"; }, WebAct::page, "/"},
    {"AtLocalhost", [](WebRequest& r) { r.host = "localhost:8080"; }, WebAct::refuse},
    {"FromItsOwnPage", [](WebRequest& r) { r.origin = "http://127.0.0.1:8080"; }, WebAct::page, "/"},
    {"ItsStyle", [](WebRequest& r) { r.target = "/watch.css"; }, WebAct::page, "/watch.css"},
    {"Events", [](WebRequest& r) { r.target = "/events"; }, WebAct::events},
    {"AnIcon", [](WebRequest& r) { r.target = "/icon?app=com%2eexample.%C3%A4&version=1"; }, WebAct::icon,
     "com.example.\u00e4"},
    {"Cancel", [](WebRequest& r) { toPost(r); }, WebAct::cancel, "com.example.a"},
    {"Prioritize", [](WebRequest& r) { toPost(r, "/prioritize"); }, WebAct::prioritize, "com.example.a"},
    {"OneCookieOfMany", [](WebRequest& r) { r.cookie = "a=b; qrd-8081=x;  " + cookieOf(door) + "; c"; }, WebAct::page,
     "/"},
    {"TheToken",
     [](WebRequest& r) {
         r.cookie.reset();
         r.target = "/?token=" + door.token;
     },
     WebAct::enter, cookieOf(door)},
    // From elsewhere.
    {"NoHost", [](WebRequest& r) { r.host.reset(); }, WebAct::refuse},
    {"AnotherHost", [](WebRequest& r) { r.host = "example.org:8080"; }, WebAct::refuse},
    {"AHostThatLeadsHere", [](WebRequest& r) { r.host = "127.0.0.1.example.org:8080"; }, WebAct::refuse},
    {"AHostWithoutItsPort", [](WebRequest& r) { r.host = "127.0.0.1"; }, WebAct::refuse},
    {"AnotherPort", [](WebRequest& r) { r.host = "127.0.0.1:80"; }, WebAct::refuse},
    {"TwoHosts", [](WebRequest& r) { r.isAmbiguous = true; }, WebAct::refuse},
    {"AnotherOrigin", [](WebRequest& r) { r.origin = "http://example.org"; }, WebAct::refuse},
    {"NoOriginAtAll", [](WebRequest& r) { r.origin = "null"; }, WebAct::refuse},
    {"AnOriginOfAnotherName", [](WebRequest& r) { r.origin = "http://localhost:8080"; }, WebAct::refuse},
    {"AnOriginOfAnotherKind", [](WebRequest& r) { r.origin = "https://127.0.0.1:8080"; }, WebAct::refuse},
    {"APostWithoutOrigin",
     [](WebRequest& r) {
         toPost(r);
         r.origin.reset();
     },
     WebAct::refuse},
    {"APostFromElsewhere",
     [](WebRequest& r) {
         toPost(r);
         r.origin = "http://example.org";
     },
     WebAct::refuse},
    // Without the token.
    {"NoCookie", [](WebRequest& r) { r.cookie.reset(); }, WebAct::refuseLater},
    {"ACookieOfAnotherPort", [](WebRequest& r) { r.cookie = "qrd-8081=" + door.token; }, WebAct::refuseLater},
    {"AWrongCookie", [](WebRequest& r) { r.cookie->back() = 'e'; }, WebAct::refuseLater},
    {"AnEmptyCookie", [](WebRequest& r) { r.cookie = "qrd-8080="; }, WebAct::refuseLater},
    {"ALongerCookie", [](WebRequest& r) { *r.cookie += "0"; }, WebAct::refuseLater},
    {"AShorterCookie", [](WebRequest& r) { r.cookie->pop_back(); }, WebAct::refuseLater},
    {"AWrongToken", [](WebRequest& r) { r.target = "/?token=0"; }, WebAct::refuseLater},
    {"AnEmptyToken", [](WebRequest& r) { r.target = "/?token="; }, WebAct::refuseLater},
    {"TheTokenElsewhere",
     [](WebRequest& r) {
         r.cookie.reset();
         r.target = "/events?token=" + door.token;
     },
     WebAct::refuseLater},
    {"TheTokenInAPost",
     [](WebRequest& r) {
         toPost(r, "/?token=" + door.token);
         r.cookie.reset();
     },
     WebAct::refuseLater},
    // What there is not.
    {"AnotherPath", [](WebRequest& r) { r.target = "/index.html"; }, WebAct::notFound},
    {"APathThatLeadsUp", [](WebRequest& r) { r.target = "/../etc/passwd"; }, WebAct::notFound},
    {"AnAddressForAProxy", [](WebRequest& r) { r.target = "http://127.0.0.1:8080/"; }, WebAct::notFound},
    {"NoTarget", [](WebRequest& r) { r.target = ""; }, WebAct::notFound},
    {"AnIconWithoutVersion", [](WebRequest& r) { r.target = "/icon?app=a"; }, WebAct::notFound},
    {"AnIconThatIsNoText", [](WebRequest& r) { r.target = "/icon?app=%2&version=1"; }, WebAct::notFound},
    {"AnIconThatIsNoNumber", [](WebRequest& r) { r.target = "/icon?app=%zz&version=1"; }, WebAct::notFound},
    {"HeadOfThePage", [](WebRequest& r) { r.method = "HEAD"; }, WebAct::wrongMethod, "GET"},
    {"APostToThePage", [](WebRequest& r) { toPost(r, "/"); }, WebAct::wrongMethod, "GET"},
    {"CancelByAddress", [](WebRequest& r) { r.target = "/cancel"; }, WebAct::wrongMethod, "POST"},
    // Bodies.
    {"ALargeBody",
     [](WebRequest& r) {
         toPost(r);
         r.body.assign(maxBodySize + 1, ' ');
     },
     WebAct::tooLarge},
    {"NoJson",
     [](WebRequest& r) {
         toPost(r);
         r.body = "app=com.example.a";
     },
     WebAct::malformed},
    {"AnotherObject",
     [](WebRequest& r) {
         toPost(r);
         r.body = "[1]";
     },
     WebAct::malformed},
    {"AnAppThatIsNoText",
     [](WebRequest& r) {
         toPost(r);
         r.body = R"({"app":1})";
     },
     WebAct::malformed},
    {"NoApp",
     [](WebRequest& r) {
         toPost(r);
         r.body = R"({"app":""})";
     },
     WebAct::malformed},
    {"AFormsBody",
     [](WebRequest& r) {
         toPost(r);
         r.contentType = "text/plain";
     },
     WebAct::malformed},
};
INSTANTIATE_TEST_SUITE_P(Watch, Rulings, testing::ValuesIn(rulings), [](const auto& one) { return one.param.name; });

TEST(Ruling, ATokenForOnceIsNoneWhenThereIsNone) {
    Door once = door;
    once.once = "fedcba9876543210fedcba9876543210";
    WebRequest request = withCookie("GET", "/?token=" + once.once);
    EXPECT_EQ(ruleOn(request, once).act, WebAct::enterOnce);
    EXPECT_EQ(ruleOn(request, door).act, WebAct::refuseLater);
}

TEST(Ruling, AnIconsAddressLeadsToIt) {
    const Ruling ruling = ruleOn(withCookie("GET", iconAddress("a&b=c%\u00e4/\n", "1 2")), door);
    EXPECT_EQ(ruling.act, WebAct::icon);
    EXPECT_EQ(ruling.subject, "a&b=c%\u00e4/\n");
    EXPECT_EQ(ruling.version, "1 2");
}

/// A server, with a thread that attends to it as the one of a device would.
class WatchServer : public testing::Test {
  protected:
    void TearDown() override { end(); }

    void start(WebLimits limits) {
        const auto icon = [](const std::string& app, const std::string&) {
            return app == "a" ? std::make_shared<const std::string>("picture") : nullptr;
        };
        auto started = WebServer::start(0, icon, limits);
        ASSERT_TRUE(started) << errorText(started.error());
        server = std::move(*started);
        const std::string address = server->address();
        port = static_cast<std::uint16_t>(std::stoi(address.substr(address.find(':', 5) + 1)));
        cookie = cookieOf({port, address.substr(address.find('=') + 1)});
        attendant = std::thread([this] { attend(); });
    }
    void attend() {
        for (bool goesOn = true; goesOn;) {
            const auto next = server->attend(WebServer::Clock::now());
            if (server->hasNewcomers()) {
                server->welcome("all\n");
            }
            if (const auto act = server->nextAct()) {
                server->answer(*act, 409, act->command + " " + act->app);
                continue;
            }
            pollfd awaited[] = {{server->descriptor(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
            const auto left =
                next ? std::chrono::ceil<std::chrono::milliseconds>(*next - WebServer::Clock::now()) : -1ms;
            (void)::poll(awaited, 2, next ? static_cast<int>(std::max(left, 0ms).count()) : -1);
            goesOn = awaited[1].revents == 0;
        }
    }
    void end() {
        if (attendant.joinable()) {
            ::eventfd_write(stop.get(), 1);
            attendant.join();
        }
        server.reset();
    }

    [[nodiscard]] Descriptor connected(int receiveBuffer = 0) const {
        Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (receiveBuffer != 0) {
            ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return socket;
    }
    static void send(const Descriptor& socket, const std::string& text) {
        (void)!::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    /// All that comes up to the end of the connection, or of this text.
    static std::string read(const Descriptor& socket, const std::string& until = {}) {
        std::string text;
        std::array<char, 4096> piece{};
        for (ssize_t length = 1; length > 0 && (until.empty() || text.find(until) == std::string::npos);) {
            length = ::recv(socket.get(), piece.data(), piece.size(), 0);
            text.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        }
        return text;
    }
    [[nodiscard]] std::string head(const std::string& line, const std::string& more = {}) const {
        return line + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n" + more;
    }
    [[nodiscard]] std::string get(const std::string& target) const {
        return head("GET " + target, "Cookie: " + cookie + "\r\n\r\n");
    }
    [[nodiscard]] std::string post(const std::string& path, const std::string& more, const std::string& body) const {
        return head("POST " + path, "Origin: http://127.0.0.1:" + std::to_string(port) + "\r\nCookie: " + cookie +
                                        "\r\nContent-Type: application/json\r\n" + more + "\r\n" + body);
    }
    [[nodiscard]] std::string asked(const std::string& request) const {
        const Descriptor socket = connected();
        send(socket, request);
        return read(socket);
    }
    static bool is(const std::string& answer, int status) {
        return answer.starts_with("HTTP/1.1 " + std::to_string(status) + " ");
    }
    [[nodiscard]] Descriptor watching(int receiveBuffer = 0) const {
        Descriptor socket = connected(receiveBuffer);
        send(socket, get("/events"));
        return socket;
    }

    std::unique_ptr<WebServer> server;
    std::uint16_t port = 0;
    std::string cookie;
    const Descriptor stop{::eventfd(0, EFD_CLOEXEC)};
    std::thread attendant;
};

TEST_F(WatchServer, GivesThePageToWhoEntersWithTheToken) {
    start({});
    const std::string address = server->address();
    const std::string entered = asked(head("GET " + address.substr(address.find("/?")), "\r\n"));
    EXPECT_TRUE(is(entered, 303)) << entered;
    EXPECT_NE(entered.find("\r\nLocation: /\r\n"), std::string::npos);
    EXPECT_NE(entered.find("\r\nSet-Cookie: " + cookie + "; HttpOnly; SameSite=Strict; Path=/\r\n"), std::string::npos);
    const std::string page = asked(get("/"));
    EXPECT_TRUE(is(page, 200)) << page;
    EXPECT_NE(page.find("<!DOCTYPE html>"), std::string::npos);
}

TEST_F(WatchServer, LetsInOnceByTheAddressForOnce) {
    start({.delay = 0ms});
    const std::string address = server->addressForOnce();
    const std::string request = head("GET " + address.substr(address.find("/?")), "\r\n");
    const std::string entered = asked(request);
    EXPECT_TRUE(is(entered, 303)) << entered;
    EXPECT_NE(entered.find("Set-Cookie: " + cookie), std::string::npos) << "it is not the token that others could see";
    EXPECT_TRUE(is(asked(request), 403));
}

TEST_F(WatchServer, LetsInNobodyByTheAddressForOnceWhenItsTimeIsOver) {
    start({.delay = 0ms, .once = 0ms});
    const std::string address = server->addressForOnce();
    EXPECT_TRUE(is(asked(head("GET " + address.substr(address.find("/?")), "\r\n")), 403));
}

TEST_F(WatchServer, SaysInEachAnswerWhatABrowserMayDoWithIt) {
    start({.delay = 0ms});
    for (const std::string& request : {get("/"), get("/events"), get("/none"), get("/icon?app=a&version=1"),
                                       head("GET /", "\r\n"), head("GET /", "Origin: http://example.org\r\n\r\n"),
                                       post("/cancel", "Content-Length: 11\r\n", R"({"app":"a"})"),
                                       post("/cancel", "Content-Length: 9999\r\n", ""), post("/", "", "")}) {
        const Descriptor socket = connected();
        send(socket, request);
        const std::string answer = read(socket, "\r\n\r\n");
        for (const char* header :
             {"Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
              "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n",
              "X-Content-Type-Options: nosniff\r\n", "Referrer-Policy: no-referrer\r\n",
              "Cross-Origin-Resource-Policy: same-origin\r\n"}) {
            EXPECT_NE(answer.find(header), std::string::npos) << header << request << answer;
        }
        const bool isIcon = answer.find("image/png") != std::string::npos;
        EXPECT_NE(
            answer.find(isIcon ? "Cache-Control: private, max-age=31536000, immutable" : "Cache-Control: no-store"),
            std::string::npos)
            << answer;
    }
}

TEST_F(WatchServer, RefusesWhoComesFromElsewhereOrKnowsNoToken) {
    start({.delay = 0ms});
    EXPECT_TRUE(is(asked(head("GET /", "\r\n")), 403)) << "no cookie";
    EXPECT_TRUE(is(asked(head("GET /?token=0123", "\r\n")), 403)) << "a wrong token";
    EXPECT_TRUE(is(asked(head("GET /", "Cookie: " + cookie + "\r\nOrigin: http://example.org\r\n\r\n")), 403));
    EXPECT_TRUE(is(asked("GET / HTTP/1.1\r\nHost: example.org\r\nCookie: " + cookie + "\r\n\r\n"), 403));
    EXPECT_TRUE(is(asked("GET / HTTP/1.1\r\nHost: example.org\r\n" + get("/").substr(get("/").find("Host"))), 403))
        << "two hosts";
    EXPECT_TRUE(is(asked(head("POST /cancel", "Cookie: " + cookie + "\r\nContent-Length: 0\r\n\r\n")), 403));
    EXPECT_TRUE(is(asked(get("/none")), 404));
    EXPECT_TRUE(is(asked(get("/icon?app=b&version=1")), 404));
    const std::string wrong = asked(get("/cancel"));
    EXPECT_TRUE(is(wrong, 405)) << wrong;
    EXPECT_NE(wrong.find("\r\nAllow: POST\r\n"), std::string::npos);
}

TEST_F(WatchServer, HandsActsToTheDeviceAndItsAnswerBack) {
    start({});
    const std::string answer = asked(post("/prioritize", "Content-Length: 11\r\n", R"({"app":"a"})"));
    EXPECT_TRUE(is(answer, 409)) << answer;
    EXPECT_TRUE(answer.ends_with("\r\n\r\nprioritize a")) << answer;
}

TEST_F(WatchServer, TakesNoLargeBody) {
    start({});
    EXPECT_TRUE(is(asked(post("/cancel", "Content-Length: 4097\r\n", "")), 413)) << "one that is announced";
    EXPECT_TRUE(is(asked(post("/cancel", "Content-Length: 99999999999999999999\r\n", "")), 413));
    const std::string pieces = "b\r\n{\"app\":\"a\"}\r\n0\r\n\r\n";
    EXPECT_TRUE(is(asked(post("/cancel", "Transfer-Encoding: chunked\r\n", pieces)), 413)) << "one in pieces";
    EXPECT_FALSE(is(asked(get("/" + std::string(100'000, 'x'))), 200)) << "nor a large head";
}

TEST_F(WatchServer, HangsUpOnHalfARequest) {
    start({.time = 50ms});
    const Descriptor silent = connected();
    const Descriptor half = connected();
    send(half, "GET / HTTP/1.1\r\nHost: ");
    const Descriptor body = connected();
    send(body, post("/cancel", "Content-Length: 100\r\n", "{"));
    EXPECT_EQ(read(silent), "");
    EXPECT_EQ(read(half), "");
    EXPECT_EQ(read(body), "");
}

TEST_F(WatchServer, HangsUpOnARequestWithoutEnd) {
    start({.time = 1h});
    const Descriptor socket = connected();
    send(socket, post("/cancel", "Transfer-Encoding: chunked\r\n", ""));
    while (::send(socket.get(), "1\r\nx\r\n", 6, MSG_NOSIGNAL) > 0) {
    }
}

TEST_F(WatchServer, TheNewestOfManyIsServed) {
    start({.time = 1h});
    std::vector<Descriptor> silent;
    for (int count = 0; count < 100; ++count) {
        silent.push_back(connected());
        send(silent.back(), "GET /");
    }
    EXPECT_TRUE(is(asked(get("/watch.css")), 200));
    EXPECT_EQ(read(silent.front()), "") << "the oldest has made room";
}

TEST_F(WatchServer, WhoKnowsNoTokenWaitsAndHoldsUpNobody) {
    start({.delayed = 2, .delay = 1h});
    std::vector<Descriptor> guessing;
    std::vector<pollfd> ends;
    for (int count = 0; count < 3; ++count) {
        guessing.push_back(connected());
        send(guessing.back(), head("GET /", "\r\n"));
        ends.push_back({guessing.back().get(), POLLIN, 0});
    }
    (void)::poll(ends.data(), ends.size(), -1); // two wait, and one is too many
    EXPECT_TRUE(is(asked(get("/")), 200));
    end();
    for (const Descriptor& socket : guessing) {
        EXPECT_EQ(read(socket), "");
    }
}

TEST_F(WatchServer, TellsAllWhoWatchTheSame) {
    start({});
    const Descriptor first = watching();
    EXPECT_NE(read(first, "all\n").find("Content-Type: text/event-stream"), std::string::npos);
    server->tell("one\n");
    EXPECT_NE(read(first, "one\n").find("one\n"), std::string::npos);
    const Descriptor second = watching();
    const std::string begin = read(second, "all\n");
    EXPECT_EQ(begin.find("one\n"), std::string::npos) << "it is part of all";
    server->tell("two\n");
    EXPECT_NE(read(first, "two\n").find("two\n"), std::string::npos);
    const std::string told = read(second, "two\n");
    EXPECT_NE(told.find("two\n"), std::string::npos);
    EXPECT_EQ(told.find("one\n"), std::string::npos) << told;
    end();
    EXPECT_EQ(read(first).find("o"), std::string::npos) << "hung up on, and nothing told twice";
}

TEST_F(WatchServer, MakesRoomForWhoWatchesInPlaceOfOneThatLeft) {
    start({.watchers = 2});
    const Descriptor first = watching();
    (void)read(first, "all\n");
    {
        const Descriptor second = watching();
        (void)read(second, "all\n");
        EXPECT_TRUE(is(asked(get("/events")), 503));
    }
    const Descriptor third = watching();
    EXPECT_NE(read(third, "all\n").find(" 200 "), std::string::npos);
}

TEST_F(WatchServer, DropsWhoDoesNotReadAndTellsTheOthers) {
    constexpr std::size_t size = 64U << 10;
    start({.backlog = 4 * size, .time = 1h});
    const Descriptor idle = watching(4096);
    const Descriptor reading = watching();
    (void)read(reading, "all\n");
    (void)read(idle, "all\n");
    const int count = 200; // more than the system keeps for a connection
    for (int number = 0; number < count; ++number) {
        const std::string end = "end " + std::to_string(number) + "\n";
        server->tell(std::string(size, 'x') + end);
        ASSERT_NE(read(reading, end).find(end), std::string::npos) << number;
    }
    EXPECT_LT(read(idle).size(), count * size / 2) << "hung up on";
}

} // namespace
} // namespace appsync::host
