// The application registry: installed apps, placeholders, app containers and installs under way.
#pragma once

#include "values/Error.h"
#include "values/FileURL.h"
#include "values/PropertyList.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {

/// Keys and values of install and uninstall options.
inline constexpr std::string_view PDPackageTypeKey = "PackageType";
inline constexpr std::string_view PDPackageTypeCustomer = "Customer";
inline constexpr std::string_view PDPackageTypePlaceholder = "Placeholder";
inline constexpr std::string_view PDTamblinMetadataKey = "TamblinMetadata"; // data
inline constexpr std::string_view PDApplicationSINFKey = "ApplicationSINF"; // data
inline constexpr std::string_view PDBundleIdentifierKey = "BXBundleIdentifier";
inline constexpr std::string_view PDInstallTypeKey = "PDInstallType";                           // unsigned number
inline constexpr std::string_view PDUninstallPlaceholdersOnlyKey = "UninstallPlaceholdersOnly"; // boolean

/// Why an app is being installed; the number stands in a placeholder's registration. Other numbers may come.
enum PDInstallType : std::uint64_t {
    PDInstallTypeNone = 0,
    PDInstallTypeStoreDownload = 1,
    PDInstallTypeRestore = 2,
    PDInstallTypeAutomaticDownload = 3,
    PDInstallTypeSync = 4,
    PDInstallTypeAutomaticUpdate = 5,
    PDInstallTypeMigration = 6,
    PDInstallTypeDowngrade = 7,            // offloaded by the system
    PDInstallTypeIntentionalDowngrade = 8, // offloaded by the user
};

enum PDInstallState : std::uint64_t {
    PDInstallStateWaiting = 0,
    PDInstallStateActive = 1,
    PDInstallStatePaused = 2,
    PDInstallStateCanceled = 3,
    PDInstallStateFailed = 4,
    PDInstallStateFinished = 5,
};

enum PDInstallPhase : std::uint64_t {
    PDInstallPhaseLoading = 0,
    PDInstallPhaseInstalling = 1,
    PDInstallPhaseRestoringData = 2,
    PDInstallPhaseInstallingPlaceholder = 3,
};

/// Selectors of `enumerateBundlesOfType_block`; another number selects nothing.
enum PDBundleType : std::uint64_t {
    PDBundleTypeAll = 0,       // every installed app and every placeholder; an app under update is listed as both
    PDBundleTypeInstalled = 1, // the home screen's apps, once each: the installed version, else the placeholder
    PDBundleTypeSystem = 7,    // system apps and their placeholders
};

/// The progress of one install, kept by the registry and shown on the home screen. Any thread.
class FNProgress {
  public:
    virtual ~FNProgress() = default;
    [[nodiscard]] virtual std::uint64_t installState() noexcept = 0; // a `PDInstallState`
    virtual void setInstallState(std::uint64_t state) noexcept = 0;
    [[nodiscard]] virtual std::uint64_t installPhase() noexcept = 0; // a `PDInstallPhase`
    virtual void setInstallPhase(std::uint64_t phase) noexcept = 0;
    [[nodiscard]] virtual std::int64_t totalUnitCount() noexcept = 0;
    virtual void setTotalUnitCount(std::int64_t units) noexcept = 0;
    virtual void setCompletedUnitCount(std::int64_t units) noexcept = 0;
    /// Ends the install as cancelled.
    virtual void cancel() noexcept = 0;
    [[nodiscard]] virtual std::string description() noexcept = 0;
};
using FNProgressPtr = std::shared_ptr<FNProgress>;

struct PDApplicationState {
    bool isPlaceholder = false;
    bool isInstalled = false;
};

struct PDDiskUsage {
    std::uint64_t staticUsage = 0; // bytes of the app itself, without its documents
};

/// What the registry knew of one app when the proxy was made. Any thread.
class PDApplicationProxy {
  public:
    virtual ~PDApplicationProxy() = default;
    /// The bundle identifier. Only on a device without coordination, and only in an enumeration, the placeholder of a
    /// restore has another one: it stands for an app that is still to come, and must not pass for the app's own entry.
    [[nodiscard]] virtual std::string applicationIdentifier() noexcept = 0;
    [[nodiscard]] virtual std::string bundleIdentifier() noexcept = 0;
    [[nodiscard]] virtual std::optional<std::string> bundleVersion() noexcept = 0;
    [[nodiscard]] virtual std::optional<FileURL> bundleURL() noexcept = 0;          // the app's folder
    [[nodiscard]] virtual std::optional<FileURL> bundleContainerURL() noexcept = 0; // the folder around it
    [[nodiscard]] virtual std::uint64_t installType() noexcept = 0;                 // a `PDInstallType`
    [[nodiscard]] virtual std::string applicationType() noexcept = 0;               // "User" or "System"
    [[nodiscard]] virtual bool isInstalled() noexcept = 0;
    [[nodiscard]] virtual bool isPlaceholder() noexcept = 0;
    [[nodiscard]] virtual PDApplicationState appState() noexcept = 0;
    /// The progress of the install under way; null when there is none.
    [[nodiscard]] virtual FNProgressPtr installProgressSync() noexcept = 0;
    [[nodiscard]] virtual PDDiskUsage diskUsage() noexcept = 0;
    /// Whether the app's protection record is bound to this device.
    [[nodiscard]] virtual bool hasMIDBasedSINF() noexcept = 0;
    [[nodiscard]] virtual std::string description() noexcept = 0;
};
using PDApplicationProxyPtr = std::shared_ptr<PDApplicationProxy>;
using PDApplicationProxies = std::vector<PDApplicationProxyPtr>;

