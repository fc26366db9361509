// How `qrd` tells a person something: every line goes through here and is made printable as a whole
// (text/Printable.h), so that no name, path or reason in it can steer the terminal, break the line or hide what
// follows. `scripts/check-printing` holds that nothing else is printed. So it is with what is drawn over again on a
// terminal (host/view/Terminal.h): its colours and movements come from here alone.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::host {

/// Characters of a line; no reason for a person has more.
inline constexpr std::size_t maxLineLength = 4000;

void printLine(std::ostream& out, std::string_view line, std::size_t limit = maxLineLength);

/// A question; what is answered stands behind it on the line.
void printQuestion(std::ostream& out, std::string_view question);

/// For programs: exact, in ASCII. With `indent` on several lines, otherwise on one.
void printJson(std::ostream& out, const nlohmann::ordered_json& json, int indent = -1);

/// What `--json` asks for: nothing, one object at the end, or one a line for each event and the last for the end.
enum class JsonOutput { none, object, lines };

/// What programs are told first in every JSON object: the version of docs/json.schema.json.
inline constexpr int jsonVersion = 1;

/// On a line of its own, at once; the version goes before its fields.
void printEvent(std::ostream& out, const nlohmann::ordered_json& event);

/// Prints an object with a list that need not fit into memory, an element a line.
class JsonList {
  public:
    /// `out` and `name` must outlive the object.
    JsonList(std::ostream& out, std::string_view name) : _out(out), _name(name) {}

    void add(const nlohmann::ordered_json& element);
    /// The rest of the object; until then it is none.
    void end();

  private:
    void _begin();

    std::ostream& _out;
    const std::string_view _name;
    bool _hasBegun = false;
};

/// A piece of XML, cut between two characters. For a terminal what is not printable becomes a character reference,
/// which means the same.
void printXml(std::ostream& out, std::string_view piece, bool forTerminal);

enum class Colour { none, red, yellow, green };
/// A part of a line.
struct Piece {
    std::string text;
    Colour colour = Colour::none;
};
using Line = std::vector<Piece>;

/// Within so many columns, and without the blanks at its end.
[[nodiscard]] Line fittedLine(Line line, std::size_t columns);

/// On a terminal with colours, anywhere else without.
void printLine(std::ostream& out, const Line& line);

/// Draws lines on a terminal in place of those that it has drawn last. Each must fit in the window, and all of them.
/// The cursor stays on the first: wherever a window that becomes narrower wraps or cuts the lines, what is to be
/// erased is below it.
void drawLines(std::ostream& out, const std::vector<Line>& lines);
/// Takes what has been drawn off the terminal, and what is typed meanwhile, such as "^C".
void eraseLines(std::ostream& out);

} // namespace appsync::host
