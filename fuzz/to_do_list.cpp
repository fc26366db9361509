// Any bytes as the to-do list: the whole of planning and of a removal over it, on both install paths.
#include "fuzz/Device.h"
#include "platform/host/Asset.h"

using appsync::fuzz::Device;
using appsync::fuzz::expect;
namespace paths = appsync::paths;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    for (const bool useInstallCoordinator : {true, false}) {
        Device device(useInstallCoordinator);
        const std::string list(appsync::fuzz::text(bytes, size));
        device.world.files.put(std::string(paths::stagingArea) + "/ApplicationsSync.plist", list);
        expect(device.client->reconcileSync_withNewAnchor_progressCallback_error(nullptr, "", {}, nullptr),
               "a bad list does not end the sync");
        for (const auto& asset : device.client->outstandingAssetTransfers()) {
            expect(asset && !asset->identifier.empty(), "what is asked for has a name");
            device.client->changeAssetID_toDo(asset->identifier, "SENT");
        }
    }
    return 0;
}
