// The install coordinator of the device: durable coordinators that install one app each.
//
// Coordinators are kept in the database and found again by a later process. Each installs its app in the background:
// first the placeholder, when that has been attached and configured and its icon is there; then the app, when the asset
// promise is complete and install options are set. While a file arrives its progress shows on the home screen. A
// restoring-demoted coordinator is done with its placeholder. The two restoring kinds then give the app the data that
// waits for it; that this fails is the coordinator's error, whose app or placeholder is there nevertheless.
//
// A coordinator ends as a success, as a failure, or by a cancel; lookups no longer find it then. A failure or cancel
// takes the placeholder away and leaves an installed version as it is. Only a restoring coordinator whose app could not
// be installed, and for whose file a client is responsible, does not end: it drops the promise of that file and waits
// for another, with the app's placeholder and data; its `error` says meanwhile what was wrong with the last. The
// transferred file and the icon file belong to the coordinator once their promises are complete, and are removed with
// it; files outside "/var/mobile" and "/tmp" are left alone.
//
// Reports go to the connections for the client that created the coordinator; without one they wait for the next, and
// how a coordinator ended waits for it also beyond the end of this process. A cancel is reported unless the creator
// itself made it, so that a client's own cancel does not come back as another's.
//
// Promises and placeholders may be made by any client and become durable when they are attached. A promise that is
// cancelled cancels the coordinator it is attached to. A null promise or placeholder is refused, null store metadata is
// taken: there is none beside the app then. This device has no on-demand resources and takes none.
#pragma once

#include "platform/InstallCoordinator.h"
#include "values/Result.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {
class HostLog;
class PropertyListSerialization;
} // namespace appsync

namespace appsync::device {

class CoordinatorEngine;
class Database;
class DeviceFileSystem;
class Registry;

/// A coordinator as the host's tools show it.
struct OpenCoordinator {
    std::string bundleID;
    std::string kind; // "initiating", "updating", "restoring" or "restoring-demoted"
    KXClientIdentifier creator = 0;
    KXClientIdentifier responsibleClient = 0; // 0 when none is named
    bool isPlaceholderInstalled = false;
    bool isAssetComplete = false;
    double assetProgress = 0;  // 0 to 1
    bool isInstalling = false; // a step of it runs or is about to
};

/// Data of apps that waits to be restored with them. Any thread.
class UserDataRestorer {
  public:
    virtual ~UserDataRestorer() = default;
    /// Gives an app the data that waits for it, if any does.
    [[nodiscard]] virtual Result<void> restore(std::string_view bundleID) = 0;
    /// The app will not come: its data waits no longer.
    virtual void giveUp(std::string_view bundleID) = 0;
};

struct CoordinatorServices {
    DeviceFileSystem& files;
    Registry& registry;
    Database& database;
    PropertyListSerialization& propertyLists;
    UserDataRestorer* userData = nullptr; // null: no data ever waits
    HostLog* log = nullptr;               // of failures that an install goes on after; null: of none
};

/// Everything that the plug-in's platform needs of it. The objects that these hand out must be dropped before the
/// coordinator goes.
struct CoordinatorClasses {
    KXAppInstallCoordinatorClass& coordinators;
    KXInitiatingAppInstallCoordinatorClass& initiatingCoordinators;
    KXUpdatingAppInstallCoordinatorClass& updatingCoordinators;
    KXRestoringAppInstallCoordinatorClass& restoringCoordinators;
    KXRestoringDemotedAppInstallCoordinatorClass& restoringDemotedCoordinators;
    KXPlaceholderClass& placeholders;
    KXPromisedTransferToPathClass& transferPromises;
    KXPromisedOutOfBandTransferClass& outOfBandPromises;
    KXAppInstallObserverClass& observers;
};

/// Any thread.
class InstallCoordinator {
  public:
    /// Reads the coordinators of earlier processes. The services must outlive it.
    [[nodiscard]] static Result<std::unique_ptr<InstallCoordinator>> open(const CoordinatorServices& services,
                                                                          bool coordinationIsEnabled);
    /// Interrupts running installs; they go on when the device is opened again.
    ~InstallCoordinator();
    InstallCoordinator(const InstallCoordinator&) = delete;
    InstallCoordinator& operator=(const InstallCoordinator&) = delete;

    /// Begins to install. Coordinators of earlier processes go on; one whose file or placeholder has disappeared is
    /// settled with an error. No install begins before.
    void resume();
    [[nodiscard]] CoordinatorClasses classes() noexcept;

    // For the host.

    /// A person cancels an app's install on the home screen; false when the app has no coordinator, or when it was
    /// installed before the cancel could stop it.
    bool cancelByUser(std::string_view bundleID);
    /// A person asks for an app to come first; false when it has no coordinator. Returns when its client, if one is
    /// connected, has been told. Not to be called from a delegate.
    bool prioritizeByUser(std::string_view bundleID);
    /// A person removes an app, or stops its install.
    [[nodiscard]] Result<void> uninstallByUser(std::string_view bundleID);
    /// In the order in which they were made.
    [[nodiscard]] std::vector<OpenCoordinator> openCoordinators() const;
    /// Returns when no install runs or is ready to, and everything there is to report has been reported. Installs that
    /// still wait for a transfer do not count. Not to be called from a delegate.
    void waitUntilIdle();

  private:
    struct Classes;
    InstallCoordinator(std::unique_ptr<CoordinatorEngine> engine, bool coordinationIsEnabled);

    std::unique_ptr<CoordinatorEngine> _engine;
    std::unique_ptr<Classes> _classes;
};

} // namespace appsync::device
