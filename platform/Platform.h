// Everything that a plug-in client needs of the device and its sync host, handed over when it is created.
#pragma once

#include <cstdint>

namespace appsync {

class AITransactionLog;
class BundleClass;
class FileSystem;
class HVManagerClass;
class HomeScreen;
class HostLog;
class HostProcess;
class IconRenderer;
class ImageDestinationClass;
class KXAppInstallCoordinator;
class KXAppInstallCoordinatorClass;
class KXAppInstallObserverClass;
class KXInitiatingAppInstallCoordinator;
class KXPlaceholderClass;
class KXPromisedOutOfBandTransferClass;
class KXPromisedTransferToPathClass;
class KXRestoringAppInstallCoordinator;
class KXRestoringDemotedAppInstallCoordinator;
class KXUpdatingAppInstallCoordinator;
class MWSoftwareLibraryClass;
class NotificationCenter;
class NotificationService;
class OLProfileConnectionClass;
class PDApplicationProxyClass;
class PDApplicationWorkspaceClass;
class PropertyListSerialization;
class QRClient;
class QRDeviceServiceClass;
class QRErrorClassification;
class Scheduler;
class TevrinInstallationService;
template <class Coordinator> class KXCoordinatorClass;

/// The version of all that `platform/` and `values/` declare. It grows with each change that a host or plug-in which is
/// compiled already would not survive.
inline constexpr std::uint32_t platformVersion = 1;

/// References to all services. They outlive every client made with them.
struct Platform {
    /// The host's; it stands first, so that a plug-in of any version finds it.
    std::uint32_t version = platformVersion;

    // The sync host.
    HostLog& log;
    AITransactionLog& transactionLog;
    QRDeviceServiceClass& deviceService;
    QRErrorClassification& errorClassification;
    HostProcess& process;
    Scheduler& scheduler;

    // Files.
    FileSystem& files;
    PropertyListSerialization& propertyLists;

    // Installing.
    PDApplicationWorkspaceClass& workspaces;
    PDApplicationProxyClass& applicationProxies;
    TevrinInstallationService& installationService;
    KXAppInstallCoordinatorClass& coordinators;
    KXCoordinatorClass<KXInitiatingAppInstallCoordinator>& initiatingCoordinators;
    KXCoordinatorClass<KXUpdatingAppInstallCoordinator>& updatingCoordinators;
    KXCoordinatorClass<KXRestoringAppInstallCoordinator>& restoringCoordinators;
    KXCoordinatorClass<KXRestoringDemotedAppInstallCoordinator>& restoringDemotedCoordinators;
    KXPlaceholderClass& placeholders;
    KXPromisedTransferToPathClass& transferPromises;
    KXPromisedOutOfBandTransferClass& outOfBandPromises;
    KXAppInstallObserverClass& installObservers;
    OLProfileConnectionClass& profileConnections;
    HVManagerClass& backupManagers;
    MWSoftwareLibraryClass& softwareLibraries;

    // The home screen.
    HomeScreen& homeScreen;
    NotificationService& notifications;
    NotificationCenter& notificationCenter;
    BundleClass& bundles;
    IconRenderer& iconRenderer;
    ImageDestinationClass& imageDestinations;
};

/// The one function that a plug-in's shared object exports, under this name. It sets `version` to the plug-in's own;
/// when that is not the platform's, it touches nothing else and returns null; null also when no client could be made.
/// The caller owns the client. Its object is best never unloaded: services may still hold completions of it when the
/// client has gone.
using QRCreateClientFunction = QRClient*(const Platform& platform, std::uint32_t& version);
inline constexpr const char* QRCreateClientFunctionName = "QRCreateClient";

} // namespace appsync
