#include "device/registry/ApplicationProxy.h"

namespace appsync::device {

std::optional<FileURL> ApplicationProxy::bundleURL() noexcept {
    return FileURL::fileURLWithPath(_record->bundlePath(), true);
}

std::optional<FileURL> ApplicationProxy::bundleContainerURL() noexcept {
    return FileURL::fileURLWithPath(_record->containerPath(), true);
}

FNProgressPtr ApplicationProxy::installProgressSync() noexcept {
    return _table.findProgress(_record->identifier);
}

std::string ApplicationProxy::description() noexcept {
    return std::string(_record->isPlaceholder ? "<placeholder " : "<application ") + _record->identifier + ">";
}

} // namespace appsync::device
