// What a port implements so that the rules of `platform/` can be tried on its device: a fresh device for each rule, its
// platform, and the states that the rules speak of and that no call of the platform can bring about.
#pragma once

#include "platform/DevicePolicy.h"
#include "platform/Platform.h"
#include "values/FileURL.h"
#include "values/PropertyList.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace appsync::contract {

/// What a device may lack. A rule that needs it is skipped then; everything else is every device's duty.
enum class Ability {
    hasLinks,           // its file system has symbolic links
    unpacksApps,        // its registry reads archives and placeholder bundles, and keeps what is in them
    drawsIcons,         // its renderer reads an app's icon, and its images become PNG files
    hasCoordinators,    // it has an install coordinator; without, installs never go through one
    runsCoordinators,   // that coordinator installs, reports, and takes installs back
    outlivesItsProcess, // it can be closed and opened again
};

/// What a device is like from the start.
struct Conditions {
    bool coordination = true; // installs go through coordinators, if it has them
};

/// An app with an Info.plist, an executable that runs until it is asked to end, and the icon "Icon.png".
struct AppDescription {
    std::string identifier;
    std::string version = "1.0";
    bool isSystem = false;
};

/// A device of its own, gone with this object. Called by one thread at a time. Rules put their files below "/tmp",
/// which is there from the start.
class DeviceUnderTest {
  public:
    virtual ~DeviceUnderTest() = default;

    /// Valid until the device is restarted or goes.
    [[nodiscard]] virtual Platform platform() = 0;
    [[nodiscard]] virtual bool can(Ability ability) const = 0;
    /// Closes the device and opens it again, as another process does. Needed for `outlivesItsProcess`.
    virtual void restart() {}

    // Apps.

    /// Puts the archive of an app on the device, as a transfer does, at a path of its own.
    [[nodiscard]] virtual FileURL putArchive(const AppDescription& app) = 0;
    /// Installs an app.
    virtual void install(const AppDescription& app) = 0;
    /// Starts an installed app, which is then busy or not. False when it may not be started.
    virtual bool start(const std::string& identifier, bool busy) = 0;
    [[nodiscard]] virtual bool isRunning(const std::string& identifier) = 0;

    // What a person does on the home screen.

    virtual void removeByPerson(const std::string& identifier) = 0;
    /// Cancels an install: the coordinator's if the app has one, else the registry's.
    virtual void cancelByPerson(const std::string& identifier) = 0;
    /// Asks for the install of an app to go first. Needed for `runsCoordinators`.
    virtual void prioritizeByPerson(const std::string& /*identifier*/) {}

    // What other services have.

    virtual void setPolicy(std::string_view setting, OLBoolValue value) = 0;
    /// So many bytes of an app's data wait to be restored.
    virtual void putRestoreData(const std::string& identifier, std::size_t bytes) = 0;
    /// A post of another process for the notification center.
    virtual void postNotification(const std::string& name, const void* object, const Dictionary& userInfo) = 0;
    /// The present state of a name of the notification service, and how often it was posted.
    [[nodiscard]] virtual std::uint64_t noticeState(const std::string& name) = 0;
    [[nodiscard]] virtual std::uint64_t noticePosts(const std::string& name) = 0;
    /// Whether a message with this text within it stands in the log.
    [[nodiscard]] virtual bool hasLogged(const std::string& text) = 0;
    /// How many records of an app stand in the transaction log.
    [[nodiscard]] virtual std::size_t transactionsOf(const std::string& bundleID) = 0;

    // Links; needed for `hasLinks`.

    virtual void putLink(const std::string& /*path*/, const std::string& /*target*/) {}
    /// Makes a link at a path to a folder that is not the device's and in which a file "secret" stands.
    virtual void putWayOut(const std::string& /*path*/) {}
    /// Whether everything beside the device is as it was.
    [[nodiscard]] virtual bool isOutsideUntouched() { return true; }

    // Time.

    /// The clock that the device's scheduler goes by.
    [[nodiscard]] virtual std::chrono::milliseconds now() = 0;
    /// Lets this time pass for the scheduler and returns at once; for a clock that goes by itself nothing to do.
    virtual void letPass(std::chrono::milliseconds /*time*/) {}
    /// Lets services that wait for a word of the test go on with what they were asked to do.
    virtual void proceed() {}
};

/// How a device is made.
using DeviceFactory = std::unique_ptr<DeviceUnderTest> (*)(const Conditions& conditions);

} // namespace appsync::contract
