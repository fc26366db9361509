#include "host/watch/WebRequest.h"

#include "host/watch/Page.h"

#include <nlohmann/json.hpp>

#include <array>
#include <charconv>

namespace appsync::host {

namespace {

constexpr std::string_view cookieName = "qrd-";

/// In a time that does not tell how much of it is right.
bool isToken(std::string_view given, std::string_view token) {
    unsigned difference = given.size() == token.size() ? 0U : 1U;
    for (std::size_t place = 0; place < token.size(); ++place) {
        const char other = place < given.size() ? given[place] : '\0';
        difference |= static_cast<unsigned char>(other) ^ static_cast<unsigned char>(token[place]);
    }
    return difference == 0;
}

/// Cuts a text at the first of these characters, which belongs to neither part.
std::pair<std::string_view, std::string_view> cutAt(std::string_view text, char character) {
    const auto place = text.find(character);
    return place == std::string_view::npos ? std::pair(text, std::string_view())
                                           : std::pair(text.substr(0, place), text.substr(place + 1));
}

/// Without the escapes "%20"; nullopt when one is none.
std::optional<std::string> unescaped(std::string_view text) {
    std::string out;
    for (std::size_t place = 0; place < text.size(); ++place) {
        if (text[place] != '%') {
            out += text[place];
            continue;
        }
        unsigned byte = 0;
        const std::string_view digits = text.substr(place + 1, 2);
        const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (digits.size() != 2 || end.ptr != digits.data() + digits.size()) {
            return std::nullopt;
        }
        out += static_cast<char>(byte);
        place += 2;
    }
    return out;
}

std::string escaped(std::string_view text) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~";
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string out;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        out += plain.find(character) != std::string_view::npos ? std::string(1, character)
                                                               : std::string{'%', digits[byte >> 4], digits[byte & 15]};
    }
    return out;
}

/// A value of the query; nullopt when there is none.
std::optional<std::string> valueIn(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const auto [field, rest] = cutAt(query, '&');
        if (const auto [key, value] = cutAt(field, '='); key == name) {
            return unescaped(value);
        }
        query = rest;
    }
    return std::nullopt;
}

/// Whether one of the cookies lets in.
bool hasCookie(std::string_view cookies, const Door& door) {
    bool found = false;
    while (!cookies.empty()) {
        auto [cookie, rest] = cutAt(cookies, ';');
        cookie.remove_prefix(std::min(cookie.find_first_not_of(' '), cookie.size()));
        const auto [name, value] = cutAt(cookie, '=');
        found = found || (name == std::string(cookieName) + std::to_string(door.port) && isToken(value, door.token));
        cookies = rest;
    }
    return found;
}

/// Whether it was meant for this server, and sent by one of its pages or by the person.
bool isFromHere(const WebRequest& request, const Door& door) {
    const std::string host = "127.0.0.1:" + std::to_string(door.port);
    if (request.isAmbiguous || request.host != host) {
        return false;
    }
    return request.origin ? *request.origin == "http://" + host : request.method != "POST";
}

Ruling ruleOnAct(WebAct act, const WebRequest& request) {
    const std::string type(cutAt(request.contentType.value_or(""), ';').first);
    const auto root = nlohmann::json::parse(request.body, nullptr, false);
    const auto app = root.is_object() ? root.find("app") : root.end();
    if (type != "application/json" || app == root.end() || !app->is_string() || app->get<std::string>().empty()) {
        return {WebAct::malformed};
    }
    return {act, app->get<std::string>()};
}

Ruling ruleOnIcon(std::string_view query) {
    const auto app = valueIn(query, "app");
    const auto version = valueIn(query, "version");
    return app && version ? Ruling{WebAct::icon, *app, *version} : Ruling{WebAct::notFound};
}

} // namespace

std::string cookieOf(const Door& door) {
    return std::string(cookieName) + std::to_string(door.port) + "=" + door.token;
}

std::string iconAddress(std::string_view app, std::string_view version) {
    return "/icon?app=" + escaped(app) + "&version=" + escaped(version);
}

Ruling ruleOn(const WebRequest& request, const Door& door) {
    const bool isGet = request.method == "GET";
    const auto [path, query] = cutAt(request.target, '?');
    if (!isFromHere(request, door)) {
        return {WebAct::refuse};
    }
    if (request.body.size() > maxBodySize) {
        return {WebAct::tooLarge};
    }
    if (const auto token = isGet && path == "/" ? valueIn(query, "token") : std::nullopt) {
        const bool isOnce = !door.once.empty() && isToken(*token, door.once);
        const bool isKnown = isToken(*token, door.token);
        return isOnce || isKnown ? Ruling{isKnown ? WebAct::enter : WebAct::enterOnce, cookieOf(door)}
                                 : Ruling{WebAct::refuseLater};
    }
    if (!hasCookie(request.cookie.value_or(""), door)) {
        return {WebAct::refuseLater};
    }
    const bool isAct = path == "/prioritize" || path == "/cancel";
    const bool isPage = findPagePart(path) != nullptr;
    if (!isAct && !isPage && path != "/icon" && path != "/events") {
        return {WebAct::notFound};
    }
    if (isAct ? request.method != "POST" : !isGet) {
        return {WebAct::wrongMethod, isAct ? "POST" : "GET"};
    }
    if (isAct) {
        return ruleOnAct(path == "/cancel" ? WebAct::cancel : WebAct::prioritize, request);
    }
    if (path == "/icon") {
        return ruleOnIcon(query);
    }
    return isPage ? Ruling{WebAct::page, std::string(path)} : Ruling{WebAct::events};
}

} // namespace appsync::host
