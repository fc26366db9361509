// What a browser may ask `qrd watch`, and what becomes of it: decided without a socket or a device.
//
// Whoever has an account on this machine can reach the port, and any page that is open in the browser can send requests
// to it. So a request must name this server as its host, come from one of its own pages, and know the token of this
// run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace appsync::host {

/// Bytes of a request's body.
inline constexpr std::size_t maxBodySize = 4096;

/// As it has come; nothing in it is trusted.
struct WebRequest {
    std::string method;
    std::string target; // path and query
    std::optional<std::string> host = {};
    std::optional<std::string> origin = {};
    std::optional<std::string> cookie = {};
    std::optional<std::string> contentType = {};
    bool isAmbiguous = false; // one of the headers above came twice
    std::string body = {};    // at most one byte more than `maxBodySize`
};

/// What a request must know.
struct Door {
    std::uint16_t port;
    std::string token;
    std::string once = {}; // a token that lets in one time; empty: none
};

enum class WebAct {
    refuse,      // it comes from elsewhere
    refuseLater, // it does not know the token
    enter,       // it does: `subject` is the cookie, and on to the page
    enterOnce,   // likewise, with the token that lets in one time
    page,        // `subject` is the path of a part of the page
    icon,        // of the app `subject`, in `version`
    events,
    prioritize, // the app `subject`
    cancel,     // likewise
    notFound,
    wrongMethod, // `subject` names the right one
    tooLarge,
    malformed, // the body
};

struct Ruling {
    WebAct act;
    std::string subject = {};
    std::string version = {};
};

[[nodiscard]] Ruling ruleOn(const WebRequest& request, const Door& door);

/// The cookie that lets in.
[[nodiscard]] std::string cookieOf(const Door& door);

/// Where an app's icon is found: the path with its query.
[[nodiscard]] std::string iconAddress(std::string_view app, std::string_view version);

} // namespace appsync::host
