#include "device/registry/Registry.h"

#include "device/registry/RegistryImplementation.h"

namespace appsync::device {

namespace {

class Subscription final : public RegistrySubscription {
  public:
    Subscription(Announcer& announcer, std::function<void()> changed)
        : _announcer(announcer), _number(announcer.subscribe(std::move(changed))) {}
    ~Subscription() override { _announcer.unsubscribe(_number); }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

  private:
    Announcer& _announcer;
    const std::uint64_t _number;
};

Application describe(const RegistryTable::App& app, InstallProgress* progress) {
    const RegistryRecord& shown = app.installed ? *app.installed : *app.placeholder;
    Application application;
    application.identifier = shown.identifier;
    application.name = shown.name;
    application.version = shown.version;
    application.isInstalled = app.installed != nullptr;
    application.isPlaceholder = app.placeholder != nullptr;
    application.isSystem = shown.isSystem;
    application.installType = app.placeholder ? app.placeholder->installType : shown.installType;
    application.iconPath = shown.iconPath();
    application.bundlePath = shown.bundlePath();
    application.containerPath = shown.containerPath();
    application.dataContainerPath = dataContainerPath(shown.identifier);
    if (progress) {
        application.progress = progress->fraction();
        application.installState = progress->installState();
        application.installPhase = progress->installPhase();
    }
    return application;
}

} // namespace

Registry::Registry(std::unique_ptr<Implementation> implementation) : _implementation(std::move(implementation)) {}

Registry::~Registry() = default;

Result<std::unique_ptr<Registry>> Registry::open(Root& root, Database& database,
                                                 PropertyListSerialization& propertyLists, RegistryOptions options) {
    auto implementation = std::make_unique<Implementation>(root, database, propertyLists, options);
    if (const auto loaded = implementation->load(); !loaded) {
        return loaded.error();
    }
    return std::unique_ptr<Registry>(new Registry(std::move(implementation)));
}

Result<Settlement> Registry::settle() {
    return _implementation->settle();
}

std::vector<Application> Registry::applications() const {
    std::vector<Application> applications;
    for (const RegistryTable::App& app : _implementation->table().all()) {
        const RegistryRecord& record = app.installed ? *app.installed : *app.placeholder;
        applications.push_back(describe(app, _implementation->table().findProgress(record.identifier).get()));
    }
    return applications;
}

std::optional<Application> Registry::application(std::string_view identifier) const {
    const auto app = _implementation->table().find(identifier);
    return app ? std::optional(describe(*app, _implementation->table().findProgress(identifier).get())) : std::nullopt;
}

bool Registry::isInstalled(std::string_view identifier) const {
    const auto app = _implementation->table().find(identifier);
    return app && app->installed;
}

bool Registry::hasPlaceholder(std::string_view identifier) const {
    const auto app = _implementation->table().find(identifier);
    return app && app->placeholder;
}

Result<void> Registry::installPlaceholder(const PlaceholderRequest& request) {
    return _implementation->installPlaceholder(request);
}

Result<void> Registry::installArchive(const ArchiveRequest& request) {
    return _implementation->installArchive(request);
}

Result<void> Registry::uninstall(std::string_view identifier, RemovalReason reason, RemovalScope scope) {
    return _implementation->uninstall(identifier, reason, scope);
}

FNProgressPtr Registry::progress(std::string_view identifier, std::uint64_t phase) {
    return _implementation->progress(identifier, phase);
}

FNProgressPtr Registry::existingProgress(std::string_view identifier) const {
    return _implementation->table().findProgress(identifier);
}

void Registry::follow(RegistryFollower follower) {
    _implementation->follow(std::move(follower));
}

void Registry::phaseFinished(const FNProgressPtr& progress) {
    if (const auto own = std::dynamic_pointer_cast<InstallProgress>(progress)) {
        _implementation->phaseFinished(*own);
    }
}

void Registry::prioritize(std::string_view identifier) {
    _implementation->table().prioritize(identifier);
    _implementation->announcer().announceChange();
}

bool Registry::cancelInstall(std::string_view identifier) {
    return _implementation->cancelInstall(identifier);
}

std::unique_ptr<RegistrySubscription> Registry::subscribe(std::function<void()> changed) {
    return std::make_unique<Subscription>(_implementation->announcer(), std::move(changed));
}

} // namespace appsync::device
