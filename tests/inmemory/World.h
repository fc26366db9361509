// A whole device and host in memory: the services that a test looks at, and the `Platform` that the plug-in gets.
#pragma once

#include "platform/Platform.h"
#include "tests/inmemory/Context.h"
#include "tests/inmemory/Coordinator.h"
#include "tests/inmemory/Files.h"
#include "tests/inmemory/HomeScreen.h"
#include "tests/inmemory/HostServices.h"
#include "tests/inmemory/Registry.h"
#include "tests/inmemory/SmallServices.h"

namespace appsync::inmemory {

struct World {
    Context context;
    Journal& journal = context.journal;
    Faults& faults = context.faults;

    Log log{context};
    TransactionLog transactionLog{context};
    DeviceService deviceService{context};
    ErrorClassification errors{context};
    Process process;
    Clock clock{context};
    Files files{context};
    PropertyLists propertyLists{context};
    Registry registry{context};
    LowLevelInstaller lowLevelInstaller{context};
    Coordinators coordinators{context};
    Factories factories{context};
    OutOfBandFactory outOfBandFactory{context};
    Policy policy{context};
    BackupService backup{context};
    StoreClient store{context};
    Screen screen{context};
    NoticeService notices{context};
    Center center{context};
    Icons icons{context, files};

    [[nodiscard]] Platform platform() { return platform(log); }
    /// With another log than the journal's.
    [[nodiscard]] Platform platform(HostLog& hostLog) {
        return {.log = hostLog,
                .transactionLog = transactionLog,
                .deviceService = deviceService,
                .errorClassification = errors,
                .process = process,
                .scheduler = clock,
                .files = files,
                .propertyLists = propertyLists,
                .workspaces = registry,
                .applicationProxies = registry,
                .installationService = lowLevelInstaller,
                .coordinators = coordinators.any,
                .initiatingCoordinators = coordinators.initiating,
                .updatingCoordinators = coordinators.updating,
                .restoringCoordinators = coordinators.restoring,
                .restoringDemotedCoordinators = coordinators.restoringDemoted,
                .placeholders = factories,
                .transferPromises = factories,
                .outOfBandPromises = outOfBandFactory,
                .installObservers = factories,
                .profileConnections = policy,
                .backupManagers = backup,
                .softwareLibraries = store,
                .homeScreen = screen,
                .notifications = notices,
                .notificationCenter = center,
                .bundles = icons,
                .iconRenderer = icons,
                .imageDestinations = icons};
    }
};

} // namespace appsync::inmemory
