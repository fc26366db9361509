// The home screen: the icons' layout, kept in the database, and what there is to see.
#pragma once

#include "concurrency/Mutex.h"
#include "device/drawing/Picture.h"
#include "device/screen/IconLayout.h"
#include "platform/HomeScreen.h"
#include "values/Result.h"

#include <memory>
#include <string_view>

namespace appsync {
class HostLog;
class PropertyListSerialization;
} // namespace appsync

namespace appsync::device {

class Database;
class DeviceIconRenderer;
class NotificationNames;
class Registry;
class RunningApps;

/// All must outlive the home screen and the assertions that it gives out.
struct HomeScreenServices {
    Database& database;
    Registry& registry;
    PropertyListSerialization& propertyLists;
    NotificationNames& notifications; // tells of a sync under way
    DeviceIconRenderer& icons;
    RunningApps& runningApps;
    HostLog& log;
};

/// Any thread.
class DeviceHomeScreen final : public HomeScreen {
  public:
    /// The port of the service.
    static constexpr SKPort onlyPort = 1;
    /// The one format of the flattened icon state: a binary property list.
    static constexpr std::uint32_t binaryFormat = 1;

    [[nodiscard]] static Result<std::unique_ptr<DeviceHomeScreen>> open(const HomeScreenServices& services);

    [[nodiscard]] SKPort SKSSkellanBlockableServerPort() noexcept override;
    /// Keeps the layout (device/screen/IconLayout.h says which), for apps too that are not there yet. What is none is
    /// logged and changes nothing.
    void SKSetIconState(SKPort port, std::string_view iconState) noexcept override;
    /// Keeps a layout; after a failure the earlier one stands.
    [[nodiscard]] Result<void> arrange(IconLayout layout);
    /// All identifiers of the layout, then the apps that have no place in it in the order in which they came. Null for
    /// another port or format.
    void SKGetFlattenedIconState(SKPort port, std::uint32_t format, const char** buffer,
                                 std::size_t* length) noexcept override;
    void SKDeallocate(const char* buffer, std::size_t length) noexcept override;
    [[nodiscard]] std::shared_ptr<SKSApplicationTerminationAssertion>
    SKSApplicationTerminationAssertionCreateWithError(std::string_view bundleIdentifier, std::uint32_t reason,
                                                      std::uint8_t* errorCode) noexcept override;

    /// As it was set last; empty at first.
    [[nodiscard]] IconLayout layout() const;
    [[nodiscard]] IdentifierList flattenedOrder() const;
    /// Whether a sync has said that it is under way.
    [[nodiscard]] bool isSyncing() const;
    /// What is to be seen now.
    [[nodiscard]] ScreenContents contents() const;

  private:
    explicit DeviceHomeScreen(const HomeScreenServices& services) : _services(services) {}
    [[nodiscard]] Result<void> _load();
    void _reject(const std::string& problem);

    const HomeScreenServices _services;
    mutable Mutex _mutex;
    IconLayout _layout GUARDED_BY(_mutex);
};

} // namespace appsync::device
