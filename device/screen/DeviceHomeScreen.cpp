#include "device/screen/DeviceHomeScreen.h"

#include "device/database/Database.h"
#include "device/registry/Registry.h"
#include "device/screen/AppBundles.h"
#include "device/screen/RunningApps.h"
#include "device/services/Notifications.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Log.h"

#include <algorithm>
#include <map>
#include <new>
#include <unordered_set>

namespace appsync::device {

namespace {

constexpr std::string_view schema[] = {"CREATE TABLE homeScreen (name TEXT PRIMARY KEY, value BLOB) WITHOUT ROWID;"};

class TerminationAssertion final : public SKSApplicationTerminationAssertion {
  public:
    TerminationAssertion(RunningApps& apps, std::string_view identifier) : _apps(apps), _identifier(identifier) {}
    ~TerminationAssertion() override { _apps.letGo(_identifier); }

  private:
    RunningApps& _apps;
    const std::string _identifier;
};

ScreenIcon iconOf(const Application& application, DeviceIconRenderer& renderer) {
    ScreenIcon icon;
    icon.name = application.name;
    icon.icon = application.iconPath ? renderer.iconFromFile(*application.iconPath) : nullptr;
    icon.isPlaceholder = application.isPlaceholder && !application.isInstalled;
    icon.isUpdating = application.isPlaceholder && application.isInstalled;
    icon.isDemoted = application.isDemoted() && !application.progress;
    icon.progress = application.progress.value_or(0);
    return icon;
}

} // namespace

Result<std::unique_ptr<DeviceHomeScreen>> DeviceHomeScreen::open(const HomeScreenServices& services) {
    if (const auto registered = services.database.registerSchema("homeScreen", schema); !registered) {
        return registered.error();
    }
    std::unique_ptr<DeviceHomeScreen> screen(new DeviceHomeScreen(services));
    if (const auto loaded = screen->_load(); !loaded) {
        return loaded.error();
    }
    return screen;
}

Result<void> DeviceHomeScreen::_load() {
    std::optional<Data> bytes;
    const auto keep = [&](const Database::Rows& row) { row.read(bytes); };
    if (auto read = _services.database.read(keep, "SELECT value FROM homeScreen WHERE name = 'layout'"); !read) {
        return read;
    }
    const auto root = bytes ? _services.propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
    if (auto layout = IconLayout::fromPropertyList(root.value_or(Value(Array()))); layout) {
        const Lock lock(_mutex);
        _layout = std::move(*layout);
    }
    return {};
}

SKPort DeviceHomeScreen::SKSSkellanBlockableServerPort() noexcept {
    return onlyPort;
}

void DeviceHomeScreen::SKSetIconState(SKPort port, std::string_view iconState) noexcept {
    if (port != onlyPort) {
        return _reject("it was sent to port " + std::to_string(port));
    }
    ErrorPtr error;
    const auto root = _services.propertyLists.propertyListWithData(iconState, &error);
    if (!root) {
        return _reject("it is no property list: " + errorText(error));
    }
    auto layout = IconLayout::fromPropertyList(*root);
    if (!layout) {
        return _reject(errorText(layout.error()));
    }
    if (const auto arranged = arrange(std::move(*layout)); !arranged) {
        _reject(errorText(arranged.error()));
    }
}

void DeviceHomeScreen::_reject(const std::string& problem) {
    constexpr std::string_view format = "the icon layout of the desktop was not applied: %{public}@";
    if (_services.log.isEnabled(QRLogCategoryFramework, LogLevel::error)) {
        _services.log.write(QRLogCategoryFramework, LogLevel::error, format,
                            "the icon layout of the desktop was not applied: " + problem);
    }
}

Result<void> DeviceHomeScreen::arrange(IconLayout layout) {
    ErrorPtr error;
    const auto bytes =
        _services.propertyLists.dataWithPropertyList(layout.propertyList(), PropertyListFormat::binary, &error);
    if (!bytes) {
        return error;
    }
    const Lock lock(_mutex);
    auto written =
        _services.database.run(Durability::ordinary, "INSERT OR REPLACE INTO homeScreen VALUES ('layout', ?1)", *bytes);
    if (written) {
        _layout = std::move(layout);
    }
    return written;
}

void DeviceHomeScreen::SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                               std::size_t* length) noexcept {
    *buffer = nullptr;
    *length = 0;
    if (port != onlyPort || format != binaryFormat) {
        return;
    }
    const IdentifierList order = flattenedOrder();
    const auto bytes = _services.propertyLists.dataWithPropertyList(Array(order.begin(), order.end()),
                                                                    PropertyListFormat::binary, nullptr);
    if (auto* copy = bytes ? new (std::nothrow) char[bytes->size()] : nullptr; copy) {
        std::copy(bytes->bytes().begin(), bytes->bytes().end(), copy);
        *buffer = copy;
        *length = bytes->size();
    }
}

void DeviceHomeScreen::SKDeallocate(const char* buffer, std::size_t /*length*/) noexcept {
    delete[] buffer;
}

std::shared_ptr<SKSApplicationTerminationAssertion> DeviceHomeScreen::SKSApplicationTerminationAssertionCreateWithError(
    std::string_view bundleIdentifier, std::uint32_t /*reason*/, std::uint8_t* errorCode) noexcept {
    const auto answer = _services.runningApps.endAndHold(bundleIdentifier);
    if (errorCode) {
        *errorCode = answer == RunningApps::Answer::ended  ? SKSTerminationAssertionGranted
                     : answer == RunningApps::Answer::busy ? SKSTerminationAssertionDenied
                                                           : SKSTerminationAssertionNotFound;
    }
    if (answer != RunningApps::Answer::ended) {
        return nullptr;
    }
    return std::make_shared<TerminationAssertion>(_services.runningApps, bundleIdentifier);
}

IconLayout DeviceHomeScreen::layout() const {
    const Lock lock(_mutex);
    return _layout;
}

IdentifierList DeviceHomeScreen::flattenedOrder() const {
    IdentifierList order = layout().flattened();
    const std::unordered_set<std::string> placed(order.begin(), order.end());
    for (const Application& application : _services.registry.applications()) {
        if (!placed.contains(application.identifier)) {
            order.push_back(application.identifier);
        }
    }
    return order;
}

bool DeviceHomeScreen::isSyncing() const {
    return _services.notifications.state(syncNoticeName) != 0;
}

ScreenContents DeviceHomeScreen::contents() const {
    IdentifierList identifiers;
    std::map<std::string, Application> applications;
    for (Application& application : _services.registry.applications()) {
        identifiers.push_back(application.identifier);
        applications.emplace(application.identifier, std::move(application));
    }
    const auto iconFor = [&](const std::string& identifier) {
        return iconOf(applications.at(identifier), _services.icons);
    };
    ScreenContents contents;
    contents.isSyncing = isSyncing();
    for (const IconPage& page : layout().showing(identifiers).pages) {
        ScreenPage& shown = contents.pages.emplace_back();
        for (const IconPlace& place : page) {
            if (const auto* identifier = std::get_if<std::string>(&place)) {
                shown.emplace_back(iconFor(*identifier));
                continue;
            }
            const auto& folder = std::get<IconFolder>(place);
            ScreenFolder& shownFolder =
                std::get<ScreenFolder>(shown.emplace_back(ScreenFolder{folder.displayName, {}}));
            for (const IdentifierList& inner : folder.pages) {
                std::transform(inner.begin(), inner.end(), std::back_inserter(shownFolder.icons), iconFor);
            }
        }
    }
    return contents;
}

} // namespace appsync::device
