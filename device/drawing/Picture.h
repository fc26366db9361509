// A picture of the home screen as a person would see it.
#pragma once

#include "platform/Icons.h"

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace appsync::device {

struct ScreenIcon {
    std::string name;            // shown beneath; shortened when it is too long
    std::shared_ptr<Image> icon; // from `DeviceIconRenderer`; null draws a tile with the name's first letter
    bool isPlaceholder = false;  // dimmed, with a ring that shows the progress
    double progress = 0;         // of a placeholder or an update, 0 to 1
    bool isUpdating = false;     // an installed app with an install under way: a ring, not dimmed
    bool isDemoted = false;      // a placeholder that waits for nothing: pale, with an arrow and no ring
};

struct ScreenFolder {
    std::string name;
    std::vector<ScreenIcon> icons; // the first nine are shown
};

using ScreenPlace = std::variant<ScreenIcon, ScreenFolder>;
using ScreenPage = std::vector<ScreenPlace>;

struct ScreenContents {
    std::vector<ScreenPage> pages;
    bool isSyncing = false; // "Syncing…" in the status line
};

// One screen in pixels; a picture of several has them side by side.
inline constexpr int screenWidth = 750;
inline constexpr int screenHeight = 1334;
inline constexpr int screenGap = 40;
inline constexpr std::size_t placesPerScreen = 24;
/// Screens beyond these are left out, so that the picture stays within what viewers open.
inline constexpr std::size_t maxScreens = 12;

struct HomeScreenPicture {
    Data png;
    std::vector<std::string> unknownNames; // with characters that no font of the machine has; boxes stand for them
};

/// Nullopt when memory does not suffice. A page with more places than fit goes on on the next screen. Names are
/// untrusted: what is no UTF-8 shows as a replacement character.
[[nodiscard]] std::optional<HomeScreenPicture> drawHomeScreen(const ScreenContents& contents);

} // namespace appsync::device
