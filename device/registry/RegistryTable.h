// The registry's memory: every app's records, and the installs under way.
#pragma once

#include "device/registry/InstallProgress.h"
#include "device/registry/RegistryRecord.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace appsync::device {

/// Any thread; each operation is atomic.
class RegistryTable {
  public:
    /// One app. At least one of its records is there.
    struct App {
        RegistryRecordPtr installed;
        RegistryRecordPtr placeholder;
        std::int64_t arrival = 0;
    };
    struct Install {
        std::shared_ptr<InstallProgress> progress;
        std::int64_t arrival = 0;  // of the progress object
        std::int64_t priority = 0; // the higher, the earlier
    };

    [[nodiscard]] std::optional<App> find(std::string_view identifier) const;
    /// All apps in the order of their arrival.
    [[nodiscard]] std::vector<App> all() const;
    /// A number for an app that is new; none is given twice.
    [[nodiscard]] std::int64_t takeArrival();

    /// Sets one of an app's records; the arrival of an app that is there stays.
    void put(const RegistryRecordPtr& record, std::int64_t arrival);
    /// Sets an app's installed version in place of the present one and of its placeholder.
    void install(const RegistryRecordPtr& record, std::int64_t arrival);
    void remove(std::string_view identifier, bool placeholder);

    [[nodiscard]] std::shared_ptr<InstallProgress> findProgress(std::string_view identifier) const;
    /// The app's progress object; `make` makes one if there is none yet.
    [[nodiscard]] std::shared_ptr<InstallProgress>
    progress(std::string_view identifier, const std::function<std::shared_ptr<InstallProgress>()>& make);
    /// Forgets a progress object, if it is still the app's.
    void endProgress(const InstallProgress& progress);
    void prioritize(std::string_view identifier);
    /// All installs, those with priority first, then in the order of their beginning.
    [[nodiscard]] std::vector<Install> installs() const;

  private:
    struct TextHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    template <class T> using ByIdentifier = std::unordered_map<std::string, T, TextHash, std::equal_to<>>;

    App& _put(const RegistryRecordPtr& record, std::int64_t arrival);

    mutable std::mutex _mutex; // guards the rest
    std::map<std::int64_t, App> _apps;
    ByIdentifier<std::int64_t> _arrivals;
    std::int64_t _nextArrival = 1;
    ByIdentifier<Install> _installs;
    std::int64_t _lastInstall = 0;
};

} // namespace appsync::device
