#include "host/view/Bars.h"

#include "host/view/Table.h"
#include "text/Printable.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace appsync::host {

namespace {

constexpr std::size_t maxBars = 8;
constexpr std::size_t maxNameWidth = 24;
constexpr std::size_t shortNameWidth = 12; // to which names are cut before anything goes
constexpr std::size_t minBarWidth = 10;
constexpr std::size_t maxBarWidth = 40;
constexpr std::size_t percentWidth = 4; // "100%"
constexpr std::size_t bytesSpace = 19;  // "  999.9 of 999.9 MB"
constexpr std::size_t rateSpace = 12;   // "  999.9 MB/s"
constexpr std::size_t leftSpace = 14;   // "  23:59 h left"

/// Where everything stands, which is the same for all lines.
struct Layout {
    std::size_t columns;
    std::size_t name;
    std::size_t bar = 0;     // 0: none
    std::size_t details = 0; // the room behind the percentage

    [[nodiscard]] bool hasLeft() const { return details >= leftSpace; }
    [[nodiscard]] bool hasBytes() const { return details >= leftSpace + bytesSpace; }
    [[nodiscard]] bool hasRate() const { return details >= leftSpace + bytesSpace + rateSpace; }
};

std::string padded(const std::string& text, std::size_t width) {
    std::string out = fitted(text, width);
    return out.append(width - displayWidth(out), ' ');
}

std::string shownName(const AppStatus& app) {
    return printable(app.name, maxNameWidth);
}

std::string countText(const SyncStatus& status, std::size_t finished) {
    const std::size_t all = status.apps.size();
    return std::to_string(finished) + " of " + appCountText(all);
}

/// As wide as anything that stands there in the whole sync, so that the bars do not move.
std::size_t nameWidthOf(const SyncStatus& status) {
    std::size_t width = countText(status, status.apps.size()).size();
    for (const AppStatus& app : status.apps) {
        width = std::max(width, displayWidth(shownName(app)));
    }
    return std::min(width, maxNameWidth);
}

Layout layoutFor(const SyncStatus& status, const Window& window) {
    const std::size_t columns = std::max<std::size_t>(window.columns, 2) - 1; // the last one would begin a line
    const std::size_t name = nameWidthOf(status);
    constexpr std::size_t around = 3 + 1 + percentWidth; // " [" and "]", and the percentage
    for (const std::size_t details : {leftSpace + bytesSpace + rateSpace, leftSpace + bytesSpace, leftSpace, 0UL}) {
        if (columns >= std::min(name, shortNameWidth) + minBarWidth + around + details) {
            const std::size_t room = columns - around - details;
            const std::size_t shown = std::min(name, room - minBarWidth);
            return {columns, shown, std::min(room - shown, maxBarWidth), details};
        }
    }
    return {columns, std::min(name, columns - std::min(columns, percentWidth + 1))};
}

std::string barText(double fraction, std::size_t width) {
    const auto filled = static_cast<std::size_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(width));
    return " [" + std::string(filled, '#') + std::string(width - filled, '.') + "]";
}

std::string percentText(double fraction) {
    const std::string number = std::to_string(static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100)) + "%";
    return " " + std::string(percentWidth - number.size(), ' ') + number;
}

std::string detail(const std::string& text, std::size_t space) {
    return "  " + padded(text, space - 2);
}

std::string leftText(double bytes, double bytesPerSecond) {
    constexpr double day = 24 * 60 * 60;
    const double seconds = std::ceil(bytes / bytesPerSecond);
    if (!(seconds < day)) { // nor when nothing moves
        return "";
    }
    const auto whole = static_cast<int>(seconds);
    char text[32];
    if (whole < 3600) {
        std::snprintf(text, sizeof text, "%d:%02d left", whole / 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%d:%02d h left", whole / 3600, whole / 60 % 60);
    }
    return text;
}

std::string waitingText(const AppStatus& app, std::size_t columns) {
    const std::string nextTry = "; next try at " + clockText(app.nextTry);
    const std::string whole = "waiting: " + printable(app.reason) + nextTry;
    return displayWidth(whole) <= columns ? whole : "waiting" + nextTry;
}

Line lineOf(const AppStatus& app, const Layout& layout) {
    const std::string name = padded(shownName(app), layout.name);
    if (app.stage == AppStage::waiting) {
        const std::size_t room = layout.columns - std::min(layout.columns, layout.name + 1);
        return fittedLine({{name + " "}, {waitingText(app, room), Colour::yellow}}, layout.columns);
    }
    std::string text = name + (layout.bar != 0 ? barText(app.fraction, layout.bar) : "");
    if (app.stage == AppStage::installing) {
        constexpr std::string_view word = " installing";
        text += displayWidth(text) + word.size() <= layout.columns ? word : percentText(1);
    } else {
        text += percentText(app.fraction);
        text += layout.hasBytes() ? "  " + sizeText(app.sentBytes(), app.bytes) : "";
    }
    return fittedLine({{text}}, layout.columns);
}

Line lineOfAll(const SyncStatus& status, std::optional<double> bytesPerSecond, const Layout& layout) {
    const double fraction = status.fraction();
    const std::uint64_t bytes = status.bytes();
    const std::uint64_t sent = status.sentBytes();
    std::string text = padded(countText(status, status.finished()), layout.name);
    text += layout.bar != 0 ? barText(fraction, layout.bar) : "";
    text += percentText(fraction);
    text += layout.hasBytes() ? detail(sizeText(sent, bytes), bytesSpace) : "";
    const std::uint64_t left = status.bytesLeft();
    if (bytesPerSecond && left != 0) {
        const auto rate = static_cast<std::uint64_t>(*bytesPerSecond);
        text += layout.hasRate() ? detail(sizeText(rate) + "/s", rateSpace) : "";
        text += layout.hasLeft() ? detail(leftText(static_cast<double>(left), *bytesPerSecond), leftSpace) : "";
    }
    return fittedLine({{text}}, layout.columns);
}

/// In the order in which they were planned. The most important come from the front of the stages.
std::vector<const AppStatus*> shownApps(const SyncStatus& status, std::size_t count) {
    std::vector<const AppStatus*> shown;
    for (const AppStage stage : {AppStage::transferring, AppStage::installing, AppStage::waiting}) {
        for (const AppStatus& app : status.apps) {
            if (app.stage == stage && shown.size() < count) {
                shown.push_back(&app);
            }
        }
    }
    std::ranges::sort(shown); // they lie in one array
    return shown;
}

} // namespace

std::vector<Line> barLines(const SyncStatus& status, std::optional<double> bytesPerSecond, const Window& window) {
    const Layout layout = layoutFor(status, window);
    std::vector<Line> lines;
    const std::size_t room = window.rows - std::min<std::size_t>(window.rows, 1);
    for (const AppStatus* app : shownApps(status, std::min(maxBars, room))) {
        lines.push_back(lineOf(*app, layout));
    }
    lines.push_back(lineOfAll(status, bytesPerSecond, layout));
    return lines;
}

std::string durationText(std::chrono::duration<double> time) {
    const auto seconds = static_cast<std::int64_t>(time.count());
    char text[64];
    if (time < std::chrono::minutes(1)) {
        std::snprintf(text, sizeof text, "%.1f s", time.count());
        return text;
    }
    return seconds < 3600 ? std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s"
                          : std::to_string(seconds / 3600) + " h " + std::to_string(seconds / 60 % 60) + " min";
}

} // namespace appsync::host
