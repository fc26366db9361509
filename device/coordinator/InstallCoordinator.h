// The install coordinator of the device: durable coordinators that install one app each.
//
// Coordinators are kept in the database and found again by a later process. Each installs its app in the background:
// first the placeholder, when that has been attached and configured and its icon is there; then the app, when the asset
// promise is complete and install options are set. While a file arrives its progress shows on the home screen. A
// restoring-demoted coordinator is done with its placeholder. The two restoring kinds then give the app the data that
// waits for it; that this fails is the coordinator's error, whose app or placeholder is there nevertheless.
//
// A coordinator ends as a success, as a failure, or by a cancel; lookups no longer find it then. A failure or cancel
// takes the placeholder away and leaves an installed version as it is. Only a restoring coordinator whose app could not
// be installed, and for whose file a client is responsible, does not end: it drops the promise of that file and waits
// for another, with the app's placeholder and data; its `error` says meanwhile what was wrong with the last. The
// transferred file and the icon file belong to the coordinator once their promises are complete, and are removed with
// it; files outside "/var/mobile" and "/tmp" are left alone.
//
// Reports go to the connections for the client that created the coordinator; without one they wait for the next, and
// how a coordinator ended waits for it also beyond the end of this process. A cancel is reported unless the creator
// itself made it, so that a client's own cancel does not come back as another's.
//
// Promises and placeholders may be made by any client and become durable when they are attached. A promise that is
// cancelled cancels the coordinator it is attached to. A null promise or placeholder is refused, null store metadata is
// taken: there is none beside the app then. This device has no on-demand resources and takes none.
//
// One lock guards the states of coordinators and placeholders, commits of their rows included. A worker takes a step
// under the lock, does it without, and records under the lock what came of it. A coordinator has at most one step of
// work at a time: it installs the placeholder when that is configured, then the app when its file is there; each step
// that ends decides on the next.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "device/coordinator/CoordinatorState.h"
#include "device/coordinator/CoordinatorStore.h"
#include "device/coordinator/InstallObservers.h"
#include "platform/InstallCoordinator.h"
#include "values/Result.h"

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace appsync {
class HostLog;
} // namespace appsync

namespace appsync::device {

class DeviceFileSystem;
class Registry;
enum class RemovalReason;
enum class RemovalScope;

/// Why it refused or gave up.
inline constexpr std::string_view coordinatorErrorDomain = "DeviceInstallCoordinator";
enum class CoordinatorError : std::int64_t {
    invalidArgument = 1, // an identifier that cannot be one, an object of another device, null
    otherKind = 2,       // the app has a coordinator of another kind
    noKind = 3,          // the base class was asked to create a coordinator
    alreadySet = 4,      // what was to be set is there already, or belongs to another coordinator
    notConfigured = 5,   // something is missing that has to be set first
    ended = 6,           // the coordinator, placeholder or promise has ended or was cancelled
    tooLate = 7,         // it could not be cancelled any more; the app has been installed
    unsupported = 8,     // on-demand resources, confirmation by a person
    fileMissing = 9,     // the transferred file is gone, or none was named
    placeholderMissing = 10,
    cancelledByPerson = 11,
    uninstalled = 12, // the app was uninstalled while it was being installed
};

[[nodiscard]] inline ErrorPtr makeCoordinatorError(CoordinatorError code, std::string_view description,
                                                   std::string_view path = {}) {
    return makeError(coordinatorErrorDomain, static_cast<std::int64_t>(code), description, path);
}

/// Who cancels when a person does so on the device.
inline constexpr KXClientIdentifier KXClientPerson = 2;

/// Steps of installs that run at once: those that wait for the disk share its next flush.
inline constexpr std::size_t maxStepsAtOnce = 16;

/// A coordinator as the host's tools show it.
struct OpenCoordinator {
    std::string bundleID;
    std::string kind; // "initiating", "updating", "restoring" or "restoring-demoted"
    KXClientIdentifier creator = 0;
    KXClientIdentifier responsibleClient = 0; // 0 when none is named
    bool isPlaceholderInstalled = false;
    bool isInstalling = false; // a step of it runs or is about to
};

struct CoordinatorServices {
    DeviceFileSystem& files;
    Registry& registry;
    Database& database;
    PropertyListSerialization& propertyLists;
    HostLog* log = nullptr; // of failures that an install goes on after; null: of none
    /// Gives an app the data that waits for it, if any does.
    std::function<Result<void>(std::string_view bundleID)> restoreUserData = [](auto) { return Result<void>(); };
    /// An app will not come: its data waits no longer.
    std::function<void(std::string_view bundleID)> giveUpUserData = [](auto) {};
};

/// Everything that the plug-in's platform needs of it. The objects that these hand out must be dropped before the
/// coordinator goes.
struct CoordinatorClasses {
    KXAppInstallCoordinatorClass& coordinators;
    KXInitiatingAppInstallCoordinatorClass& initiatingCoordinators;
    KXUpdatingAppInstallCoordinatorClass& updatingCoordinators;
    KXRestoringAppInstallCoordinatorClass& restoringCoordinators;
    KXRestoringDemotedAppInstallCoordinatorClass& restoringDemotedCoordinators;
    KXPlaceholderClass& placeholders;
    KXPromisedTransferToPathClass& transferPromises;
    KXPromisedOutOfBandTransferClass& outOfBandPromises;
    KXAppInstallObserverClass& observers;
};

/// Any thread.
class InstallCoordinator {
  public:
    /// Reads the coordinators of earlier processes; fails also when the system has no thread for it. The services must
    /// outlive it.
    [[nodiscard]] static Result<std::unique_ptr<InstallCoordinator>> open(CoordinatorServices services,
                                                                          bool coordinationIsEnabled);
    /// Stops running installs, which go on when the device is opened again, and drops waiting ones likewise.
    ~InstallCoordinator();

