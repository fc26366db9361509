// Sixth: the plug-in, loaded from its bundle: a folder with an Info.plist that names the shared object beside it.
#pragma once

#include "platform/Platform.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Client.h"

#include <dlfcn.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace port {

using namespace appsync;

/// A client of the plug-in; throws when there is none. Its code stays loaded, since services may have objects of it.
inline std::unique_ptr<QRClient> loadClient(const std::string& bundle, const Platform& platform) {
    std::ifstream in(bundle + "/Info.plist", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto info = platform.propertyLists.propertyListWithData(bytes, nullptr);
    const auto name = info && info->dictionary() ? info->dictionary()->string("BXBundleExecutable") : std::nullopt;
    if (!name) {
        throw std::runtime_error(bundle + " is no plug-in bundle: its Info.plist is missing or names no executable");
    }
    void* object = dlopen((bundle + "/" + std::string(*name)).c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    void* create = object ? dlsym(object, QRCreateClientFunctionName) : nullptr;
    if (!create) {
        throw std::runtime_error(bundle + " cannot be loaded: " + dlerror());
    }
    std::uint32_t version = 0;
    std::unique_ptr<QRClient> client(reinterpret_cast<QRCreateClientFunction*>(create)(platform, version));
    if (!client) {
        throw std::runtime_error("the plug-in, made for version " + std::to_string(version) +
                                 " of the platform, does not start on version " + std::to_string(platform.version));
    }
    return client;
}

} // namespace port
