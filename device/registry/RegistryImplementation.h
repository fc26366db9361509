// What the registry's operations share.
#pragma once

#include "device/registry/Announcer.h"
#include "device/registry/Container.h"
#include "device/registry/GroupCommit.h"
#include "device/registry/Registry.h"
#include "device/registry/RegistryStore.h"
#include "device/registry/RegistryTable.h"
#include "device/root/Root.h"

#include <condition_variable>
#include <set>

namespace appsync::device {

/// Lets one operation at a time change an app; operations on different apps run side by side.
class AppLocks {
  public:
    class Held {
      public:
        Held(AppLocks& locks, std::string identifier);
        ~Held();
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;

      private:
        AppLocks& _locks;
        const std::string _identifier;
    };

  private:
    std::mutex _mutex;
    std::condition_variable _released;
    std::set<std::string> _held;
};

class Registry::Implementation {
  public:
    Implementation(Root& root, Database& database, PropertyListSerialization& propertyLists, RegistryOptions options);

    [[nodiscard]] Result<void> load();
    [[nodiscard]] Result<Settlement> settle();

    [[nodiscard]] Result<void> installPlaceholder(const PlaceholderRequest& request);
    [[nodiscard]] Result<void> installArchive(const ArchiveRequest& request);
    [[nodiscard]] Result<void> uninstall(std::string_view identifier, RemovalReason reason, RemovalScope scope);

    [[nodiscard]] std::shared_ptr<InstallProgress> progress(std::string_view identifier, std::uint64_t phase);
    void phaseFinished(InstallProgress& progress);
    void follow(RegistryFollower follower) { _follower = std::move(follower); }
    [[nodiscard]] bool cancelInstall(std::string_view identifier);

    [[nodiscard]] PDApplicationProxyPtr proxy(RegistryRecordPtr record, std::string_view prefix = {});
    [[nodiscard]] RegistryTable& table() noexcept { return _table; }
    [[nodiscard]] Announcer& announcer() noexcept { return _announcer; }

  private:
    class ArchiveInstall;
    class PlaceholderInstall;

    [[nodiscard]] Announcer::Lists _lists();
    [[nodiscard]] std::shared_ptr<InstallProgress> _makeProgress(std::string_view identifier, std::uint64_t phase);
    /// Fills in what an Info dictionary says of an app.
    void _describe(RegistryRecord& record, const Dictionary& info) const;
    [[nodiscard]] bool _isDeviceSinf(const std::optional<Data>& sinf) const;
    [[nodiscard]] Result<void> _remove(const RegistryTable::App& app, bool removesApp, bool removesPlaceholder,
                                       RemovalReason reason, bool keepsData = false);
    [[nodiscard]] std::optional<std::uint64_t> _typeToFallBackTo(const RegistryTable::App& app) const;
    [[nodiscard]] Result<void> _demoteAgain(const RegistryTable::App& app, std::uint64_t installType,
                                            RemovalReason reason);
    void _endPlaceholderOf(const RegistryTable::App& app, RemovalReason reason);
    [[nodiscard]] std::shared_ptr<InstallProgress> _stopInstall(std::string_view identifier);
    void _announceCancellation(const RegistryRecordPtr& record);
    [[nodiscard]] Result<void> _endRemoval(const std::string& path);
    [[nodiscard]] Result<void> _settleRemovals(Settlement& settlement);
    [[nodiscard]] bool _isGone(const std::string& path);
    [[nodiscard]] Result<void> _settleRecords(Settlement& settlement);
    [[nodiscard]] Result<void> _settleContainers(Settlement& settlement);

    DeviceFileSystem& _files;
    Database& _database;
    PropertyListSerialization& _propertyLists;
    const RegistryOptions _options;
    RegistryFollower _follower;
    RegistryTable _table;
    AppLocks _locks;
    GroupCommit _groupCommit;
    Announcer _announcer; // last: its thread uses the rest
};

/// The error of an identifier that cannot be that of an app; null when it can. Identifiers become names of folders.
[[nodiscard]] ErrorPtr checkIdentifier(std::string_view identifier);
/// An error of the installer for one of the disk or the database.
[[nodiscard]] ErrorPtr installerFailure(std::string_view what, const ErrorPtr& reason, std::string_view path = {});

} // namespace appsync::device
