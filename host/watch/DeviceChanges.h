// Notices by the system's own reports (inotify) that files of a device have changed.
#pragma once

#include "files/Descriptor.h"

#include <array>
#include <cstdint>

namespace appsync::device {
class DeviceFileSystem;
}

namespace appsync::host {

/// One thread.
class DeviceChanges {
  public:
    struct Seen {
        bool database = false;
        bool owner = false; // somebody has opened or closed the device
        bool log = false;
        bool processes = false; // an app was launched, or has become busy
        bool control = false;   // a sync can be asked from now on, or no longer
        bool isGone = false;    // the folder was moved or removed
    };

    /// `files` must outlive the object.
    explicit DeviceChanges(device::DeviceFileSystem& files);

    /// The number of the system's error if it reports no changes of some place that is there; zero.
    [[nodiscard]] int problem() const noexcept { return _problem; }
    /// Becomes readable when something has changed.
    [[nodiscard]] int descriptor() const noexcept { return _reports.get(); }
    /// What has changed since the last call; at first everything.
    [[nodiscard]] Seen take();

  private:
    struct Place {
        const char* path;
        std::uint32_t mask;
        bool Seen::*what;
        int number = -1; // of the watch
    };
    [[nodiscard]] Seen _watch();

    device::DeviceFileSystem& _files;
    const Descriptor _reports;
    int _problem = 0;
    std::array<Place, 6> _places;
    Seen _found; // that has come to be watched since the last call of `take`
};

} // namespace appsync::host
