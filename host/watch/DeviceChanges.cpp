#include "host/watch/DeviceChanges.h"

#include "device/root/DeviceFileSystem.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <cerrno>
#include <string>
#include <utility>

namespace appsync::host {

namespace {

constexpr std::uint32_t content = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE;
constexpr std::uint32_t goes = IN_MOVE_SELF | IN_DELETE_SELF;

} // namespace

DeviceChanges::DeviceChanges(device::DeviceFileSystem& files)
    : _files(files), _reports(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      _problem(_reports.isOpen() ? 0 : errno), _places{{{"/", goes, &Seen::isGone},
                                                        {"/device-lock", IN_MODIFY | IN_CLOSE_WRITE | goes,
                                                         &Seen::owner},
                                                        {"/var/db", content, &Seen::database},
                                                        {"/var/log", content, &Seen::log},
                                                        {"/var/run/apps", content, &Seen::processes},
                                                        {"/var/run/control", content, &Seen::control}}},
      _found(_watch()) {}

/// Each of them as far as it is there; the others are made by commands that open the device, and are found then with
/// what is in them already.
DeviceChanges::Seen DeviceChanges::_watch() {
    Seen found;
    if (!_reports.isOpen()) {
        return found;
    }
    for (Place& place : _places) {
        if (const auto opened = _files.open(place.path, O_PATH | O_NOFOLLOW); opened) {
            const std::string path = "/proc/self/fd/" + std::to_string(opened->get());
            const int before =
                std::exchange(place.number, ::inotify_add_watch(_reports.get(), path.c_str(), place.mask));
            _problem = place.number < 0 ? errno : _problem;
            found.*place.what = found.*place.what || before != place.number;
        }
    }
    found.isGone = false;
    return found;
}

DeviceChanges::Seen DeviceChanges::take() {
    Seen seen = std::exchange(_found, Seen());
    alignas(inotify_event) std::array<char, 16U << 10> piece{};
    for (ssize_t length = 0; (length = ::read(_reports.get(), piece.data(), piece.size())) > 0;) {
        for (ssize_t at = 0; at < length;) {
            const auto* report = reinterpret_cast<const inotify_event*>(piece.data() + at);
            for (const Place& place : _places) {
                const bool isAll = (report->mask & IN_Q_OVERFLOW) != 0 && place.what != &Seen::isGone;
                seen.*place.what = seen.*place.what || isAll || report->wd == place.number;
            }
            seen.isGone = seen.isGone || (report->mask & goes) != 0;
            at += static_cast<ssize_t>(sizeof(inotify_event) + report->len);
        }
    }
    if (seen.owner) {
        const Seen found = _watch();
        for (const Place& place : _places) {
            seen.*place.what = seen.*place.what || found.*place.what;
        }
    }
    return seen;
}

} // namespace appsync::host
