// Texts from outside, fit to be shown: names from files, reasons that quote them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace appsync {

/// False for what would steer a terminal, cannot be seen or changes the order of what is shown: control characters,
/// separators of lines and paragraphs, marks of direction and other invisible format characters (but for the two that
/// join letters and pictures), and values that are no characters.
[[nodiscard]] bool isPrintable(char32_t character) noexcept;

/// The first `limit` characters of the text on one line, and "…" when there are more. Valid UTF-8 of printable
/// characters: a blank stands for what separates words or lines, U+FFFD for anything else that is not printable and for
/// each byte that is not UTF-8. `limit` is not 0.
[[nodiscard]] std::string printable(std::string_view text, std::size_t limit = 200);

/// The columns that a printable text takes on a terminal: two for a wide character, none for one that combines with
/// that before it.
[[nodiscard]] std::size_t displayWidth(std::string_view text) noexcept;

/// As much of the front of a printable text as takes at most so many columns. Nothing is cut in two that is seen as one
/// character.
[[nodiscard]] std::string_view frontOf(std::string_view text, std::size_t columns) noexcept;

/// The printable text if it takes at most so many columns, otherwise as much of it as fits before a "…". Empty when
/// there is no column.
[[nodiscard]] std::string fitted(std::string_view text, std::size_t columns);

/// The character at the front of a text that is not empty, and the text goes on behind it. Of broken UTF-8 each byte is
/// U+FFFD.
[[nodiscard]] char32_t takeCharacter(std::string_view& text) noexcept;

} // namespace appsync
