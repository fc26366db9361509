// What each service answers on a device that does not have it. A port begins with `StubServices`, writes one service
// after the other in their place, and keeps the stubs of what its device will never have.
//
// A stub has no threads: what it owes a call back is called back before it returns. The plug-in gets along with that;
// the rules of `tests/contract/` that ask for a thread of the service do not.
#pragma once

#include "platform/ApplicationRegistry.h"
#include "platform/Backup.h"
#include "platform/DevicePolicy.h"
#include "platform/FileSystem.h"
#include "platform/HomeScreen.h"
#include "platform/Icons.h"
#include "platform/InstallCoordinator.h"
#include "platform/InstallationService.h"
#include "platform/Notifications.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/PropertyListSerialization.h"
#include "platform/Scheduler.h"
#include "platform/Store.h"
#include "platform/TransactionLog.h"
#include "platform/host/Log.h"
#include "platform/host/SyncHost.h"

#include <cerrno>

namespace appsync {

/// Fails, with the reason that the device has no such service.
inline bool stubFails(std::string_view service, ErrorPtr* error) {
    if (error) {
        *error = makeError(posixErrorDomain, ENOTSUP, "This device has no " + std::string(service) + ".");
    }
    return false;
}

// The sync host.

/// Wants no message.
class StubHostLog : public HostLog {
  public:
    bool isEnabled(QRLogCategory /*category*/, LogLevel /*level*/) noexcept override { return false; }
    void write(QRLogCategory /*category*/, LogLevel /*level*/, std::string_view /*format*/,
               std::string_view /*text*/) noexcept override {}
};

/// Keeps no record.
class StubTransactionLog : public AITransactionLog {
  public:
    void initializeWithLog(const SystemLogPtr& /*log*/) noexcept override {}
    void logStep_byParty_phase_success_forBundleID_description(TransactionStep /*step*/, TransactionParty /*party*/,
                                                               TransactionPhase /*phase*/, bool /*success*/,
                                                               std::string_view /*bundleID*/,
                                                               std::string_view /*description*/) noexcept override {}
    void logScenario_step_success_forBundleID_description(std::string_view /*scenario*/, TransactionStep /*step*/,
                                                          bool /*success*/, std::string_view /*bundleID*/,
                                                          std::string_view /*description*/) noexcept override {}
};

/// Its transfers cannot be reordered or ended.
class StubDeviceServiceClass : public QRDeviceServiceClass {
  public:
    std::shared_ptr<QRDeviceService> sharedInstance() noexcept override { return nullptr; }
};

/// Every error is final.
class StubErrorClassification : public QRErrorClassification {
  public:
    bool QRIsRecoverableError(const ErrorPtr& /*error*/) noexcept override { return false; }
};

/// No daemon, so that the plug-in waits for no start-up and hears of no coordinator.
class StubHostProcess : public HostProcess {
  public:
    std::optional<std::string> mainBundleIdentifier() noexcept override { return std::nullopt; }
    std::string temporaryDirectory() noexcept override { return "/tmp"; }
};

/// No task ever runs. Enough for a home screen that denies no assertion, since nothing else is put off.
class StubScheduler : public Scheduler {
  public:
    std::shared_ptr<ScheduledTask> runAfter(std::chrono::milliseconds /*delay*/,
                                            std::function<void()> /*task*/) noexcept override {
        return std::make_shared<Task>();
    }

  private:
    struct Task : ScheduledTask {
        bool cancel() noexcept override { return true; }
    };
};

// Files.

/// Nothing is there, and nothing can be.
class StubFileSystem : public FileSystem {
  public:
    bool createDirectory(std::string_view path, bool /*withIntermediateDirectories*/,
                         const std::optional<FileAttributes>& /*attributes*/, ErrorPtr* error) noexcept override {
        return _nothingAt(path, error);
    }
    bool removeItem(std::string_view path, ErrorPtr* error) noexcept override { return _nothingAt(path, error); }
    bool moveItem(std::string_view from, std::string_view /*to*/, ErrorPtr* error) noexcept override {
        return _nothingAt(from, error);
    }
    bool copyItem(std::string_view from, std::string_view /*to*/, ErrorPtr* error) noexcept override {
        return _nothingAt(from, error);
    }
    bool fileExists(std::string_view /*path*/) noexcept override { return false; }
    std::optional<Data> readFile(std::string_view path, ErrorPtr* error) noexcept override {
        _nothingAt(path, error);
        return std::nullopt;
    }
    bool writeFileAtomically(std::string_view path, std::string_view /*bytes*/, ErrorPtr* error) noexcept override {
        return _nothingAt(path, error);
    }
    bool createFile(std::string_view /*path*/, std::string_view /*bytes*/,
                    const FileAttributes& /*attributes*/) noexcept override {
        return false;
    }
    std::optional<FileInformation> attributesOfItem(std::string_view path, ErrorPtr* error) noexcept override {
        _nothingAt(path, error);
        return std::nullopt;
    }
    int utimes(std::string_view /*path*/) noexcept override { return ENOENT; }
    std::string errorText(int errorNumber) noexcept override { return "error " + std::to_string(errorNumber); }