    /// Begins to install. Coordinators of earlier processes go on; one whose file or placeholder has disappeared is
    /// settled with an error. No install begins before.
    void resume();
    [[nodiscard]] CoordinatorClasses classes() noexcept;

    // For the host.

    /// A person cancels an app's install on the home screen; false when the app has no coordinator, or when it was
    /// installed before the cancel could stop it.
    bool cancelByUser(std::string_view bundleID);
    /// A person asks for an app to come first; false when it has no coordinator. Returns when its client, if one is
    /// connected, has been told. Not to be called from a delegate.
    bool prioritizeByUser(std::string_view bundleID);
    /// A person removes an app, or stops its install.
    [[nodiscard]] Result<void> uninstallByUser(std::string_view bundleID);
    /// In the order in which they were made.
    [[nodiscard]] std::vector<OpenCoordinator> openCoordinators();
    /// Returns when no install runs or is ready to, and everything there is to report has been reported. Installs that
    /// still wait for a transfer do not count. Not to be called from a delegate.
    void waitUntilIdle() { _busy.wait(); }

    // Finding. Without a kind any coordinator of the app is meant.

    /// Null when there is none.
    [[nodiscard]] CoordinatorStatePtr find(std::string_view bundleID);
    [[nodiscard]] Result<CoordinatorStatePtr> findOrCreate(std::string_view bundleID, CoordinatorKind kind,
                                                           KXClientIdentifier client, bool& created);

    // For the handles of the clients: configuring.

    /// Reads the state under the lock.
    template <class Reader> auto read(Reader&& reader) EXCLUDES(_mutex) {
        const StatesLock lock(_mutex);
        return reader();
    }
    /// Applies `change` to a coordinator that has not ended, and writes it.
    [[nodiscard]] Result<void> change(const CoordinatorStatePtr& state,
                                      const std::function<Result<void>(CoordinatorFacts&)>& change) EXCLUDES(_mutex);
    /// For the app's file or its user data. Null is refused.
    [[nodiscard]] Result<void> attachPromise(const CoordinatorStatePtr& state, const PromisePtr& promise,
                                             PromiseRole role);
    /// Null is refused.
    [[nodiscard]] Result<void> attachPlaceholder(const CoordinatorStatePtr& state, const PlaceholderPtr& placeholder);
    /// Applies `change` to a placeholder that has been neither configured nor cancelled, and writes it if it is
    /// attached.
    [[nodiscard]] Result<void> changePlaceholder(const PlaceholderPtr& placeholder,
                                                 const std::function<Result<void>(PlaceholderFacts&)>& change);
    /// Store metadata in the form in which a placeholder keeps it.
    [[nodiscard]] Result<std::optional<Data>> metadataBytes(const std::optional<TVStoreMetadata>& metadata);

    // Promises.

    [[nodiscard]] PromisePtr makePromise(std::string_view name, KXClientIdentifier client, std::uint64_t diskSpace,
                                         std::optional<std::string> path);
    void setFraction(Promise& promise, double fraction);
    void complete(Promise& promise);

    // Cancelling.

    /// Ends a coordinator with the reason; who created it and is not `client` is told. Returns when nothing of it is
    /// left, or with `tooLate` when the app has been installed meanwhile.
    [[nodiscard]] Result<void> cancel(const CoordinatorStatePtr& state, const ErrorPtr& reason,
                                      KXClientIdentifier client);
    [[nodiscard]] Result<void> cancel(const PlaceholderPtr& placeholder, const ErrorPtr& reason,
                                      KXClientIdentifier client);
    [[nodiscard]] Result<void> cancel(Promise& promise, const ErrorPtr& reason, KXClientIdentifier client);

    // Removing.

