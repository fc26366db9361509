// Ranks a sync's items by the order of the home screen's icons.
#include "plugin/client/AppsClient.h"

#include "platform/HomeScreen.h"
#include "platform/PropertyListSerialization.h"
#include "plugin/client/Paths.h"

#include <unordered_set>

namespace appsync {

namespace {

constexpr std::uint32_t flattenedFormat = 1;

/// The home screen's icon order, saved as it came; empty when there is none that can be understood.
Array fetchIconOrder(const Platform& platform, const PlugInLog& log) {
    const char* buffer = nullptr;
    std::size_t length{};
    platform.homeScreen.SKGetFlattenedIconState(platform.homeScreen.SKSSkellanBlockableServerPort(), flattenedFormat,
                                                &buffer, &length);
    if (!buffer) {
        log.message("got no icon sort order from SK");
        return {};
    }
    const Data copy(std::string(buffer, length));
    log.message("saved icon sort order");
    platform.files.writeFileAtomically(paths::assetSortOrder, copy.bytes(), nullptr);
    const auto iconOrder = platform.propertyLists.propertyListWithData(copy.bytes(), nullptr);
    platform.homeScreen.SKDeallocate(buffer, length);
    return iconOrder && iconOrder->array() ? *iconOrder->array() : Array{};
}

} // namespace

Array AppsClient::_orderTheItems(Dictionary& items) {
    Array result;
    result.reserve(items.size());
    const Array iconOrder = fetchIconOrder(_platform, _log);
    std::unordered_set<std::string_view> placed; // views of the icon order
    for (const Value& icon : iconOrder) {
        const auto identifier = icon.string();
        const Value* item = identifier ? items.find(*identifier) : nullptr;
        if (item && placed.insert(*identifier).second) {
            _log.message("prioritize %{public}@", *identifier);
            result.push_back(*item);
        }
    }
    Dictionary rest;
    for (const auto& [identifier, item] : items) {
        if (!placed.contains(identifier)) {
            _log.message("lastly %{public}@", identifier);
            result.push_back(item);
            rest.set(identifier, item);
        }
    }
    items = std::move(rest);
    return result;
}

} // namespace appsync
