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
    const auto identifier = info != nullptr ? info->string("BXBundleIdentifier") : std::nullopt;
    const auto executable = info != nullptr ? info->string("BXBundleExecutable") : std::nullopt;
    if (!identifier || !executable || executable->find('/') != std::string_view::npos) {
        return hostError("'" + bundlePath + "' is no plug-in: its Info.plist is missing or does not name its " +
                             "identifier and executable. Build the project, or name a bundle with --plugin.",
                         bundlePath);
    }
    const std::string objectPath = bundlePath + "/" + std::string(*executable);
    // Its code stays: objects that it has handed to the device's services are released by its own functions.
    std::unique_ptr<void, Unload> handle(::dlopen(objectPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    void* create = handle != nullptr ? ::dlsym(handle.get(), QRCreateClientFunctionName) : nullptr;
    if (create == nullptr) {
        return hostError("The plug-in '" + bundlePath + "' cannot be loaded: " + ::dlerror() + ".", objectPath);
    }
    return PlugIn(std::string(*identifier), std::move(handle), create);
}

std::string PlugIn::defaultPath() {
    std::error_code ignored;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
    return (program.parent_path() / "ApplicationSync.bundle").string();
}

std::unique_ptr<QRClient> PlugIn::createClient(const Platform& platform) const {
    const auto create = reinterpret_cast<QRCreateClientFunction*>(_create);
    return std::unique_ptr<QRClient>(create(platform));
}

ErrorPtr hostError(std::string_view description, std::string_view path) {
    Dictionary facts{{errorDescriptionKey, description}};
    if (!path.empty()) {
        facts.set(errorPathKey, path);
    }
    return Error::make(hostErrorDomain, 1, std::move(facts));
}

} // namespace appsync::host