    /// Ends an app's install and removes of the app what the scope says. Fails when there is none of all that, and with
    /// `tooLate` when the placeholder alone was meant and the app has been installed meanwhile.
    [[nodiscard]] Result<void> remove(std::string_view bundleID, RemovalReason reason, RemovalScope scope);
    /// `completion` runs on a thread of the reports.
    void uninstallInBackground(std::string_view bundleID, std::function<void(const ErrorPtr&)> completion);
    /// Runs a task on a thread of the reports, after those about the app made so far.
    void runAfterReports(std::string_view bundleID, std::function<void()> task) {
        _observers.run(std::string(bundleID), std::move(task));
    }

  private:
    enum class Step { none, placeholder, app, finish };
    /// A step that a worker has taken, with all that it needs.
    struct Job {
        CoordinatorStatePtr state;
        Step step;
        std::function<Result<void>()> perform;
    };

    struct Classes;
    explicit InstallCoordinator(CoordinatorServices services);
    [[nodiscard]] Result<void> _load();

    // CoordinatorHandles.cpp
    void _makeClasses(bool coordinationIsEnabled);
    [[nodiscard]] KXAppInstallCoordinatorPtr _handleOf(const CoordinatorStatePtr& state);

    // CoordinatorConfiguration.cpp
    [[nodiscard]] Result<void> _checkOpen(const CoordinatorState& state) const REQUIRES(coordinatorStates);

    // InstallCoordinator.cpp
    void _advance(const CoordinatorStatePtr& state) REQUIRES(coordinatorStates);
    [[nodiscard]] static Step _nextStep(const CoordinatorState& state) REQUIRES(coordinatorStates);
    void _work() EXCLUDES(_mutex);
    [[nodiscard]] std::optional<Job> _takeJob() EXCLUDES(_mutex);
    [[nodiscard]] std::function<Result<void>()> _performanceOf(const CoordinatorStatePtr& state, Step step)
        REQUIRES(coordinatorStates);
    void _record(const Job& job, const Result<void>& done) EXCLUDES(_mutex);
    void _placeholderWasInstalled(const CoordinatorStatePtr& state) EXCLUDES(_mutex);
    [[nodiscard]] bool _waitForAnotherFile(const CoordinatorStatePtr& state, const ErrorPtr& error) EXCLUDES(_mutex);
    [[nodiscard]] bool _beginEnd(const CoordinatorStatePtr& state, bool isDone, const ErrorPtr& error) EXCLUDES(_mutex);
    void _fixOutcome(CoordinatorState& state, const ErrorPtr& error, std::optional<KXClientIdentifier> cancelledBy)
        REQUIRES(coordinatorStates);
    void _completeEnd(const CoordinatorStatePtr& state) EXCLUDES(_mutex);
    void _waitForEnd(const CoordinatorState& state) REQUIRES(_mutex, coordinatorStates);
    void _report(const CoordinatorStatePtr& state, InstallObservers::Call call, std::function<void()> delivered = {});
    void _reportEnd(const CoordinatorStatePtr& state) REQUIRES(coordinatorStates);
    void _passOver(const CoordinatorState& state, const Result<void>& done);

    // CoordinatorSteps.cpp
    [[nodiscard]] Result<void> _installPlaceholder(const PlaceholderState& placeholder, const PlaceholderFacts& facts);
    [[nodiscard]] Result<void> _installApp(const CoordinatorState& state, const InstallOptionsRecord& options,
                                           const PromiseRecord& asset);
    [[nodiscard]] bool _hasComeEarlier(const CoordinatorState& state, const ErrorPtr& error) const;
    [[nodiscard]] Result<void> _restoreUserData(const CoordinatorState& state);
    void _showTransfer(const CoordinatorState& state, double fraction);
    void _clearAway(const CoordinatorState& state) EXCLUDES(_mutex);
    void _removeAsset(const PromisePtr& asset);
    void _removeIcon(const PromisePtr& icon);
    [[nodiscard]] Result<void> _checkAfterRestart(const CoordinatorState& state) const REQUIRES(coordinatorStates);

    const CoordinatorServices _services;
    CoordinatorStore _store;
    Group _busy; // steps that are ready or run, calls on the reports' threads
    InstallObservers _observers{_busy};
    std::atomic<std::uint64_t> _lastPromise = 0;
    Mutex _mutex; // held as a `StatesLock`
    Condition _changed;
    std::map<std::string, CoordinatorStatePtr, std::less<>> _coordinators GUARDED_BY(coordinatorStates);
    std::deque<CoordinatorStatePtr> _ready GUARDED_BY(coordinatorStates);
    bool _isWorking GUARDED_BY(coordinatorStates) = false; // between `resume` and the end
    OperationQueue _workers{maxStepsAtOnce};
    std::shared_ptr<Classes> _classes;
};

} // namespace appsync::device
