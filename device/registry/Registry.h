// The application registry: installed apps and placeholders, their containers on disk, and the installs under way.
//
// An app's container is the folder /var/containers/Bundle/Application/<UUID>; in it stand the app's folder <Name>.app,
// and beside that "TamblinMetadata.plist", "TamblinArtwork" and "ApplicationSINF" as far as they exist. A container
// belongs to an app from the moment the database says so; no container is ever changed into another version.
// An app under update has two: that of the installed version and that of its placeholder.
#pragma once

#include "archive/ArchiveLimits.h"
#include "device/archive/UnpackingPlaces.h"
#include "device/database/GroupCommit.h"
#include "device/registry/Announcer.h"
#include "device/registry/Installs.h"
#include "device/registry/RegistryTable.h"
#include "device/root/DiskRoom.h"
#include "platform/InstallationService.h"

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::device {

class Container;
class DeviceFileSystem;
class Root;

/// A placeholder to install: a bundle folder that stands ready, or what a bundle is to be made from.
struct PlaceholderRequest {
    std::string identifier;
    std::string bundlePath;              // the folder; moved away on success. Or empty, and then:
    Dictionary info;                     //   content of Info.plist; the identifier is set from above
    std::optional<std::string> iconPath; //   becomes "Icon.png" in the bundle
    bool sharesIcon = false;             //   that file itself, where the file system can, not a copy
    std::uint64_t installType = PDInstallTypeNone;
    std::optional<Data> metadata; // content of "TamblinMetadata.plist"
    std::optional<Data> sinf;     // the app's protection record
    bool isSystem = false;
    bool replacesApp = false; // the installed version goes in the same step; its data stays
};

/// An app to install or update from an archive. What is absent comes from the archive, else from the placeholder.
struct ArchiveRequest {
    std::string archivePath; // left where it is
    std::string identifier;  // the archive must hold this app
    std::optional<std::uint64_t> installType;
    std::optional<Data> metadata;
    std::optional<Data> sinf;
    bool isSystem = false;
    std::function<void(double fraction)> progress; // 0 to 1, never backwards, by one thread at a time; may be empty
    std::stop_token cancel;                        // ends the install as cancelled while that is still possible
};

/// Who removes an app. What a person removes is remembered in the list of uninstalled apps.
enum class RemovalReason { sync, person };
enum class RemovalScope {
    placeholderElseApp, // the placeholder if there is one, else the app
    placeholderOnly,    // of an app on its way; that of a demoted one stays
    everything,
};

/// One app as the home screen shows it. Paths are paths of the device.
struct Application {
    std::string identifier;
    std::string name; // never empty
    std::optional<std::string> version;
    bool isInstalled = false;   // a version is installed
    bool isPlaceholder = false; // a placeholder stands for an app on its way; with `isInstalled`: for its next version
    bool isSystem = false;
    std::uint64_t installType = PDInstallTypeNone;
    std::optional<std::uint64_t> demotion;     // of a demoted app that comes back: the install type that it had
    std::optional<double> progress;            // 0 to 1, of the install under way
    std::optional<std::uint64_t> installState; // a `PDInstallState`, while there is a progress object
    std::optional<std::uint64_t> installPhase; // a `PDInstallPhase`, likewise
    std::optional<std::string> iconPath;       // the icon's file; may be missing on disk
    std::string bundlePath;                    // these two of the installed version, else of the placeholder
    std::string containerPath;
    std::string dataContainerPath; // made by whoever first writes into it

    /// Whether its bundle was given up to save space, so that a placeholder and the data are all there is.
    [[nodiscard]] bool isDemoted() const noexcept { return isPlaceholder && !isInstalled && isDemotion(installType); }
};

/// What another service does when apps come and go. Called on the thread of the operation once it is durable, while
/// nothing else changes the app; must not install or remove. Each may be empty.
struct RegistryFollower {
    /// The install type of the placeholder that a demoted app has; nullopt for an app that is not demoted. May be asked
    /// at any time.
    std::function<std::optional<std::uint64_t>(std::string_view identifier)> demotion = [](auto) {
        return std::nullopt;
    };
    std::function<void(std::string_view identifier)> wasInstalled = [](auto) {}; // from an archive
    std::function<void(std::string_view identifier)> isGone = [](auto) {};       // with its data
};

/// Any operation may be called on any thread at any time; those that install or remove wait for the disk, and several
/// may run at once. Errors are of `TVInstallerErrorDomain` (archive/InstallerError.h) unless stated.
class Registry final : public TevrinInstallationService {
  public:
    /// Reads what the database knows. The root, the database and the property lists must outlive the registry.
    [[nodiscard]] static Result<std::unique_ptr<Registry>>
    open(Root& root, Database& database, PropertyListSerialization& propertyLists, const ArchiveLimits& limits = {});
    /// Waits for a running call of an observer. No other operation may be running.
    ~Registry() override = default;

    /// Clears away what an interrupted run left half done. To be called when the device has been opened, before
    /// anything else uses the registry.
    [[nodiscard]] Result<void> settle();

    // Looking up. None of these touches the disk.

    /// One entry per app, in the order in which they came to the device.
    [[nodiscard]] std::vector<Application> applications() const;
    [[nodiscard]] std::optional<Application> application(std::string_view identifier) const;
    [[nodiscard]] bool isInstalled(std::string_view identifier) const;
    [[nodiscard]] bool hasPlaceholder(std::string_view identifier) const;

    // Installing and removing.

    /// Registers a placeholder, in place of an older one of the app. One of a sync that replaces that of a restore goes
    /// on as the restore's: install type, store metadata and protection record stay.
    [[nodiscard]] Result<void> installPlaceholder(const PlaceholderRequest& request);
    /// Installs or updates an app, durable when it returns, and removes its placeholder. At every moment the old
    /// version or the new one is there, whole.
    [[nodiscard]] Result<void> installArchive(const ArchiveRequest& request);
    /// Removes an app and its data, its placeholder, or both; fails with `nothingToRemove` when there is neither. A
    /// person who removes the placeholder of an install under way cancels that install. Data of an app of which only
    /// the placeholder goes stays when a sync removes it: a later install finds it again. A demoted app whose return is
    /// taken back or cancelled is demoted again.
    [[nodiscard]] Result<void> uninstall(std::string_view identifier, RemovalReason reason, RemovalScope scope);

    // The list of apps that a person removed from the device, kept until the desktop has heard of it.

    /// Values are the dates of removal.
    [[nodiscard]] std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* options) noexcept override;
    /// What is no string is passed over. A failure's number is that of the database (`DatabaseError`).
    [[nodiscard]] int TevrinClearUninstalled(const Array& bundleIdentifiers,
                                             const Dictionary* options) noexcept override;

    // Installs under way.

    /// The progress object of an app's install, made in this phase when there is none yet; null for an app that is not
    /// a placeholder and has no install under way.
    [[nodiscard]] FNProgressPtr progress(std::string_view identifier, std::uint64_t phase = PDInstallPhaseLoading);
    /// The same, but null when there is none yet.
    [[nodiscard]] FNProgressPtr existingProgress(std::string_view identifier) const;
    /// The present phase is over: loading leads to installing, any other to the end of the install, as does a state
    /// that is final.
    void phaseFinished(const FNProgressPtr& progress);
    /// Puts an app's install before all others.
    void prioritize(std::string_view identifier);
    /// A person cancels an app's install: its progress ends as cancelled, observers are told, the placeholder goes. An
    /// installed version stays. False when there is no install under way and no placeholder.
    bool cancelInstall(std::string_view identifier);

    // Following.

    /// To be called before anything is installed or removed.
    void follow(RegistryFollower follower) { _follower = std::move(follower); }

    /// Who observes it in the terms of the platform.
    [[nodiscard]] Announcer& announcer() noexcept { return _announcer; }

    // Records, as the platform's services present them.

    [[nodiscard]] const RegistryTable& table() const noexcept { return _table; }
    /// `prefix` stands before the application identifier. The registry must outlive the proxy.
    [[nodiscard]] PDApplicationProxyPtr proxy(RegistryRecordPtr record, std::string_view prefix = {}) const;

  private:
    class ArchiveInstall;
    class PlaceholderInstall;

    Registry(Root& root, Database& database, PropertyListSerialization& propertyLists, const ArchiveLimits& limits);

    [[nodiscard]] static Result<void> _checkIdentifier(std::string_view identifier);
    /// An error of the installer for one of the disk or the database.
    [[nodiscard]] static ErrorPtr _makeFailure(std::string_view what, const ErrorPtr& reason,
                                               std::string_view path = {});
    [[nodiscard]] Result<void> _load();
    [[nodiscard]] Announcer::Lists _lists() const;
    void _describe(RegistryRecord& record, const Dictionary& info, const std::optional<Data>& sinf) const;
    [[nodiscard]] Result<void> _enter(Container& container, const RegistryTable::App& before,
                                      const RegistryTable::App& after, Durability durability);
    void _replace(const RegistryTable::App& before, const RegistryTable::App& after);
    [[nodiscard]] InstallProgressPtr _stopInstall(std::string_view identifier);
    [[nodiscard]] std::optional<std::uint64_t> _typeToFallBackTo(const RegistryTable::App& app) const;
    [[nodiscard]] Result<void> _demoteAgain(const RegistryTable::App& app, std::uint64_t installType,
                                            RemovalReason reason);
    void _endInstallOf(const RegistryRecordPtr& placeholder, RemovalReason reason);
    [[nodiscard]] Result<void> _remove(const RegistryTable::App& before, const RegistryTable::App& after,
                                       RemovalReason reason, bool keepsData = false);
    [[nodiscard]] Result<void> _endRemoval(const std::string& path);
    [[nodiscard]] Result<void> _settleRemovals();
    [[nodiscard]] Result<void> _settleRecords();
    [[nodiscard]] Result<void> _settleContainers();

    DeviceFileSystem& _files;
    Database& _database;
    PropertyListSerialization& _propertyLists;
    const ArchiveLimits _limits;
    RegistryFollower _follower;
    RegistryTable _table;
    Installs _installs;
    AppLocks _locks;
    GroupCommit _groupCommit;
    DiskRoom _room;
    UnpackingPlaces _unpackingPlaces;
    Announcer _announcer; // last: its thread uses the rest
};

} // namespace appsync::device
