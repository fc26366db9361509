// The application registry in memory.
#pragma once

#include "concurrency/OperationQueue.h"
#include "platform/ApplicationRegistry.h"
#include "tests/inmemory/Context.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace appsync::inmemory {

/// A progress object that writes its setters into the journal as "progress(ID).setter(value)".
class Progress final : public FNProgress {
  public:
    Progress(Context& context, std::string identifier) : _context(context), _identifier(std::move(identifier)) {}
    std::uint64_t installState() noexcept override;
    void setInstallState(std::uint64_t newState) noexcept override;
    std::uint64_t installPhase() noexcept override;
    void setInstallPhase(std::uint64_t newPhase) noexcept override;
    std::int64_t totalUnitCount() noexcept override;
    void setTotalUnitCount(std::int64_t units) noexcept override;
    void setCompletedUnitCount(std::int64_t units) noexcept override;
    void cancel() noexcept override;
    std::string description() noexcept override { return "<progress " + _identifier + ">"; }

    std::atomic<std::uint64_t> state = 0;
    std::atomic<std::uint64_t> phase = 0;
    std::atomic<std::int64_t> total = 0;
    std::atomic<std::int64_t> completed = 0;
    /// Runs when the state has changed.
    std::function<void()> changed = [] {};

  private:
    void _record(std::string_view setter, std::int64_t value);

    Context& _context;
    const std::string _identifier;
};

/// One app as a test describes it; also its proxy. Reading it leaves no trace in the journal.
struct Application final : PDApplicationProxy {
    std::string identifier;
    std::optional<std::string> registeredAs; // the application identifier where it is not the bundle's
    std::optional<std::string> version;
    std::string bundlePath;
    std::string containerPath;
    std::uint64_t type = 0;
    std::string kind = "User";
    bool installed = true;
    bool placeholder = false;
    std::optional<bool> placeholderByState; // its state, where that says otherwise
    bool answersForInstalled = false;       // a placeholder that is also found when installed apps are asked for
    std::uint64_t size = 0;
    bool boundToDevice = false; // its protection record
    std::shared_ptr<Progress> progress;

    std::string applicationIdentifier() noexcept override { return registeredAs.value_or(identifier); }
    std::string bundleIdentifier() noexcept override { return identifier; }
    std::optional<std::string> bundleVersion() noexcept override { return version; }
    std::optional<FileURL> bundleURL() noexcept override { return FileURL::fileURLWithPath(bundlePath, true); }
    std::optional<FileURL> bundleContainerURL() noexcept override {
        return FileURL::fileURLWithPath(containerPath, true);
    }
    std::uint64_t installType() noexcept override { return type; }
    std::string applicationType() noexcept override { return kind; }
    bool isInstalled() noexcept override { return installed; }
    bool isPlaceholder() noexcept override { return placeholder; }
    PDApplicationState appState() noexcept override { return {placeholderByState.value_or(placeholder), installed}; }
    FNProgressPtr installProgressSync() noexcept override { return progress; }
    PDDiskUsage diskUsage() noexcept override { return {size}; }
    bool hasMIDBasedSINF() noexcept override { return boundToDevice; }
    std::string description() noexcept override { return "<app " + identifier + ">"; }
};
using ApplicationPtr = std::shared_ptr<Application>;

/// Tells a query once what is under way, from a thread of its own and when the query waits for it, so that the journal
/// has one order; with `reportsChanges` it tells every observer, from the first moment on.
class Registry final : public PDApplicationWorkspace,
                       public PDApplicationWorkspaceClass,
                       public PDApplicationProxyClass {
  public:
    explicit Registry(Context& context) : _context(context) {}
    ~Registry() override;

    PDApplicationWorkspace& defaultWorkspace() noexcept override { return *this; }
    PDApplicationProxyPtr applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                    bool placeholder) noexcept override;
    void addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    void removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    bool applicationIsInstalled(std::string_view bundleIdentifier) noexcept override;
    bool installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                              ErrorPtr* error) noexcept override;
    bool installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept override;
    bool uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                          const Dictionary* options) noexcept override;
    FNProgressPtr installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                          std::uint64_t phase) noexcept override;
    void installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept override;
    void enumerateBundlesOfType_block(
        std::uint64_t type,
        const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept override;

    // What a test prepares and looks at.

    ApplicationPtr addInstalled(std::string identifier, std::string version = "1.0");
    ApplicationPtr addPlaceholder(std::string identifier, std::uint64_t installType = PDInstallTypeSync);
    std::shared_ptr<Progress> addProgress(const ApplicationPtr& application, std::uint64_t state, std::uint64_t phase);
    /// Takes an app's placeholder, or the app itself, away.
    void remove(std::string_view identifier, bool placeholder);
    [[nodiscard]] std::vector<ApplicationPtr> applications() const;
    [[nodiscard]] ApplicationPtr find(std::string_view identifier, bool placeholder) const;
    [[nodiscard]] std::vector<PDApplicationWorkspaceObserverProtocol*> observers() const;
    /// What a person does on the home screen.
    void remove(std::string_view identifier);
    void cancelInstall(std::string_view identifier);

    /// Whether an app that waits gets a progress object when it is asked for; otherwise only `addProgress` makes one.
    bool makesProgress = false;
    /// Whether observers are told of the installs under way and of cancels, on the registry's thread.
    bool reportsChanges = false;
    /// Whether a restore's placeholder is listed under an application identifier of its own.
    bool listsRestoresApart = false;
    /// Whether the home screen's apps include those of the system.
    bool listsSystemApps = false;
    /// Whether a query is ever answered.
    bool answersQueries = true;
    /// Whether a query is answered before it has been added, on the caller's thread.
    bool answersAtOnce = false;
    /// The lists of the first report; null proxies are allowed in neither.
    PDApplicationProxies prioritized;
    PDApplicationProxies paused;

  private:
    struct Observation {
        PDApplicationWorkspaceObserverProtocol* observer;
        std::mutex calling; // held during a call; guards the rest
        bool isRemoved = false;
        std::optional<std::pair<PDApplicationProxies, PDApplicationProxies>> told;
    };
    using ObservationPtr = std::shared_ptr<Observation>;

    ApplicationPtr _find(std::string_view identifier, bool placeholder) const;
    ApplicationPtr _add(std::string identifier, bool isPlaceholder);
    bool _install(const FileURL& url, const Dictionary& options, ErrorPtr* error);
    void _answerQuery(PDApplicationWorkspaceObserver* query);
    void _reportChange();
    std::pair<PDApplicationProxies, PDApplicationProxies> _underWay() const;
    std::vector<ObservationPtr> _observationList() const;

    Context& _context;
    mutable std::mutex _mutex;
    std::vector<ApplicationPtr> _applications;
    std::set<std::string> _begun; // apps that have an install under way
    std::vector<ObservationPtr> _observations;
    std::vector<std::thread> _answers;
    OperationQueue _reports{1};
};

} // namespace appsync::inmemory
