// The engine of the install coordinator: the coordinators of all apps and the work that they lead to.
//
// One lock guards the states of coordinators and placeholders, commits of their rows included. A worker takes a step
// under the lock, does it without, and records under the lock what came of it; there are as many workers as the machine
// has cores. A coordinator has at most one step of work at a time: it installs the placeholder when that is configured,
// then the app when its file is there; each step that ends decides on the next.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "device/coordinator/CoordinatorState.h"
#include "device/coordinator/CoordinatorStore.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/coordinator/InstallObservers.h"

#include <atomic>
#include <deque>
#include <map>

namespace appsync::device {

enum class RemovalReason;
enum class RemovalScope;

/// Who cancels when a person does so on the device.
inline constexpr KXClientIdentifier KXClientPerson = 2;

/// Steps of installs that run at once, as many as a plug-in's own: those that wait for the disk share its next flush.
inline constexpr std::size_t maxStepsAtOnce = 10;

class CoordinatorEngine {
  public:
    explicit CoordinatorEngine(const CoordinatorServices& services);
    /// Stops running installs, which go on when the device is opened again, and drops waiting ones likewise.
    ~CoordinatorEngine();
    CoordinatorEngine(const CoordinatorEngine&) = delete;
    CoordinatorEngine& operator=(const CoordinatorEngine&) = delete;

    /// Fails also when the system has no thread for it.
    [[nodiscard]] Result<void> load();
    /// Settles what an earlier process left, and begins to work.
    void resume();
    [[nodiscard]] InstallObservers& observers() noexcept { return _observers; }

    // Finding. Without a kind any coordinator of the app is meant.

    /// Null when there is none.
    [[nodiscard]] CoordinatorStatePtr find(std::string_view bundleID);
    [[nodiscard]] Result<CoordinatorStatePtr> findOrCreate(std::string_view bundleID, CoordinatorKind kind,
                                                           KXClientIdentifier client, bool& created);
    [[nodiscard]] std::vector<OpenCoordinator> openCoordinators();

    // Configuring.

    /// Reads the state under the lock.
    template <class Reader> auto read(Reader&& reader) EXCLUDES(_mutex) {
        const Lock lock(_mutex);
        return reader();
    }
    [[nodiscard]] Result<void> setOptions(const CoordinatorStatePtr& state, const TVInstallOptions& options);
    [[nodiscard]] Result<void> setODRPromises(const CoordinatorStatePtr& state, std::size_t count);
    [[nodiscard]] Result<void> setResponsibleClient(const CoordinatorStatePtr& state, KXClientIdentifier client);
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

    // Of the whole device.

    [[nodiscard]] bool prioritize(std::string_view bundleID);
    /// Ends an app's install and removes of the app what the scope says. Fails when there is none of all that, and with
    /// `tooLate` when the placeholder alone was meant and the app has been installed meanwhile.
    [[nodiscard]] Result<void> remove(std::string_view bundleID, RemovalReason reason, RemovalScope scope);
    /// `completion` runs on a thread of the observers, after what was reported of the app.
    void uninstallInBackground(std::string_view bundleID, std::function<void(const ErrorPtr&)> completion);
    void waitUntilIdle();

  private:
    enum class Step { none, placeholder, app, finish };
    /// A step that a worker has taken, with all that it needs.
    struct Job {
        CoordinatorStatePtr state;
        Step step;
        std::function<Result<void>()> perform;
    };

    // CoordinatorConfiguration.cpp
    [[nodiscard]] Result<void> _checkOpen(const CoordinatorState& state) const REQUIRES(_mutex);
    [[nodiscard]] Result<void> _change(const CoordinatorStatePtr& state,
                                       const std::function<void(CoordinatorFacts&)>& change) EXCLUDES(_mutex);

    // CoordinatorEngine.cpp
    void _advance(const CoordinatorStatePtr& state) REQUIRES(_mutex);
    [[nodiscard]] static Step _nextStep(const CoordinatorState& state);
    void _work() EXCLUDES(_mutex);
    [[nodiscard]] std::optional<Job> _takeJob() EXCLUDES(_mutex);
    [[nodiscard]] std::function<Result<void>()> _performanceOf(const CoordinatorStatePtr& state, Step step)
        REQUIRES(_mutex);
    void _record(const Job& job, const Result<void>& done) EXCLUDES(_mutex);
    void _placeholderWasInstalled(const CoordinatorStatePtr& state) EXCLUDES(_mutex);
    [[nodiscard]] bool _waitForAnotherFile(const CoordinatorStatePtr& state, const ErrorPtr& error) EXCLUDES(_mutex);
    [[nodiscard]] bool _beginEnd(const CoordinatorStatePtr& state, bool isDone, const ErrorPtr& error) EXCLUDES(_mutex);
    void _fixOutcome(CoordinatorState& state, const ErrorPtr& error, std::optional<KXClientIdentifier> cancelledBy)
        REQUIRES(_mutex);
    void _completeEnd(const CoordinatorStatePtr& state) EXCLUDES(_mutex);
    void _waitForEnd(const CoordinatorState& state) REQUIRES(_mutex);
    void _reportEnd(const CoordinatorStatePtr& state);
    void _report(const CoordinatorStatePtr& state, InstallObservers::Call call);
    void _passOver(const CoordinatorState& state, const Result<void>& done);

    // CoordinatorSteps.cpp
    [[nodiscard]] Result<void> _installPlaceholder(const CoordinatorState& state, const PlaceholderState& placeholder);
    [[nodiscard]] Result<void> _installApp(const CoordinatorState& state, const InstallOptionsRecord& options,
                                           const PromiseRecord& asset);
    [[nodiscard]] bool _hasComeEarlier(const CoordinatorState& state, const ErrorPtr& error) const;
    [[nodiscard]] Result<void> _restoreUserData(const CoordinatorState& state);
    void _showTransfer(const CoordinatorState& state, double fraction);
    void _clearAway(const CoordinatorState& state);
    void _removeAsset(const PromisePtr& asset);
    void _removeIcon(const PromisePtr& icon);
    [[nodiscard]] Result<void> _checkAfterRestart(const CoordinatorState& state) const;

    const CoordinatorServices _services;
    CoordinatorStore _store;
    Group _busy; // steps that are ready or run, calls on the observers' threads
    InstallObservers _observers{_busy};
    std::atomic<std::uint64_t> _lastPromise = 0;
    Mutex _mutex; // guards also what can change of the coordinators' and placeholders' states
    Condition _changed;
    std::map<std::string, CoordinatorStatePtr, std::less<>> _coordinators GUARDED_BY(_mutex);
    std::deque<CoordinatorStatePtr> _ready GUARDED_BY(_mutex);
    bool _isWorking GUARDED_BY(_mutex) = false; // between `resume` and the end
    OperationQueue _workers;
};

} // namespace appsync::device
