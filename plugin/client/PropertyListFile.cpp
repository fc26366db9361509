#include "plugin/client/PropertyListFile.h"

#include "platform/FileSystem.h"
#include "platform/Platform.h"

namespace appsync {

std::optional<Value> readPropertyList(const Platform& platform, std::string_view path) {
    const auto bytes = platform.files.readFile(path, nullptr);
    return bytes ? platform.propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
}

std::optional<Dictionary> readDictionary(const Platform& platform, const std::optional<std::string>& path) {
    auto root = path ? readPropertyList(platform, *path) : std::nullopt;
    Dictionary* dictionary = root ? root->mutableDictionary() : nullptr;
    return dictionary ? std::optional(std::move(*dictionary)) : std::nullopt;
}

bool writePropertyList(const Platform& platform, const Value& root, PropertyListFormat format, std::string_view path) {
    const auto bytes = platform.propertyLists.dataWithPropertyList(root, format, nullptr);
    return bytes && platform.files.writeFileAtomically(path, bytes->bytes(), nullptr);
}

} // namespace appsync
