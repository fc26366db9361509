// Any bytes as the desktop's restore information, on both install paths.
#include "fuzz/Device.h"

using appsync::fuzz::Device;
using appsync::fuzz::expect;
namespace paths = appsync::paths;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    for (const bool useInstallCoordinator : {true, false}) {
        Device device(useInstallCoordinator);
        device.world.files.put(paths::restoreInfo, appsync::fuzz::text(bytes, size));
        device.world.files.putFolder("/var/mobile/Library/Logs/MediaServices");
        appsync::ErrorPtr error;
        expect(device.client->reconcileRestoreOfType_withError(2, &error) && !error, "a restore is never refused");
        expect(!device.world.files.exists(paths::restoreInfo), "the information is put aside");
        expect(device.world.files.exists(paths::processedRestoreInfo), "the information is kept");
    }
    return 0;
}
