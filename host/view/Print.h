// How `qrd` tells a person something: every line goes through here and is made printable as a whole
// (text/Printable.h), so that no name, path or reason in it can steer the terminal, break the line or hide what
// follows. `scripts/check-printing` holds that nothing else is printed.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

namespace appsync::host {

/// Characters of a line; no reason for a person has more.
inline constexpr std::size_t maxLineLength = 4000;

void printLine(std::ostream& out, std::string_view line, std::size_t limit = maxLineLength);

/// A question; what is answered stands behind it on the line.
void printQuestion(std::ostream& out, std::string_view question);

/// For programs: exact, in ASCII. With `indent` on several lines, otherwise on one.
void printJson(std::ostream& out, const nlohmann::ordered_json& json, int indent = -1);

/// A piece of XML, cut between two characters. For a terminal what is not printable becomes a character reference,
/// which means the same.
void printXml(std::ostream& out, std::string_view piece, bool forTerminal);

/// Takes the last `count` lines off the terminal.
void eraseLines(std::ostream& out, std::size_t count);

} // namespace appsync::host
