#include "host/plugin/PlugIn.h"

#include "platform/Platform.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Client.h"

#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

namespace appsync::host {

namespace {

constexpr const char* bundleName = "ApplicationSync.bundle";

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return in ? std::optional(std::move(bytes)) : std::nullopt;
}

} // namespace

void PlugIn::Unload::operator()(void* handle) const {
    ::dlclose(handle);
}

PlugIn::PlugIn(std::string identifier, std::unique_ptr<void, Unload> handle, void* create)
    : _identifier(std::move(identifier)), _handle(std::move(handle)), _create(create) {}

Result<PlugIn> PlugIn::load(const std::string& bundlePath, PropertyListSerialization& propertyLists) {
    const std::string infoPath = bundlePath + "/Info.plist";
    const auto bytes = readFile(infoPath);
    const auto root = bytes ? propertyLists.propertyListWithData(*bytes, nullptr) : std::nullopt;
    const Dictionary* info = root ? root->dictionary() : nullptr;
    const auto identifier = info ? info->string("BXBundleIdentifier") : std::nullopt;
    const auto executable = info ? info->string("BXBundleExecutable") : std::nullopt;
    if (!identifier || !executable || executable->find('/') != std::string_view::npos) {
        return hostError("'" + bundlePath + "' is no plug-in: its Info.plist is missing or does not name its " +
                             "identifier and executable. Build the project, or name a bundle with --plugin.",
                         bundlePath);
    }
    const std::string objectPath = bundlePath + "/" + std::string(*executable);
    // Its code stays: objects that it has handed to the device's services are released by its own functions.
    std::unique_ptr<void, Unload> handle(::dlopen(objectPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    void* create = handle ? ::dlsym(handle.get(), QRCreateClientFunctionName) : nullptr;
    if (!create) {
        return hostError("The plug-in '" + bundlePath + "' cannot be loaded: " + ::dlerror() + ".", objectPath);
    }
    return PlugIn(std::string(*identifier), std::move(handle), create);
}

std::string PlugIn::defaultPath() {
    std::error_code ignored;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const auto beside = folder / bundleName;
    const auto installed = folder.parent_path() / "lib" / "appsync" / bundleName;
    return (std::filesystem::exists(beside, ignored) || !std::filesystem::exists(installed, ignored) ? beside
                                                                                                     : installed)
        .string();
}

Result<std::unique_ptr<QRClient>> PlugIn::createClient(const Platform& platform) const {
    const auto create = reinterpret_cast<QRCreateClientFunction*>(_create);
    std::uint32_t version = 0;
    std::unique_ptr<QRClient> client(create(platform, version));
    if (version != platform.version) {
        return hostError("The plug-in '" + _identifier + "' is made for version " + std::to_string(version) +
                         " of the platform, and this program has version " + std::to_string(platform.version) +
                         ". Use a plug-in and a program of one release.");
    }
    if (!client) {
        return hostError("The plug-in '" + _identifier + "' did not start.");
    }
    return client;
}

ErrorPtr hostError(std::string_view description, std::string_view path) {
    Dictionary facts{{errorDescriptionKey, description}};
    if (!path.empty()) {
        facts.set(errorPathKey, path);
    }
    return Error::make(hostErrorDomain, 1, std::move(facts));
}

} // namespace appsync::host
