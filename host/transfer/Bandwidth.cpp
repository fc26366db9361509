#include "host/transfer/Bandwidth.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace appsync::host {

std::optional<std::uint64_t> parseBandwidth(std::string_view text) {
    if (text.ends_with("/s")) {
        text.remove_suffix(2);
    }
    double number = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (problem != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (text.starts_with(' ')) {
        text.remove_prefix(1);
    }
    constexpr std::array<std::pair<std::string_view, double>, 5> units{
        {{"B", 1}, {"kB", 1e3}, {"KB", 1e3}, {"MB", 1e6}, {"GB", 1e9}}};
    const auto unit = std::ranges::find(units, text, [](const auto& one) { return one.first; });
    constexpr double largest = 1e15;
    if (unit == units.end() || !(number * unit->second >= 1 && number * unit->second <= largest)) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(number * unit->second);
}

std::size_t Bandwidth::pieceSize(std::size_t largest) const {
    constexpr std::uint64_t piecesPerSecond = 20;
    return static_cast<std::size_t>(std::clamp<std::uint64_t>(_bytesPerSecond / piecesPerSecond, 1, largest));
}

void Bandwidth::sent(std::size_t bytes) {
    const auto now = _now();
    const std::chrono::duration<double> carrying(static_cast<double>(bytes) / static_cast<double>(_bytesPerSecond));
    _free = std::max(_free.value_or(now), now) + std::chrono::duration_cast<Clock::duration>(carrying);
    if (*_free > now) {
        _wait(*_free - now);
    }
}

} // namespace appsync::host