  private:
    static bool _nothingAt(std::string_view path, ErrorPtr* error) {
        if (error) {
            *error = makeError(posixErrorDomain, ENOENT, "This device has no file system.", path);
        }
        return false;
    }
};

/// No bytes are a property list, and no value can be written.
class StubPropertyListSerialization : public PropertyListSerialization {
  public:
    std::optional<Value> propertyListWithData(std::string_view /*bytes*/, ErrorPtr* error) noexcept override {
        stubFails("property lists", error);
        return std::nullopt;
    }
    std::optional<Data> dataWithPropertyList(const Value& /*value*/, PropertyListFormat /*format*/,
                                             ErrorPtr* error) noexcept override {
        stubFails("property lists", error);
        return std::nullopt;
    }
};

// Installing.

/// An app of a person of which a port says no more than its identifier.
class StubApplicationProxy : public PDApplicationProxy {
  public:
    std::string applicationIdentifier() noexcept override { return bundleIdentifier(); }
    std::optional<std::string> bundleVersion() noexcept override { return std::nullopt; }
    std::optional<FileURL> bundleURL() noexcept override { return std::nullopt; }
    std::optional<FileURL> bundleContainerURL() noexcept override { return std::nullopt; }
    std::uint64_t installType() noexcept override { return PDInstallTypeNone; }
    std::string applicationType() noexcept override { return "User"; }
    bool isInstalled() noexcept override { return false; }
    bool isPlaceholder() noexcept override { return false; }
    PDApplicationState appState() noexcept override {
        return {.isPlaceholder = isPlaceholder(), .isInstalled = isInstalled()};
    }
    FNProgressPtr installProgressSync() noexcept override { return nullptr; }
    PDDiskUsage diskUsage() noexcept override { return {}; }
    bool hasMIDBasedSINF() noexcept override { return false; }
    std::string description() noexcept override { return "<app " + bundleIdentifier() + ">"; }
};

/// No app is there, and none can be installed. A new observer is told so, for which the plug-in waits.
class StubApplicationWorkspace : public PDApplicationWorkspace,
                                 public PDApplicationWorkspaceClass,
                                 public PDApplicationProxyClass {
  public:
    PDApplicationWorkspace& defaultWorkspace() noexcept override { return *this; }
    PDApplicationProxyPtr applicationProxyForIdentifier_placeholder(std::string_view /*bundleIdentifier*/,
                                                                    bool /*placeholder*/) noexcept override {
        return nullptr;
    }
    void addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override {
        observer->applicationInstallsArePrioritized_arePaused({}, {});
    }
    void removeObserver(PDApplicationWorkspaceObserverProtocol* /*observer*/) noexcept override {}
    bool applicationIsInstalled(std::string_view /*bundleIdentifier*/) noexcept override { return false; }
    bool installApplication_withOptions_error(const FileURL& /*url*/, const Dictionary& /*options*/,
                                              ErrorPtr* error) noexcept override {
        return stubFails("application registry", error);
    }
    bool installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept override {
        return installApplication_withOptions_error(url, options, nullptr);
    }
    bool uninstallApplication_withOptions(std::string_view /*bundleIdentifier*/,
                                          const Dictionary* /*options*/) noexcept override {
        return false;
    }
    FNProgressPtr installProgressForApplication_withPhase(const PDApplicationProxyPtr& /*application*/,
                                                          std::uint64_t /*phase*/) noexcept override {
        return nullptr;
    }
    void installPhaseFinishedForProgress(const FNProgressPtr& /*progress*/) noexcept override {}
    void enumerateBundlesOfType_block(
        std::uint64_t /*type*/,
        const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& /*block*/) noexcept override {}
};

/// Nobody has uninstalled anything.
class StubInstallationService : public TevrinInstallationService {
  public:
    std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* /*options*/) noexcept override {
        return Dictionary{};
    }
    int TevrinClearUninstalled(const Array& /*bundleIdentifiers*/, const Dictionary* /*options*/) noexcept override {
        return 0;
    }
};

