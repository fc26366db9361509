#include "host/session/InstallOutcomes.h"

#include "host/transfer/TransferQueue.h"

namespace appsync::host {

void InstallOutcomes::installEnded(std::string_view identifier, const ErrorPtr& error) {
    {
        const Lock lock(_mutex);
        _outcomes[std::string(identifier)] = error;
    }
    _listener(identifier, error);
}

std::optional<ErrorPtr> InstallOutcomes::outcomeOf(std::string_view identifier) const {
    const Lock lock(_mutex);
    const auto found = _outcomes.find(identifier);
    return found != _outcomes.end() ? std::optional(found->second) : std::nullopt;
}

void InstallOutcomes::expectCancel(std::string_view identifier) {
    const Lock lock(_mutex);
    _cancelled.emplace(identifier);
}

void InstallOutcomes::withdrawCancel(std::string_view identifier) {
    const Lock lock(_mutex);
    if (const auto cancelled = _cancelled.find(identifier); cancelled != _cancelled.end()) {
        _cancelled.erase(cancelled);
    }
}

bool InstallOutcomes::isCancelled(std::string_view identifier) const {
    const Lock lock(_mutex);
    return _cancelled.contains(identifier);
}

void InstallOutcomes::coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    installEnded(coordinator->bundleID().value_or(""), coordinator->error());
}

void InstallOutcomes::coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator,
                                                            const ErrorPtr& reason,
                                                            KXClientIdentifier /*client*/) noexcept {
    installEnded(coordinator->bundleID().value_or(""), reason);
}

void ObservedWorkspace::refuse(std::string_view bundleIdentifier) {
    const Lock lock(_mutex);
    _refused.emplace(bundleIdentifier);
}

bool ObservedWorkspace::_isRefused(std::string_view bundleIdentifier) const {
    const Lock lock(_mutex);
    return _refused.contains(bundleIdentifier);
}

void ObservedWorkspace::addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _workspace.addObserver(observer);
}

void ObservedWorkspace::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _workspace.removeObserver(observer);
}

bool ObservedWorkspace::applicationIsInstalled(std::string_view bundleIdentifier) noexcept {
    return _workspace.applicationIsInstalled(bundleIdentifier);
}

bool ObservedWorkspace::installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                             ErrorPtr* error) noexcept {
    const auto identifier = options.string(PDBundleIdentifierKey).value_or("");
    ErrorPtr failure = _isRefused(identifier) ? cancelledByUserError() : nullptr;
    const bool installed = !failure && _workspace.installApplication_withOptions_error(url, options, &failure);
    _outcomes.installEnded(identifier, installed ? nullptr : failure);
    if (error) {
        *error = failure;
    }
    return installed;
}

bool ObservedWorkspace::installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept {
    return _workspace.installApplication_withOptions(url, options);
}

bool ObservedWorkspace::uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                                         const Dictionary* options) noexcept {
    return _workspace.uninstallApplication_withOptions(bundleIdentifier, options);
}

FNProgressPtr ObservedWorkspace::installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                         std::uint64_t phase) noexcept {
    return _workspace.installProgressForApplication_withPhase(application, phase);
}

void ObservedWorkspace::installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept {
    _workspace.installPhaseFinishedForProgress(progress);
}

void ObservedWorkspace::enumerateBundlesOfType_block(
    std::uint64_t type, const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept {
    _workspace.enumerateBundlesOfType_block(type, block);
}

} // namespace appsync::host
