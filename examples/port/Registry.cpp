#include "Registry.h"

#include "platform/InstallationService.h"
#include "platform/stubs/Stubs.h"

#include <atomic>

namespace port {

namespace {

class Progress final : public FNProgress {
  public:
    Progress(Registry& registry, std::uint64_t phase) : _registry(registry), _phase(phase) {}
    std::uint64_t installState() noexcept override { return _state; }
    void setInstallState(std::uint64_t state) noexcept override {
        _state = state;
        _registry.tellInstalls();
    }
    std::uint64_t installPhase() noexcept override { return _phase; }
    void setInstallPhase(std::uint64_t phase) noexcept override { _phase = phase; }
    std::int64_t totalUnitCount() noexcept override { return _total; }
    void setTotalUnitCount(std::int64_t units) noexcept override { _total = units; }
    void setCompletedUnitCount(std::int64_t units) noexcept override { _completed = units; }
    void cancel() noexcept override { setInstallState(PDInstallStateCanceled); }
    std::string description() noexcept override {
        return std::to_string(_completed) + " of " + std::to_string(_total) + " units";
    }

  private:
    Registry& _registry;
    std::atomic<std::uint64_t> _state = PDInstallStateWaiting;
    std::atomic<std::uint64_t> _phase;
    std::atomic<std::int64_t> _total = 0;
    std::atomic<std::int64_t> _completed = 0;
};

class Proxy final : public StubApplicationProxy {
  public:
    explicit Proxy(App app, bool isListed = false) : _app(std::move(app)), _isListed(isListed) {}
    /// This device has no coordination: in a list, the placeholder of a restore is not the app's own entry.
    std::string applicationIdentifier() noexcept override {
        const bool isApart = _isListed && _app.isPlaceholder && _app.installType == PDInstallTypeRestore;
        return (isApart ? "restore." : "") + _app.identifier;
    }
    std::string bundleIdentifier() noexcept override { return _app.identifier; }
    std::optional<std::string> bundleVersion() noexcept override { return _app.version; }
    std::optional<FileURL> bundleURL() noexcept override {
        return FileURL::fileURLWithPath(_app.container() + "/App.app", true);
    }
    std::optional<FileURL> bundleContainerURL() noexcept override {
        return FileURL::fileURLWithPath(_app.container(), true);
    }
    std::uint64_t installType() noexcept override { return _app.installType; }
    std::string applicationType() noexcept override { return _app.isSystem ? "System" : "User"; }
    bool isInstalled() noexcept override { return !_app.isPlaceholder; }
    bool isPlaceholder() noexcept override { return _app.isPlaceholder; }
    FNProgressPtr installProgressSync() noexcept override { return _app.progress; }
    PDDiskUsage diskUsage() noexcept override { return {_app.size}; }

  private:
    const App _app;
    const bool _isListed;
};

Result<void> refused(std::string_view reason, std::string_view path = {}) {
    return makeError(TVInstallerErrorDomain, 1, reason, path);
}

} // namespace

// Apps and placeholders.

void Registry::put(App app) {
    const std::lock_guard lock(_mutex);
    _installed[app.identifier] = std::move(app);
}

PDApplicationProxyPtr Registry::_proxy(const Apps& apps, std::string_view identifier) {
    const auto found = apps.find(identifier);
    if (found == apps.end()) {
        return nullptr;
    }
    App app = found->second;
    const auto progress = _progress.find(identifier);
    app.progress = progress != _progress.end() ? progress->second : nullptr;
    return std::make_shared<Proxy>(std::move(app));
}

PDApplicationProxyPtr Registry::applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                          bool placeholder) noexcept {
    const std::lock_guard lock(_mutex);
    const auto proxy = placeholder ? _proxy(_placeholders, bundleIdentifier) : nullptr;
    return proxy ? proxy : _proxy(_installed, bundleIdentifier);
}

bool Registry::applicationIsInstalled(std::string_view bundleIdentifier) noexcept {
    return applicationProxyForIdentifier_placeholder(bundleIdentifier, true) != nullptr;
}

void Registry::enumerateBundlesOfType_block(
    std::uint64_t type, const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept {
    std::vector<App> apps;
    {
        const std::lock_guard lock(_mutex);
        for (const auto& [identifier, app] : _installed) {
            if (type == PDBundleTypeAll || type == (app.isSystem ? PDBundleTypeSystem : PDBundleTypeInstalled)) {
                apps.push_back(app);
            }
        }
        for (const auto& [identifier, app] : _placeholders) {
            const bool hasIcon = !app.isSystem && !_installed.contains(identifier);
            if (type == PDBundleTypeAll || (type == PDBundleTypeInstalled && hasIcon) ||
                (type == PDBundleTypeSystem && app.isSystem)) {
                apps.push_back(app);
            }
        }
    }
    bool stop = false;
    for (auto app = apps.begin(); app != apps.end() && !stop; ++app) {
        block(std::make_shared<Proxy>(*app, true), stop); // without the lock, since it may use the registry
    }
}

// Installing.

bool Registry::installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                                    ErrorPtr* error) noexcept {
    const auto installed = _install(url, options);
    if (!installed && error) {
        *error = installed.error();
    }
    tellInstalls();
    return bool(installed);
}

bool Registry::installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept {
    return installApplication_withOptions_error(url, options, nullptr);
}

