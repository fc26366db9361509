#include "host/watch/IconShelf.h"

#include "device/drawing/CairoImage.h"
#include "device/root/DeviceFileSystem.h"
#include "device/screen/AppBundles.h"

namespace appsync::host {

namespace {

/// At most 60 kB each.
constexpr std::size_t maxDrawn = 500;

} // namespace

void IconShelf::offer(std::map<IconKey, std::string> paths) {
    const Lock lock(_mutex);
    _paths = std::move(paths);
}

std::shared_ptr<const std::string> IconShelf::png(const IconKey& key) {
    std::string path;
    {
        const Lock lock(_mutex);
        const auto offered = _paths.find(key);
        if (offered == _paths.end()) {
            return nullptr;
        }
        if (const auto drawn = _drawn.find(key); drawn != _drawn.end()) {
            return drawn->second;
        }
        path = offered->second;
    }
    const auto image =
        std::dynamic_pointer_cast<device::CairoImage>(device::DeviceIconRenderer(_files).iconFromFile(path));
    const auto bytes = image ? device::pngFromSurface(image->surface()) : std::nullopt;
    auto png = bytes ? std::make_shared<const std::string>(bytes->bytes()) : nullptr;
    const Lock lock(_mutex);
    if (png && _drawn.insert_or_assign(key, png).second) { // what failed may be drawn another time
        _order.push_back(key);
    }
    if (_order.size() > maxDrawn) {
        _drawn.erase(_order.front());
        _order.pop_front();
    }
    return png;
}

} // namespace appsync::host
