// The engine of the install coordinator: the coordinators of all apps and the work that they lead to.
//
// One lock guards the states of coordinators and placeholders, commits of their rows included. Installs run without it,
// on as many worker threads as the machine has cores. A coordinator has at most one step of work at a time: it installs
// the placeholder when that is configured, then the app when its file is there; each step that ends decides on the
// next.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "device/coordinator/CoordinatorState.h"
#include "device/coordinator/CoordinatorStore.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/coordinator/InstallObservers.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

namespace appsync::device {

enum class RemovalReason;
enum class RemovalScope;

/// Who cancels when a person does so on the device.
inline constexpr KXClientIdentifier KXClientPerson = 2;

class CoordinatorEngine {
  public:
    explicit CoordinatorEngine(const CoordinatorServices& services);
    /// Stops running installs, which go on when the device is opened again, and drops waiting ones likewise.
    ~CoordinatorEngine();
    CoordinatorEngine(const CoordinatorEngine&) = delete;
    CoordinatorEngine& operator=(const CoordinatorEngine&) = delete;

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
    template <class Reader> auto read(Reader&& reader) {
        const std::lock_guard lock(_mutex);
        return reader();
    }
    [[nodiscard]] Result<void> setOptions(const CoordinatorStatePtr& state, const TVInstallOptions& options);
    [[nodiscard]] Result<void> setODRPromises(const CoordinatorStatePtr& state, std::size_t count);
    [[nodiscard]] Result<void> setResponsibleClient(const CoordinatorStatePtr& state, KXClientIdentifier client);
    [[nodiscard]] Result<void> attachAsset(const CoordinatorStatePtr& state, const PromisePtr& promise);
    [[nodiscard]] Result<void> attachUserData(const CoordinatorStatePtr& state, const PromisePtr& promise);
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
    /// Ends an app's install and removes its placeholder; an installed version stays. Fails when the app has neither
    /// coordinator nor placeholder, and with `tooLate` when it has been installed meanwhile.
    [[nodiscard]] Result<void> takeBack(std::string_view bundleID);
    /// Removes an app with its placeholder and coordinator. Fails when it has none of them.
    [[nodiscard]] Result<void> uninstall(std::string_view bundleID, RemovalReason reason);
    /// `completion` runs on the observers' thread.
    void uninstallInBackground(std::string_view bundleID, std::function<void(const ErrorPtr&)> completion);
    void waitUntilIdle();

  private:
    using Lock = std::unique_lock<std::mutex>;
    enum class Step { none, placeholder, app, finish };
    struct Outcome {
        ErrorPtr error;                                // null: success
        std::optional<KXClientIdentifier> cancelledBy; // the outcome is a cancel
    };

    // CoordinatorConfiguration.cpp
    [[nodiscard]] Result<void> _checkOpen(const CoordinatorState& state) const;
    [[nodiscard]] Result<void> _change(const CoordinatorStatePtr& state,
                                       const std::function<void(CoordinatorFacts&)>& change);
    [[nodiscard]] Result<void> _attach(const CoordinatorStatePtr& state, PromisePtr CoordinatorState::*place,
                                       const PromisePtr& promise, PromiseRole role);

    // CoordinatorEngine.cpp
    void _advance(const CoordinatorStatePtr& state);
    [[nodiscard]] static Step _nextStep(const CoordinatorState& state);
    void _work();
    void _perform(Lock& lock, const CoordinatorStatePtr& state, Step step);
    void _placeholderWasInstalled(Lock& lock, const CoordinatorStatePtr& state);
    [[nodiscard]] bool _hasComeEarlier(const CoordinatorState& state, const ErrorPtr& error) const;
    [[nodiscard]] bool _mayGetAnotherFile(const CoordinatorState& state) const;
    void _waitForAnotherFile(Lock& lock, const CoordinatorStatePtr& state, const ErrorPtr& error);
    void _end(Lock& lock, const CoordinatorStatePtr& state, const Outcome& outcome);
    void _reportEnd(const CoordinatorStatePtr& state);
    void _report(const CoordinatorStatePtr& state, InstallObservers::Call call);

    // CoordinatorSteps.cpp
    [[nodiscard]] ErrorPtr _installPlaceholder(const CoordinatorState& state, const PlaceholderState& placeholder);
    [[nodiscard]] ErrorPtr _installApp(const CoordinatorState& state, const InstallOptionsRecord& options,
                                       const PromiseRecord& asset);
    [[nodiscard]] ErrorPtr _restoreUserData(const CoordinatorState& state);
    void _showTransfer(const CoordinatorState& state, double fraction);
    void _clearAway(const CoordinatorState& state, const Outcome& outcome);
    void _removeAsset(const PromisePtr& asset);
    void _removeIcon(const PromisePtr& icon);
    [[nodiscard]] ErrorPtr _problemAfterRestart(const CoordinatorState& state);
    [[nodiscard]] Result<void> _remove(std::string_view bundleID, RemovalReason reason, RemovalScope scope);

    const CoordinatorServices _services;
    CoordinatorStore _store;
    Group _busy; // steps that are ready or run, calls on the observers' thread
    InstallObservers _observers{_busy};
    std::atomic<std::uint64_t> _lastPromise = 0;
    std::mutex _mutex; // guards everything below
    std::condition_variable _changed;
    std::map<std::string, CoordinatorStatePtr, std::less<>> _coordinators;
    std::deque<CoordinatorStatePtr> _ready;
    bool _isWorking = false; // between `resume` and the end
    OperationQueue _workers;
};

} // namespace appsync::device
