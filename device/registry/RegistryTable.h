// What the registry knows of every app: in memory, and as rows of the database.
#pragma once

#include "concurrency/Mutex.h"
#include "device/database/Database.h"
#include "platform/ApplicationRegistry.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// Whether a placeholder of this install type is that of a demoted app.
[[nodiscard]] constexpr bool isDemotion(std::uint64_t installType) noexcept {
    return installType == PDInstallTypeDowngrade || installType == PDInstallTypeIntentionalDowngrade;
}

/// One version or placeholder of an app, and where it stands on disk.
struct RegistryRecord {
    std::string identifier;
    bool isPlaceholder = false;
    bool isSystem = false;
    std::uint64_t installType = 0;
    std::string name; // never empty
    std::optional<std::string> version;
    std::string container;               // name of its folder
    std::string bundle;                  // "<Name>.app"
    std::optional<std::string> iconFile; // path in the bundle
    std::uint64_t bytes = 0;             // of the files in the bundle
    bool hasDeviceSinf = false;          // its protection record is bound to this device
    /// Of the placeholder of a demoted app that comes back: the install type that it had, and has again when the app
    /// does not come.
    std::optional<std::uint64_t> demotion;

    [[nodiscard]] bool isDemoted() const noexcept { return isPlaceholder && isDemotion(installType); }
    [[nodiscard]] std::string containerPath() const;
    [[nodiscard]] std::string bundlePath() const { return containerPath() + "/" + bundle; }
};
using RegistryRecordPtr = std::shared_ptr<const RegistryRecord>;

/// Any thread; each operation is atomic.
class RegistryTable {
  public:
    /// One app.
    struct App {
        RegistryRecordPtr installed;
        RegistryRecordPtr placeholder;
        std::int64_t arrival = 0; // orders the apps; 0 for one that is not known

        [[nodiscard]] bool isKnown() const noexcept { return installed || placeholder; }
        /// The record of the installed version, else of the placeholder.
        [[nodiscard]] const RegistryRecordPtr& main() const noexcept { return installed ? installed : placeholder; }
        friend bool operator==(const App&, const App&) = default;
    };

    /// Makes the tables of the database and reads what they hold.
    [[nodiscard]] Result<void> load(Database& database);

    /// Without records when the registry does not have it.
    [[nodiscard]] App find(std::string_view identifier) const;
    /// All apps in the order of their arrival.
    [[nodiscard]] std::vector<App> all() const;
    /// The records of all apps.
    [[nodiscard]] std::vector<RegistryRecordPtr> records() const;
    /// The app's arrival, or a number for one that is new; none is given twice.
    [[nodiscard]] std::int64_t arrivalOf(const App& app);

    /// An app that is like this from now on; without records it is known no more.
    void set(const std::string& identifier, App app);

    // The database's rows. Each operation works within the caller's transaction, which reports failures.

    /// Makes of the rows of an app as it was those of the app as it is to be.
    static void write(Database::Transaction& transaction, const App& before, const App& after);
    // Folders that are to go although no record names them any more.
    static void addRemoval(Database::Transaction& transaction, std::string_view path);
    static constexpr std::string_view endRemoval = "DELETE FROM application_removals WHERE path = ?";
    // Apps that a person has removed. Julian day 2451910.5 is 2001-01-01, where dates of property lists begin.
    static constexpr std::string_view addUninstalled =
        "INSERT OR REPLACE INTO uninstalled VALUES (?, (julianday('now') - 2451910.5) * 86400.0)";
    static constexpr std::string_view removeUninstalled = "DELETE FROM uninstalled WHERE identifier = ?";

  private:
    mutable Mutex _mutex;
    std::map<std::string, App, std::less<>> _apps GUARDED_BY(_mutex);
    std::int64_t _nextArrival GUARDED_BY(_mutex) = 1;
};

} // namespace appsync::device
