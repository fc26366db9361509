// The terminal that is printed to, if it is one.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <optional>

namespace appsync::host {

/// The size of a terminal's window, in characters.
struct Window {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// What is drawn over, and has colours: nullopt for a stream that is no terminal's, and where the environment says that
/// the terminal is none for this (TERM=dumb, or no TERM) or that it is not wanted (NO_COLOR).
[[nodiscard]] std::optional<int> terminalOf(const std::ostream& out);

/// The window's size now. What the terminal does not say comes from the environment (COLUMNS, LINES).
[[nodiscard]] Window windowOf(int terminal);

/// Before a signal ends the process at once (host/control/Interrupt.h) it has to take off the terminal of the standard
/// output what is drawn there. `eraseDrawing` may be called by a signal's handler.
void setDrawing(bool isDrawn) noexcept;
void eraseDrawing() noexcept;

/// What that takes: everything from the cursor's line on.
inline constexpr char eraseFromCursor[] = "\r\x1b[J";

} // namespace appsync::host
