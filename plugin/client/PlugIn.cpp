// The shared object's one exported function.
#include "plugin/client/AppsClient.h"

#include "platform/Platform.h"

extern "C" __attribute__((visibility("default"))) appsync::QRClient*
QRCreateClient(const appsync::Platform& platform) noexcept {
    return appsync::AppsClient::init(platform).release();
}