/// No coordinator is there, and none can be made. `Base` is the class of any kind of coordinator.
template <class Coordinator, class Base = KXCoordinatorClass<Coordinator>> class StubCoordinatorClass : public Base {
  public:
    std::shared_ptr<Coordinator> coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
        std::string_view /*bundleID*/, KXClientIdentifier /*client*/, bool createIfNotExisting, bool* created,
        ErrorPtr* error) noexcept override {
        if (created) {
            *created = false;
        }
        if (createIfNotExisting) {
            stubFails("install coordinator", error);
        }
        return nullptr;
    }
};

/// Installs do not go through coordinators: the plug-in makes its placeholders and installs through the registry.
class StubAppInstallCoordinatorClass
    : public StubCoordinatorClass<KXAppInstallCoordinator, KXAppInstallCoordinatorClass> {
  public:
    bool coordinationIsEnabled() noexcept override { return false; }
    bool uninstallAppWithBundleID_error(std::string_view /*bundleID*/, ErrorPtr* error) noexcept override {
        return stubFails("install coordinator", error);
    }
    void uninstallAppWithBundleID_requestUserConfirmation_completion(
        std::string_view /*bundleID*/, bool /*requestUserConfirmation*/,
        std::function<void(const ErrorPtr& error)> completion) noexcept override {
        ErrorPtr error;
        stubFails("install coordinator", &error);
        completion(error);
    }
};

/// Makes nothing that a coordinator could use, and reports on none.
class StubCoordinatorFactories : public KXPlaceholderClass,
                                 public KXPromisedTransferToPathClass,
                                 public KXAppInstallObserverClass {
  public:
    KXPlaceholderPtr initAppPlaceholderWithBundleName_bundleID_installType_client(
        std::string_view /*bundleName*/, std::string_view /*bundleID*/, std::uint64_t /*installType*/,
        KXClientIdentifier /*client*/) noexcept override {
        return nullptr;
    }
    KXPromisedTransferToPathPtr
    initWithName_client_transferPath_diskSpaceNeeded(std::string_view /*name*/, KXClientIdentifier /*client*/,
                                                     const FileURL& /*transferPath*/,
                                                     std::uint64_t /*diskSpaceNeeded*/) noexcept override {
        return nullptr;
    }
    KXPromisedTransferToPathPtr
    initWithName_client_diskSpaceNeeded(std::string_view /*name*/, KXClientIdentifier /*client*/,
                                        std::uint64_t /*diskSpaceNeeded*/) noexcept override {
        return nullptr;
    }
    std::shared_ptr<KXAppInstallObserver>
    initWithMachServiceName_forClients_delegate(std::string_view /*serviceName*/,
                                                const std::set<KXClientIdentifier>& /*clients*/,
                                                KXAppInstallObserverDelegate* /*delegate*/) noexcept override {
        return nullptr;
    }
};
class StubOutOfBandTransferClass : public KXPromisedOutOfBandTransferClass {
  public:
    KXPromisedOutOfBandTransferPtr
    initWithName_client_diskSpaceNeeded(std::string_view /*name*/, KXClientIdentifier /*client*/,
                                        std::uint64_t /*diskSpaceNeeded*/) noexcept override {
        return nullptr;
    }
};

/// Nothing is set, and so everything allowed.
class StubProfileConnectionClass : public OLProfileConnectionClass {
  public:
    std::shared_ptr<OLProfileConnection> sharedConnection() noexcept override { return std::make_shared<Connection>(); }

  private:
    struct Connection : OLProfileConnection {
        OLBoolValue effectiveBoolValueForSetting(std::string_view /*setting*/) noexcept override {
            return OLBoolValue::unset;
        }
    };
};

/// No data waits to be restored.
class StubManagerClass : public HVManagerClass {
  public:
    std::shared_ptr<HVManager> init() noexcept override { return std::make_shared<Manager>(); }

