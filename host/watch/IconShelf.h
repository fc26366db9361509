// The icons of a device's apps as PNG, drawn when they are first asked for.
#pragma once

#include "concurrency/Mutex.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace appsync::device {
class DeviceFileSystem;
}

namespace appsync::host {

/// An app, and which of its icons: one that never changes.
struct IconKey {
    std::string app;
    std::string version;
    friend bool operator<(const IconKey& one, const IconKey& other) {
        return std::tie(one.app, one.version) < std::tie(other.app, other.version);
    }
};

/// Any thread.
class IconShelf {
  public:
    /// `files` must outlive the shelf.
    explicit IconShelf(device::DeviceFileSystem& files) : _files(files) {}

    /// Which icons there are, each with the path of its file.
    void offer(std::map<IconKey, std::string> paths);
    /// Null when there is no such icon, or it cannot be drawn.
    [[nodiscard]] std::shared_ptr<const std::string> png(const IconKey& key);

  private:
    device::DeviceFileSystem& _files;
    Mutex _mutex;
    std::map<IconKey, std::string> _paths GUARDED_BY(_mutex);
    std::map<IconKey, std::shared_ptr<const std::string>> _drawn GUARDED_BY(_mutex);
    std::deque<IconKey> _order GUARDED_BY(_mutex); // of the drawn ones, the oldest first
};

} // namespace appsync::host
