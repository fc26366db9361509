// How long it takes until a change that a sync makes is on a page that watches the device.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace appsync::bench {

/// What has come from somewhere, each piece with the moment at which it was read.
using Heard = std::vector<std::pair<std::chrono::system_clock::time_point, std::string>>;

/// In milliseconds, of each change that a page is to show.
struct Lags {
    std::vector<double> placeholders; // that the sync has made
    std::vector<double> stages;       // of the sync with an app: how far it is
    std::vector<double> installed;    // apps that have become installed ones
    std::vector<double> logged;       // messages

    [[nodiscard]] std::vector<double> all() const;
};

/// `sync` is what `qrd sync --json=lines` has printed, `page` the events that a page got meanwhile. What the page has
/// never shown counts as an hour.
[[nodiscard]] Lags lagsOf(const Heard& sync, const Heard& page);

} // namespace appsync::bench
