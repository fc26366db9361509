#include "device/services/DemotedApps.h"

#include "device/root/DeviceFileSystem.h"
#include "platform/ApplicationRegistry.h"
#include "platform/PropertyListSerialization.h"
#include "platform/host/Places.h"

namespace appsync::device {

namespace {

constexpr std::string_view automaticKey = "AutomaticDowngrades";
constexpr std::string_view intentionalKey = "IntentionalDowngrades";

std::set<std::string> textsIn(const Dictionary& root, std::string_view key) {
    std::set<std::string> texts;
    const Value* list = root.find(key);
    if (list && list->array()) {
        for (const Value& entry : *list->array()) {
            if (const auto text = entry.string()) {
                texts.emplace(*text);
            }
        }
    }
    return texts;
}

Array arrayOf(const std::set<std::string>& texts) {
    Array list;
    for (const std::string& text : texts) {
        list.emplace_back(text);
    }
    return list;
}

} // namespace

std::optional<DemotionLists> DemotionLists::fromPropertyList(const Value& root) {
    if (!root.dictionary()) {
        return std::nullopt;
    }
    return DemotionLists{textsIn(*root.dictionary(), automaticKey), textsIn(*root.dictionary(), intentionalKey)};
}

Dictionary DemotionLists::propertyList() const {
    Dictionary root;
    root.set(automaticKey, arrayOf(automatic));
    root.set(intentionalKey, arrayOf(intentional));
    return root;
}

void DemotionLists::put(const std::string& identifier, bool isAutomatic) {
    (isAutomatic ? automatic : intentional).insert(identifier);
    (isAutomatic ? intentional : automatic).erase(identifier);
}

void DemotionLists::take(const std::string& identifier) {
    automatic.erase(identifier);
    intentional.erase(identifier);
}

Result<std::unique_ptr<DemotedApps>> DemotedApps::open(DeviceFileSystem& files,
                                                       PropertyListSerialization& propertyLists) {
    const auto bytes = files.readIfThere(paths::demotedApps);
    if (!bytes) {
        return bytes.error();
    }
    const auto root = *bytes ? propertyLists.propertyListWithData((*bytes)->bytes(), nullptr) : std::nullopt;
    auto lists = (root ? DemotionLists::fromPropertyList(*root) : std::nullopt).value_or(DemotionLists{});
    return std::unique_ptr<DemotedApps>(new DemotedApps(files, propertyLists, std::move(lists)));
}

DemotionLists DemotedApps::lists() const {
    const Lock lock(_mutex);
    return _lists;
}

std::optional<std::uint64_t> DemotedApps::installTypeOf(const std::string& identifier) const {
    const Lock lock(_mutex);
    if (!_lists.contains(identifier)) {
        return std::nullopt;
    }
    return _lists.automatic.contains(identifier) ? PDInstallTypeDowngrade : PDInstallTypeIntentionalDowngrade;
}

Result<void> DemotedApps::change(const std::function<void(DemotionLists&)>& change) {
    const Lock lock(_mutex);
    DemotionLists lists = _lists;
    change(lists);
    if (lists == _lists) {
        return {};
    }
    ErrorPtr error;
    const auto bytes = _propertyLists.dataWithPropertyList(lists.propertyList(), PropertyListFormat::binary, &error);
    const std::string_view folder = paths::demotedApps.substr(0, paths::demotedApps.rfind('/'));
    if (!bytes || !_files.createDirectory(folder, true, std::nullopt, &error) ||
        !_files.writeFileAtomically(paths::demotedApps, bytes->bytes(), &error)) {
        return error;
    }
    _lists = std::move(lists);
    return {};
}

} // namespace appsync::device
