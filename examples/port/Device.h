// Fifth: the device, which is what has been written so far and stubs of all else. Its home screen holds no app, so that
// none is ever denied to the plug-in, and its host runs no coordinator.
#pragma once

#include "Files.h"
#include "Log.h"
#include "Registry.h"
#include "platform/stubs/Stubs.h"
#include "propertylist/Codec.h"

namespace port {

struct Device {
    Log log;
    Files files;
    PropertyListCodec propertyLists; // portable as it is
    Registry registry{files, propertyLists};
    StubServices stubs;

    Platform platform() {
        return {.log = log,
                .transactionLog = log,
                .deviceService = stubs.deviceService,
                .errorClassification = stubs.errorClassification,
                .process = stubs.process,
                .scheduler = stubs.scheduler,
                .files = files,
                .propertyLists = propertyLists,
                .workspaces = registry,
                .applicationProxies = registry,
                .installationService = stubs.installationService,
                .coordinators = stubs.coordinators,
                .initiatingCoordinators = stubs.initiatingCoordinators,
                .updatingCoordinators = stubs.updatingCoordinators,
                .restoringCoordinators = stubs.restoringCoordinators,
                .restoringDemotedCoordinators = stubs.restoringDemotedCoordinators,
                .placeholders = stubs.factories,
                .transferPromises = stubs.factories,
                .outOfBandPromises = stubs.outOfBandPromises,
                .installObservers = stubs.factories,
                .profileConnections = stubs.profileConnections,
                .backupManagers = stubs.backupManagers,
                .softwareLibraries = stubs.softwareLibraries,
                .homeScreen = stubs.homeScreen,
                .notifications = stubs.notifications,
                .notificationCenter = stubs.notificationCenter,
                .bundles = stubs.icons,
                .iconRenderer = stubs.icons,
                .imageDestinations = stubs.icons};
    }
};

} // namespace port
