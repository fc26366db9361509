#include "host/view/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace appsync::host {

namespace {

// For a signal's handler, which can reach nothing but globals.
std::atomic<bool> hasDrawing = false;
static_assert(std::atomic<bool>::is_always_lock_free);

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

std::size_t sizeFrom(unsigned short asked, const char* name, std::size_t otherwise) {
    if (asked != 0) {
        return asked;
    }
    constexpr std::size_t largest = 10'000;
    const std::string_view text = variable(name);
    std::size_t number = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isSize = problem == std::errc() && end == text.data() + text.size() && number != 0 && number <= largest;
    return isSize ? number : otherwise;
}

} // namespace

std::optional<int> terminalOf(const std::ostream& out) {
    const int descriptor = &out == &std::cout ? STDOUT_FILENO : &out == &std::cerr ? STDERR_FILENO : -1;
    const bool isUsable = descriptor >= 0 && !variable("TERM").empty() && variable("TERM") != "dumb" &&
                          variable("NO_COLOR").empty() && ::isatty(descriptor) != 0;
    return isUsable ? std::optional(descriptor) : std::nullopt;
}

Window windowOf(int terminal) {
    winsize asked{};
    (void)::ioctl(terminal, TIOCGWINSZ, &asked); // where it does not know, the size stays 0
    const Window usual;
    return {sizeFrom(asked.ws_col, "COLUMNS", usual.columns), sizeFrom(asked.ws_row, "LINES", usual.rows)};
}

void setDrawing(bool isDrawn) noexcept {
    hasDrawing = isDrawn;
}

void eraseDrawing() noexcept {
    if (hasDrawing) {
        const int before = errno;
        (void)!::write(STDOUT_FILENO, eraseFromCursor, sizeof eraseFromCursor - 1);
        errno = before;
    }
}

} // namespace appsync::host
