// How each install of a sync ended, as the device's services report it.
#pragma once

#include "concurrency/Mutex.h"
#include "platform/ApplicationRegistry.h"
#include "platform/InstallCoordinator.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace appsync::host {

/// Listens to the install coordinator beside the plug-in, and is told of the plug-in's own installs. Any thread.
class InstallOutcomes final : public KXAppInstallObserverDelegate {
  public:
    /// Called for each install that ends, on the thread that reports it; `error` is null on success.
    using Listener = std::function<void(std::string_view identifier, const ErrorPtr& error)>;

    explicit InstallOutcomes(Listener listener) : _listener(std::move(listener)) {}

    void installEnded(std::string_view identifier, const ErrorPtr& error);
    /// The outcome of an app's install: an error, or null for success; nullopt while it has not ended.
    [[nodiscard]] std::optional<ErrorPtr> outcomeOf(std::string_view identifier) const;

    /// A person is about to take an app's install back; what is reported of it from now on is a cancel.
    void expectCancel(std::string_view identifier);
    /// There was nothing to take back.
    void withdrawCancel(std::string_view identifier);
    [[nodiscard]] bool isCancelled(std::string_view identifier) const;

    void coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator, const ErrorPtr& reason,
                                               KXClientIdentifier client) noexcept override;

  private:
    const Listener _listener;
    mutable Mutex _mutex;
    std::map<std::string, ErrorPtr, std::less<>> _outcomes GUARDED_BY(_mutex);
    std::set<std::string, std::less<>> _cancelled GUARDED_BY(_mutex);
};

/// The registry's workspace as the plug-in gets it: passes every call on, and tells how installs ended. Any thread.
class ObservedWorkspace final : public PDApplicationWorkspace, public PDApplicationWorkspaceClass {
  public:
    /// Both must outlive the workspace.
    ObservedWorkspace(PDApplicationWorkspace& workspace, InstallOutcomes& outcomes)
        : _workspace(workspace), _outcomes(outcomes) {}

    /// From now on, archives of this app are not installed: a person does not want it.
    void refuse(std::string_view bundleIdentifier);

    PDApplicationWorkspace& defaultWorkspace() noexcept override { return *this; }
    void addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    void removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    [[nodiscard]] bool applicationIsInstalled(std::string_view bundleIdentifier) noexcept override;
    bool installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                              ErrorPtr* error) noexcept override;
    bool installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept override;
    bool uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                          const Dictionary* options) noexcept override;
    [[nodiscard]] FNProgressPtr installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                        std::uint64_t phase) noexcept override;
    void installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept override;
    void enumerateBundlesOfType_block(
        std::uint64_t type,
        const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept override;

  private:
    [[nodiscard]] bool _isRefused(std::string_view bundleIdentifier) const;

    PDApplicationWorkspace& _workspace;
    InstallOutcomes& _outcomes;
    mutable Mutex _mutex;
    std::set<std::string, std::less<>> _refused GUARDED_BY(_mutex);
};

} // namespace appsync::host