  private:
    struct Manager : HVManager {
        bool restoreDataExistsForApplicationWithBundleID_size(std::string_view /*bundleID*/,
                                                              std::uint64_t* /*size*/) noexcept override {
            return false;
        }
        bool cancelApplicationRestoreWithBundleID_error(std::string_view /*bundleID*/,
                                                        ErrorPtr* error) noexcept override {
            return stubFails("backup service", error);
        }
    };
};

/// Every receipt is up to date.
class StubSoftwareLibraryClass : public MWSoftwareLibraryClass {
  public:
    std::shared_ptr<MWSoftwareLibrary> init() noexcept override { return std::make_shared<Library>(); }

  private:
    struct Library : MWSoftwareLibrary {
        void refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr&)> completion) noexcept override {
            completion(nullptr);
        }
    };
};

// The home screen.

/// Does not run, has no order, and holds no app.
class StubHomeScreen : public HomeScreen {
  public:
    SKPort SKSSkellanBlockableServerPort() noexcept override { return 0; }
    void SKSetIconState(SKPort /*port*/, std::string_view /*iconState*/) noexcept override {}
    void SKGetFlattenedIconState(SKPort /*port*/, std::uint32_t /*format*/, const char** buffer,
                                 std::size_t* length) noexcept override {
        *buffer = nullptr;
        *length = 0;
    }
    void SKDeallocate(const char* /*buffer*/, std::size_t /*length*/) noexcept override {}
    std::shared_ptr<SKSApplicationTerminationAssertion>
    SKSApplicationTerminationAssertionCreateWithError(std::string_view /*bundleIdentifier*/, std::uint32_t /*reason*/,
                                                      std::uint8_t* errorCode) noexcept override {
        *errorCode = SKSTerminationAssertionNotFound;
        return nullptr;
    }
};

/// No name can be registered, and nobody hears a post.
class StubNotificationService : public NotificationService {
  public:
    std::uint32_t notify_register_check(std::string_view /*name*/, int* token) noexcept override {
        *token = -1;
        return ENOTSUP;
    }
    std::uint32_t notify_set_state(int /*token*/, std::uint64_t /*state*/) noexcept override { return ENOTSUP; }
    std::uint32_t notify_post(std::string_view /*name*/) noexcept override { return ENOTSUP; }
};

/// Nothing is ever posted.
class StubNotificationCenter : public NotificationCenter {
  public:
    void addObserver(void* /*observer*/, NotificationCallback /*callback*/, std::string_view /*name*/,
                     const void* /*object*/, NotificationSuspensionBehavior /*suspensionBehavior*/) noexcept override {}
    void removeObserver(void* /*observer*/, std::string_view /*name*/) noexcept override {}
};

/// No folder is a bundle, none has an icon, and no image can be encoded.
class StubIcons : public BundleClass, public IconRenderer, public ImageDestinationClass {
  public:
    std::shared_ptr<Bundle> bundleWithURL(const FileURL& /*url*/) noexcept override { return nullptr; }
    std::shared_ptr<Image> YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(
        const std::shared_ptr<Bundle>& /*bundle*/) noexcept override {
        return nullptr;
    }
    std::unique_ptr<ImageDestination> destinationWithType_count(std::string_view /*type*/,
                                                                std::size_t /*count*/) noexcept override {
        return nullptr;
    }
};

/// One stub of each service.
struct StubServices {
    StubHostLog log;
    StubTransactionLog transactionLog;
    StubDeviceServiceClass deviceService;
    StubErrorClassification errorClassification;
    StubHostProcess process;
    StubScheduler scheduler;
    StubFileSystem files;
    StubPropertyListSerialization propertyLists;
    StubApplicationWorkspace registry;
    StubInstallationService installationService;
    StubAppInstallCoordinatorClass coordinators;
    StubCoordinatorClass<KXInitiatingAppInstallCoordinator> initiatingCoordinators;
    StubCoordinatorClass<KXUpdatingAppInstallCoordinator> updatingCoordinators;
    StubCoordinatorClass<KXRestoringAppInstallCoordinator> restoringCoordinators;
    StubCoordinatorClass<KXRestoringDemotedAppInstallCoordinator> restoringDemotedCoordinators;
    StubCoordinatorFactories factories;
    StubOutOfBandTransferClass outOfBandPromises;
    StubProfileConnectionClass profileConnections;
    StubManagerClass backupManagers;
    StubSoftwareLibraryClass softwareLibraries;
    StubHomeScreen homeScreen;
    StubNotificationService notifications;
    StubNotificationCenter notificationCenter;
    StubIcons icons;
};

} // namespace appsync
