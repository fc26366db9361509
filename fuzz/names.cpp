// Any bytes as an app's identifier, name and reason: what is printed is harmless to a terminal and of bounded length,
// and the home screen can be drawn.
#include "device/drawing/CairoImage.h"
#include "device/drawing/Picture.h"
#include "device/drawing/ScreenText.h"
#include "fuzz/Fuzz.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "propertylist/Utf.h"
#include "text/Printable.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>

using appsync::fuzz::expect;

namespace {

bool isAnyOf(char32_t c, std::initializer_list<std::pair<char32_t, char32_t>> ranges) {
    return std::ranges::any_of(ranges, [&](const auto& range) { return c >= range.first && c <= range.second; });
}

/// Said once more, and otherwise than by the code under test: what must not reach a terminal, line ends apart.
bool isHarmful(char32_t c) {
    return c != '\n' && isAnyOf(c, {{0, 0x1F},
                                    {0x7F, 0x9F},
                                    {0x61C, 0x61C},
                                    {0x200E, 0x200F},
                                    {0x2028, 0x202E},
                                    {0x2066, 0x2069},
                                    {0xD800, 0xDFFF},
                                    {0xFDD0, 0xFDEF},
                                    {0xFFFE, 0xFFFF}});
}

void expectHarmless(const std::string& printed, std::size_t lines) {
    expect(appsync::propertylist::isUtf8(printed), "it is valid UTF-8");
    for (std::string_view rest = printed; !rest.empty();) {
        expect(!isHarmful(appsync::takeCharacter(rest)), "nothing in it steers a terminal");
    }
    expect(static_cast<std::size_t>(std::ranges::count(printed, '\n')) == lines, "it has as many lines as it should");
    expect(printed.size() <= lines * 4 * (appsync::host::maxLineLength + 200), "its length is bounded");
}

/// With what draws the home screen's labels; the whole of it takes too long.
void expectDrawable(const std::string& text) {
    namespace device = appsync::device;
    const device::CairoSurface surface = device::makeSurface(200, 40);
    const device::CairoContext context(cairo_create(surface.get()));
    const device::ScreenText drawn(context.get());
    (void)drawn.show(text, {22, false}, 100, 20, 100);
    (void)drawn.show(device::firstLetter(text), {22, true}, 100, 20, 100);
    expect(cairo_status(context.get()) == CAIRO_STATUS_SUCCESS, "the home screen can be drawn");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    namespace host = appsync::host;
    const std::string text(appsync::fuzz::text(bytes, size));
    host::SyncReport report;
    report.apps = {{text, text, text, host::AppResult::failed, text}, {"a", "b", {}, host::AppResult::installed, text}};
    report.problems = {text};
    report.deleted = {text};
    std::ostringstream out;
    printTable(out, report);
    printNotes(out, report);
    expectHarmless(out.str(), 5);
    out.str("");
    host::printJson(out, toJson(report), 2);
    expect(std::ranges::all_of(out.str(), [](char c) { return c == '\n' || (c >= ' ' && c < 0x7F); }), "JSON is ASCII");
    const auto json = nlohmann::json::parse(out.str());
    if (appsync::propertylist::isUtf8(text)) {
        expect(json["apps"][0]["name"] == text, "JSON is exact");
    }
    expectDrawable(text);
    return 0;
}