/// Called by the registry on a thread of its own, one call at a time per observer. Every operation is optional.
class PDApplicationWorkspaceObserverProtocol {
  public:
    virtual ~PDApplicationWorkspaceObserverProtocol() = default;
    /// The installs under way (waiting or active), those that go first first, and those that are paused. Delivered once
    /// after an observer was added, also when there are none, then when either changes. The plan of a sync waits for
    /// that first call without a time-out.
    virtual void applicationInstallsArePrioritized_arePaused(const PDApplicationProxies& /*prioritized*/,
                                                             const PDApplicationProxies& /*paused*/) noexcept {}
    /// The installs of these apps were cancelled by a person on the device.
    virtual void applicationInstallsDidCancel(const PDApplicationProxies& /*applications*/) noexcept {}
};

/// Base of objects that exist to observe the registry.
class PDApplicationWorkspaceObserver : public PDApplicationWorkspaceObserverProtocol {};

/// Every operation may be called on any thread at any time.
class PDApplicationWorkspace {
  public:
    virtual ~PDApplicationWorkspace() = default;
    /// The observer must live until it has been removed. Its first call may come before this returns.
    virtual void addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept = 0;
    /// Returns after a running call has ended; none follows. Not to be called from within one.
    virtual void removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept = 0;
    /// Whether the registry has the app, be it installed or a placeholder.
    [[nodiscard]] virtual bool applicationIsInstalled(std::string_view bundleIdentifier) noexcept = 0;
    /// Installs an archive, which ends the app's placeholder, or a placeholder bundle, beside an installed version.
    /// What stands at `url` may be moved away; the client removes an archive that is left, and no placeholder bundle.
    /// Options: the keys above; package type and bundle identifier are required. Errors are the low-level installer's
    /// (`TVInstallerErrorDomain`); after one the installed version is as it was. Several installs may run at once.
    virtual bool installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                      ErrorPtr* error) noexcept = 0;
    virtual bool installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept = 0;
    /// Takes an install back, or removes an app. An install is under way from the moment that its placeholder or its
    /// archive is handed over, or its progress object is asked for, until it has succeeded or was taken back here.
    /// While one is, only the app's placeholder goes: what is installed is not lost because an update failed, whether
    /// or not that update ever had a placeholder. Otherwise the placeholder goes if there is one, else the app. With
    /// `PDUninstallPlaceholdersOnlyKey` the app is never removed. False when there was nothing to remove.
    virtual bool uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                                  const Dictionary* options) noexcept = 0;
    /// The progress object of an app's install, made when there is none yet; null for an app that is not a placeholder
    /// and has no install under way, and for null. `phase` is the phase that a new object starts in.
    [[nodiscard]] virtual FNProgressPtr
    installProgressForApplication_withPhase(const PDApplicationProxyPtr& application, std::uint64_t phase) noexcept = 0;
    /// Tells that the progress object's present phase is over: loading leads to installing, any other phase to the end
    /// of the install, and so does a final state in any phase. Null is passed over.
    virtual void installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept = 0;
    /// Calls `block` once per app of the type, on the caller's thread, until it sets `stop`.
    virtual void enumerateBundlesOfType_block(
        std::uint64_t type, const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept = 0;
};

class PDApplicationWorkspaceClass {
  public:
    virtual ~PDApplicationWorkspaceClass() = default;
    /// The one workspace of the device; it outlives the plug-in.
    [[nodiscard]] virtual PDApplicationWorkspace& defaultWorkspace() noexcept = 0;
};

class PDApplicationProxyClass {
  public:
    virtual ~PDApplicationProxyClass() = default;
    /// The proxy of an installed app, or with `placeholder` also of a placeholder; null when there is none.
    [[nodiscard]] virtual PDApplicationProxyPtr
    applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier, bool placeholder) noexcept = 0;
};

} // namespace appsync
