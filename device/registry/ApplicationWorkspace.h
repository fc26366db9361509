// The registry as the platform's services present it to the sync plug-in.
#pragma once

#include "device/registry/Registry.h"
#include "platform/host/Log.h"

namespace appsync::device {

/// Removals made through it count as the sync's, not a person's.
class ApplicationWorkspace final : public PDApplicationWorkspace,
                                   public PDApplicationWorkspaceClass,
                                   public PDApplicationProxyClass {
  public:
    /// The registry must outlive the workspace and every proxy and progress object handed out, `log` the workspace. The
    /// log gets the reasons of removals that fail, for which the platform's operation has no room; it may be null.
    explicit ApplicationWorkspace(Registry& registry, HostLog* log = nullptr, bool coordinationIsEnabled = true)
        : _registry(registry), _log(log), _coordinationIsEnabled(coordinationIsEnabled) {}

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
    /// On a device without coordination a restore's placeholder is listed with the application identifier
    /// "restore.<bundle identifier>": it stands for an app that the sync is still to bring, so it must not pass for the
    /// app's own entry. Everywhere else, and with coordination, the two identifiers of a proxy are the same.
    void enumerateBundlesOfType_block(
        std::uint64_t type,
        const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept override;

    /// A demoted app is to come back: from now on its placeholder is not listed, so that a sync plans its install.
    void letReturn(std::string_view bundleIdentifier);

    [[nodiscard]] PDApplicationWorkspace& defaultWorkspace() noexcept override { return *this; }
    /// With `placeholder`, of an app that has both the placeholder.
    [[nodiscard]] PDApplicationProxyPtr applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                                  bool placeholder) noexcept override;

  private:
    [[nodiscard]] bool _isListed(const RegistryRecord& record);
    void _begin(std::string_view bundleIdentifier);
    bool _end(std::string_view bundleIdentifier);

    Registry& _registry;
    HostLog* const _log;
    const bool _coordinationIsEnabled;
    Mutex _mutex;
    std::set<std::string, std::less<>> _underWay GUARDED_BY(_mutex);  // apps that have an install under way
    std::set<std::string, std::less<>> _returning GUARDED_BY(_mutex); // demoted apps that are to come back
};

} // namespace appsync::device
