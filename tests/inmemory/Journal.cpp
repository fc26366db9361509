#include "tests/inmemory/Journal.h"

#include <algorithm>
#include <utility>

namespace appsync::inmemory {

namespace {

auto beginsWith(std::string_view prefix) {
    return [prefix](const std::string& line) { return line.starts_with(prefix); };
}

} // namespace

void Journal::add(std::string line) {
    if (!_records) {
        return;
    }
    std::function<void()> task;
    {
        const std::lock_guard lock(_mutex);
        const auto planned =
            std::ranges::find_if(_tasks, [&](const auto& entry) { return line.starts_with(entry.first); });
        if (planned != _tasks.end()) {
            task = std::move(planned->second);
            _tasks.erase(planned);
        }
        _lines.push_back(std::move(line));
        _added.notify_all();
    }
    if (task) {
        task();
    }
}

void Journal::whenAdded(std::string prefix, std::function<void()> task) {
    const std::lock_guard lock(_mutex);
    _tasks.emplace_back(std::move(prefix), std::move(task));
}

std::vector<std::string> Journal::take() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_lines, {});
}

std::vector<std::string> Journal::lines() const {
    const std::lock_guard lock(_mutex);
    return _lines;
}

std::vector<std::string> Journal::linesWith(std::string_view prefix) const {
    const std::lock_guard lock(_mutex);
    std::vector<std::string> found;
    std::ranges::copy_if(_lines, std::back_inserter(found), beginsWith(prefix));
    return found;
}

std::size_t Journal::count(std::string_view line) const {
    const std::lock_guard lock(_mutex);
    return static_cast<std::size_t>(std::ranges::count(_lines, line));
}

void Journal::waitFor(std::string_view prefix, std::size_t times) const {
    std::unique_lock lock(_mutex);
    _added.wait(lock,
                [&] { return static_cast<std::size_t>(std::ranges::count_if(_lines, beginsWith(prefix))) >= times; });
}

} // namespace appsync::inmemory
