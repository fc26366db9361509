#include "host/plugin/HostPlatform.h"

namespace appsync::host {

Platform withHostServices(const Platform& platform, const HostServices& services) {
    return {.log = platform.log,
            .transactionLog = platform.transactionLog,
            .deviceService = platform.deviceService,
            .errorClassification = platform.errorClassification,
            .process = platform.process,
            .scheduler = services.scheduler,
            .files = platform.files,
            .propertyLists = platform.propertyLists,
            .workspaces = services.workspaces,
            .applicationProxies = platform.applicationProxies,
            .installationService = platform.installationService,
            .coordinators = platform.coordinators,
            .initiatingCoordinators = platform.initiatingCoordinators,
            .updatingCoordinators = platform.updatingCoordinators,
            .restoringCoordinators = platform.restoringCoordinators,
            .restoringDemotedCoordinators = platform.restoringDemotedCoordinators,
            .placeholders = platform.placeholders,
            .transferPromises = platform.transferPromises,
            .outOfBandPromises = platform.outOfBandPromises,
            .installObservers = platform.installObservers,
            .profileConnections = platform.profileConnections,
            .backupManagers = platform.backupManagers,
            .softwareLibraries = platform.softwareLibraries,
            .homeScreen = services.homeScreen,
            .notifications = platform.notifications,
            .notificationCenter = platform.notificationCenter,
            .bundles = platform.bundles,
            .iconRenderer = platform.iconRenderer,
            .imageDestinations = platform.imageDestinations};
}

} // namespace appsync::host
