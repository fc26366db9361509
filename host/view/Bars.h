// What a terminal shows of a sync at a moment: a bar for each app under way, and one for all.
#pragma once

#include "host/view/Print.h"
#include "host/view/SyncStatus.h"
#include "host/view/Terminal.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace appsync::host {

/// Lines that fit in the window, each within its width and all of them within its height. As the window gets narrower,
/// the rate, the bytes, the time left and the bars go in turn; a name and a percentage stay. Where there are more apps
/// than lines, those that are being sent are shown first.
[[nodiscard]] std::vector<Line> barLines(const SyncStatus& status, std::optional<double> bytesPerSecond,
                                         const Window& window);

/// "1.2 s", "3 min 20 s", "2 h 5 min".
[[nodiscard]] std::string durationText(std::chrono::duration<double> time);

} // namespace appsync::host
