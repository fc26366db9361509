// The shared object's one exported function.
#include "plugin/client/AppsClient.h"

#include "platform/Platform.h"

extern "C" __attribute__((visibility("default"))) appsync::QRClient* QRCreateClient(const appsync::Platform& platform,
                                                                                    std::uint32_t& version) noexcept {
    version = appsync::platformVersion;
    return platform.version == version ? appsync::AppsClient::init(platform).release() : nullptr;
}
