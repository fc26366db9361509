// The apps that were demoted: their bundle is gone, their data and a placeholder are there.
//
// The list is a property list that the sync plug-in reads: "AutomaticDowngrades" holds the identifiers of the apps that
// the system has demoted, "IntentionalDowngrades" of those that a person has.
#pragma once

#include "concurrency/Mutex.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::device {

class DeviceFileSystem;

struct DemotionLists {
    std::set<std::string> automatic;
    std::set<std::string> intentional;

    /// What is no string in its lists is passed over. Returns nullopt when the root is no dictionary.
    [[nodiscard]] static std::optional<DemotionLists> fromPropertyList(const Value& root);
    [[nodiscard]] Dictionary propertyList() const;
    [[nodiscard]] bool contains(const std::string& identifier) const {
        return automatic.contains(identifier) || intentional.contains(identifier);
    }
    /// Puts an app on one list and takes it off the other.
    void put(const std::string& identifier, bool isAutomatic);
    void take(const std::string& identifier);
    bool operator==(const DemotionLists&) const = default;
};

/// Any thread.
class DemotedApps {
  public:
    /// Reads the list; a damaged one counts as empty, and is made anew of what the registry knows when the device is
    /// opened. Fails when there is one that cannot be read just now. Both must outlive it.
    [[nodiscard]] static Result<std::unique_ptr<DemotedApps>> open(DeviceFileSystem& files,
                                                                   PropertyListSerialization& propertyLists);

    [[nodiscard]] DemotionLists lists() const;
    /// The install type of a demoted app's placeholder; nullopt for an app that stands on neither list.
    [[nodiscard]] std::optional<std::uint64_t> installTypeOf(const std::string& identifier) const;
    /// Durable when it returns; after a failure the lists are what they were.
    [[nodiscard]] Result<void> change(const std::function<void(DemotionLists&)>& change);
    [[nodiscard]] Result<void> set(const DemotionLists& lists) {
        return change([&](DemotionLists& present) { present = lists; });
    }

  private:
    DemotedApps(DeviceFileSystem& files, PropertyListSerialization& propertyLists, DemotionLists lists)
        : _files(files), _propertyLists(propertyLists), _lists(std::move(lists)) {}

    DeviceFileSystem& _files;
    PropertyListSerialization& _propertyLists;
    mutable Mutex _mutex;
    DemotionLists _lists GUARDED_BY(_mutex);
};

} // namespace appsync::device
