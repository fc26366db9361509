#include "device/screen/AppBundles.h"

#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"

namespace appsync::device {

std::optional<Value> AppBundle::objectForInfoDictionaryKey(std::string_view key) noexcept {
    std::call_once(_loaded, [this] {
        const auto bytes = _files.readFile(_path + "/Info.plist", nullptr);
        const auto root = bytes ? _propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
        if (root && root->dictionary()) {
            _info = *root->dictionary();
        }
    });
    const Value* value = _info.find(key);
    return value ? std::optional<Value>(*value) : std::nullopt;
}

std::optional<std::string> AppBundle::executableName() noexcept {
    const auto named = objectForInfoDictionaryKey("BXBundleExecutable");
    const auto name = named ? named->string() : std::nullopt;
    const bool isInFolder = name && !name->empty() && name->find('/') == std::string_view::npos;
    return isInFolder ? std::optional<std::string>(*name) : std::nullopt;
}

std::shared_ptr<Bundle> AppBundles::bundleWithURL(const FileURL& url) noexcept {
    // A path that goes through something else than a folder leads nowhere.
    if (!_files.fileExists(url.path() + "/.")) {
        return nullptr;
    }
    return std::make_shared<AppBundle>(_files, _propertyLists, url.path());
}

} // namespace appsync::device