Result<void> Registry::_install(const FileURL& url, const Dictionary& options) {
    const auto type = options.string(PDPackageTypeKey);
    const std::string identifier(options.string(PDBundleIdentifierKey).value_or(""));
    if (identifier.empty() || (type != PDPackageTypeCustomer && type != PDPackageTypePlaceholder)) {
        return refused("An install needs a package type and a bundle identifier.");
    }
    const bool isPlaceholder = type == PDPackageTypePlaceholder;
    const std::lock_guard lock(_mutex);
    _underWay.insert(identifier);
    auto app = _read(url, identifier, isPlaceholder);
    if (!app) {
        return app.error();
    }
    if (const Value* installType = options.find(PDInstallTypeKey)) {
        app->installType = installType->unsignedInteger().value_or(PDInstallTypeNone);
    }
    const auto installed = _installed.find(identifier);
    app->isSystem = installed != _installed.end() && installed->second.isSystem;
    if (const auto metadata = options.data(PDTamblinMetadataKey)) {
        _files.createFile(app->container() + "/TamblinMetadata.plist", metadata->bytes(), {});
    }
    if (!isPlaceholder) { // the install has succeeded
        _removeFrom(_placeholders, identifier);
        _underWay.erase(identifier);
        _progress.erase(identifier);
    }
    (isPlaceholder ? _placeholders : _installed)[identifier] = std::move(*app);
    return {};
}

/// Checks what is to be installed before it touches what is there; after that nothing can fail on this device.
Result<App> Registry::_read(const FileURL& url, const std::string& identifier, bool isPlaceholder) {
    const auto bytes = _files.readFile(url.path() + (isPlaceholder ? "/Info.plist" : ""), nullptr);
    const auto info = bytes ? _propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
    if (!info || !info->dictionary() || info->dictionary()->string(PDBundleIdentifierKey) != identifier) {
        return refused("This is not the app that it should be.", url.path()).error();
    }
    App app{.identifier = identifier, .isPlaceholder = isPlaceholder, .size = bytes->size()};
    if (const auto version = info->dictionary()->string("BXBundleVersion")) {
        app.version = *version;
    }
    const std::string folder = app.container() + "/App.app";
    _files.removeItem(app.container(), nullptr);
    ErrorPtr error;
    if (!_files.createDirectory(folder, true, std::nullopt, &error) ||
        !_files.writeFileAtomically(folder + "/Info.plist", bytes->bytes(), &error)) {
        return makeError(TVInstallerErrorDomain, 1, errorText(error), folder);
    }
    return app;
}

void Registry::_removeFrom(Apps& apps, const std::string& identifier) {
    if (const auto app = apps.find(identifier); app != apps.end()) {
        _files.removeItem(app->second.container(), nullptr);
        apps.erase(app);
    }
}

/// While an install is under way only its placeholder goes: an update that failed costs no installed version.
bool Registry::uninstallApplication_withOptions(std::string_view bundleIdentifier, const Dictionary* options) noexcept {
    const std::string identifier(bundleIdentifier);
    bool isRemoved = false;
    {
        const std::lock_guard lock(_mutex);
        const bool wasUnderWay = _underWay.erase(identifier) > 0;
        const bool takesApp = !wasUnderWay && (!options || !options->truth(PDUninstallPlaceholdersOnlyKey));
        _progress.erase(identifier);
        Apps& apps = takesApp && !_placeholders.contains(identifier) ? _installed : _placeholders;
        isRemoved = apps.contains(identifier);
        _removeFrom(apps, identifier);
    }
    tellInstalls();
    return isRemoved;
}

// Progress.

FNProgressPtr Registry::installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                                std::uint64_t phase) noexcept {
    if (!application) {
        return nullptr;
    }
    const std::string identifier = application->bundleIdentifier();
    FNProgressPtr progress;
    {
        const std::lock_guard lock(_mutex);
        const bool wasUnderWay = !_underWay.insert(identifier).second || _placeholders.contains(identifier);
        if (!wasUnderWay) {
            return nullptr;
        }
        FNProgressPtr& known = _progress[identifier];
        if (known) {
            return known;
        }
        progress = known = std::make_shared<Progress>(*this, phase);
    }
    tellInstalls();
    return progress;
}

void Registry::installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept {
    if (!progress) {
        return;
    }
    if (progress->installPhase() == PDInstallPhaseLoading && progress->installState() < PDInstallStateCanceled) {
        progress->setInstallPhase(PDInstallPhaseInstalling);
        return;
    }
    {
        const std::lock_guard lock(_mutex);
        std::erase_if(_progress, [&](const auto& known) { return known.second == progress; });
    }
    tellInstalls();
}

// Observers.

void Registry::addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    const std::lock_guard lock(_mutex); // so that no older lists come after newer ones
    _observers.add(observer, _installs());
}

void Registry::removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept {
    _observers.remove(observer);
}

void Registry::tellInstalls() {
    const std::lock_guard lock(_mutex);
    _observers.callAll(_installs());
}

Observers::Call Registry::_installs() {
    PDApplicationProxies prioritized;
    PDApplicationProxies paused;
    for (const auto& [identifier, progress] : _progress) {
        const auto placeholder = _proxy(_placeholders, identifier);
        const std::uint64_t state = progress->installState();
        if (placeholder && state <= PDInstallStatePaused) {
            (state == PDInstallStatePaused ? paused : prioritized).push_back(placeholder);
        }
    }
    return [prioritized, paused](Observers::Observer& observer) {
        observer.applicationInstallsArePrioritized_arePaused(prioritized, paused);
    };
}

void Registry::cancel(const std::string& identifier) {
    PDApplicationProxyPtr cancelled;
    FNProgressPtr progress;
    {
        const std::lock_guard lock(_mutex);
        cancelled = _proxy(_placeholders, identifier);
        if (!cancelled) {
            return;
        }
        progress = cancelled->installProgressSync();
        _progress.erase(identifier);
        _removeFrom(_placeholders, identifier);
    }
    if (progress) {
        progress->cancel();
    }
    _observers.callAll(
        [cancelled](Observers::Observer& observer) { observer.applicationInstallsDidCancel({cancelled}); });
}

} // namespace port
