// A client on a device in memory, for one input.
#pragma once

#include "client/AppsClient.h"
#include "client/Paths.h"
#include "fuzz/Fuzz.h"
#include "tests/inmemory/World.h"

#include <memory>

namespace appsync::fuzz {

struct Device {
    explicit Device(bool useInstallCoordinator) {
        world.coordinators.any.enabled = useInstallCoordinator;
        client = AppsClient::init(world.platform());
    }
    /// No path of the device leads upwards; a name may begin with dots.
    void expectSafePaths() const {
        for (const std::string& path : world.files.paths()) {
            expect((path + "/").find("/../") == std::string::npos, "no path leads upwards");
        }
    }

    inmemory::World world;
    std::unique_ptr<AppsClient> client;
};

} // namespace appsync::fuzz
