#include "device/registry/Registry.h"

#include "archive/EntryPath.h"
#include "archive/InstallerError.h"
#include "device/root/Container.h"
#include "device/root/Paths.h"
#include "device/root/Root.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "values/BundleIdentifier.h"

#include <algorithm>
#include <cerrno>

namespace appsync::device {

namespace {

/// One record as the platform's services present it.
class ApplicationProxy final : public PDApplicationProxy {
  public:
    ApplicationProxy(RegistryRecordPtr record, const Installs& installs, std::string_view prefix)
        : _record(std::move(record)), _installs(installs), _prefix(prefix) {}

    std::string applicationIdentifier() noexcept override { return _prefix + _record->identifier; }
    std::string bundleIdentifier() noexcept override { return _record->identifier; }
    std::optional<std::string> bundleVersion() noexcept override { return _record->version; }
    std::optional<FileURL> bundleURL() noexcept override {
        return FileURL::fileURLWithPath(_record->bundlePath(), true);
    }
    std::optional<FileURL> bundleContainerURL() noexcept override {
        return FileURL::fileURLWithPath(_record->containerPath(), true);
    }
    std::uint64_t installType() noexcept override { return _record->installType; }
    std::string applicationType() noexcept override { return _record->isSystem ? "System" : "User"; }
    bool isInstalled() noexcept override { return !_record->isPlaceholder; }
    bool isPlaceholder() noexcept override { return _record->isPlaceholder; }
    PDApplicationState appState() noexcept override { return {isPlaceholder(), isInstalled()}; }
    FNProgressPtr installProgressSync() noexcept override { return _installs.find(_record->identifier); }
    PDDiskUsage diskUsage() noexcept override { return {_record->bytes}; }
    bool hasMIDBasedSINF() noexcept override { return _record->hasDeviceSinf; }
    std::string description() noexcept override {
        return (isPlaceholder() ? "<placeholder " : "<application ") + _record->identifier + ">";
    }

  private:
    const RegistryRecordPtr _record;
    const Installs& _installs;
    const std::string _prefix;
};

Application describe(const RegistryTable::App& app, const InstallProgressPtr& progress) {
    const RegistryRecord& shown = *app.main();
    Application application;
    application.identifier = shown.identifier;
    application.name = shown.name;
    application.version = shown.version;
    application.isInstalled = app.installed != nullptr;
    application.isPlaceholder = app.placeholder != nullptr;
    application.isSystem = shown.isSystem;
    application.installType = (app.placeholder ? app.placeholder : app.installed)->installType;
    application.demotion = app.placeholder ? app.placeholder->demotion : std::nullopt;
    application.bundlePath = shown.bundlePath();
    if (shown.iconFile) {
        application.iconPath = application.bundlePath + "/" + *shown.iconFile;
    }
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

Registry::Registry(Root& root, Database& database, PropertyListSerialization& propertyLists,
                   const ArchiveLimits& limits)
    : _files(root.files()), _database(database), _propertyLists(propertyLists), _limits(limits),
      _installs([this] { _announcer.announceChange(); }), _groupCommit(_files, database), _room([this] {
          const auto free = _files.freeSpace();
          return free ? std::optional(*free) : std::nullopt;
      }),
      _announcer([this] { return _lists(); }) {}

Result<std::unique_ptr<Registry>>
Registry::open(Root& root, Database& database, PropertyListSerialization& propertyLists, const ArchiveLimits& limits) {
    std::unique_ptr<Registry> registry(new Registry(root, database, propertyLists, limits));
    if (const auto loaded = registry->_load(); !loaded) {
        return loaded.error();
    }
    return registry;
}

Result<void> Registry::_load() {
    if (auto started = _announcer.start(); !started) {
        return started;
    }
    for (const std::string_view folder : {containersFolder, stagingFolder}) {
        ErrorPtr error;
        if (!_database.isReadOnly() && !_files.createDirectory(folder, true, std::nullopt, &error)) {
            return _makeFailure("open the application registry", error, folder);
        }
    }
    return _table.load(_database);
}

Result<void> Registry::_checkIdentifier(std::string_view identifier) {
    if (isBundleIdentifier(identifier)) {
        return {};
    }
    return makeInstallerError(InstallerError::invalidIdentifier,
                              "\"" + printable(identifier) +
                                  "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
}

ErrorPtr Registry::_makeFailure(std::string_view what, const ErrorPtr& reason, std::string_view path) {
    const bool isFull = isError(reason, posixErrorDomain, ENOSPC) || isError(reason, posixErrorDomain, EDQUOT) ||
                        isError(reason, databaseErrorDomain, DatabaseError::full);
    return makeInstallerError(isFull ? InstallerError::notEnoughSpace : InstallerError::failed,
                              "cannot " + std::string(what) + ": " + errorText(reason), path);
}

std::vector<Application> Registry::applications() const {
    std::vector<Application> applications;
    for (const RegistryTable::App& app : _table.all()) {
        applications.push_back(describe(app, _installs.find(app.main()->identifier)));
    }
    return applications;
}

std::optional<Application> Registry::application(std::string_view identifier) const {
    const auto app = _table.find(identifier);
    return app.isKnown() ? std::optional(describe(app, _installs.find(identifier))) : std::nullopt;
}

bool Registry::isInstalled(std::string_view identifier) const {
    return _table.find(identifier).installed != nullptr;
}

bool Registry::hasPlaceholder(std::string_view identifier) const {
    return _table.find(identifier).placeholder != nullptr;
}

PDApplicationProxyPtr Registry::proxy(RegistryRecordPtr record, std::string_view prefix) const {
    return std::make_shared<ApplicationProxy>(std::move(record), _installs, prefix);
}

/// The installs under way, placeholders rather than installed versions, and those that are paused.
Announcer::Lists Registry::_lists() const {
    Announcer::Lists lists;
    for (const InstallProgressPtr& progress : _installs.inOrder()) {
        const auto app = _table.find(progress->identifier());
        if (!app.isKnown()) {
            continue; // no placeholder, and no installed version yet: it cannot be shown
        }
        const RegistryRecordPtr& record = app.placeholder ? app.placeholder : app.installed;
        const std::uint64_t state = progress->installState();
        if (state == PDInstallStateWaiting || state == PDInstallStateActive) {
            lists.first.push_back(proxy(record));
        } else if (state == PDInstallStatePaused) {
            lists.second.push_back(proxy(record));
        }
    }
    return lists;
}

FNProgressPtr Registry::progress(std::string_view identifier, std::uint64_t phase) {
    if (!hasPlaceholder(identifier)) {
        return _installs.find(identifier);
    }
    auto progress = _installs.findOrMake(identifier, phase);
    _announcer.announceChange();
    return progress;
}

FNProgressPtr Registry::existingProgress(std::string_view identifier) const {
    return _installs.find(identifier);
}

void Registry::phaseFinished(const FNProgressPtr& progress) {
    const auto own = std::dynamic_pointer_cast<InstallProgress>(progress);
    if (!own) {
        return;
    }
    const std::uint64_t state = own->installState();
    const bool isOver =
        state == PDInstallStateCanceled || state == PDInstallStateFailed || state == PDInstallStateFinished;
    if (!isOver && own->installPhase() == PDInstallPhaseLoading) {
        own->setInstallPhase(PDInstallPhaseInstalling);
        return;
    }
    _installs.end(*own);
    _announcer.announceChange();
}

void Registry::prioritize(std::string_view identifier) {
    _installs.prioritize(identifier);
    _announcer.announceChange();
}

/// Fills in what an Info dictionary says of an app, and its protection record: that is a property list; one that is
/// bound to a device names it under "MID".
void Registry::_describe(RegistryRecord& record, const Dictionary& info, const std::optional<Data>& sinf) const {
    const auto text = [&](std::string_view key) -> std::optional<std::string> {
        const auto value = info.string(key);
        return value && !value->empty() ? std::optional<std::string>(*value) : std::nullopt;
    };
    record.name = text("BXBundleDisplayName").value_or(text("BXBundleExecutable").value_or(record.identifier));
    record.version = text("BXBundleVersion");
    record.iconFile = text("BXBundleIconFile");
    if (record.iconFile && !isSafePath(*record.iconFile, _limits)) {
        record.iconFile.reset();
    }
    const auto list = sinf ? _propertyLists.propertyListWithData(sinf->bytes(), nullptr) : std::nullopt;
    record.hasDeviceSinf = list && list->dictionary() && list->dictionary()->contains("MID");
}

/// Puts a filled container among the others and registers the app that has it. It is kept when it is registered, and
/// when it may be: a durable commit that fails may have reached the disk all the same, and what stands at the next
/// start decides which container goes.
Result<void> Registry::_enter(Container& container, const RegistryTable::App& before, const RegistryTable::App& after,
                              Durability durability) {
    if (auto moved = container.putInPlace(); !moved) {
        return moved;
    }
    const auto write = [&](Database::Transaction& transaction) { RegistryTable::write(transaction, before, after); };
    const auto commitSoon = [&]() -> Result<void> {
        Database::Transaction transaction(_database);
        write(transaction);
        return transaction.commit();
    };
    const bool isDurable = durability == Durability::durable;
    auto committed = isDurable ? _groupCommit.commit(write) : commitSoon();
    if (committed || (isDurable && isError(committed.error(), databaseErrorDomain, DatabaseError::failed))) {
        container.keep();
    }
    return committed;
}

/// The database says that an app is another now: so it is, and containers that it has no more go. What stays is cleared
/// away at the next start.
void Registry::_replace(const RegistryTable::App& before, const RegistryTable::App& after) {
    _table.set(before.isKnown() ? before.main()->identifier : after.main()->identifier, after);
    for (const RegistryRecordPtr& old : {before.installed, before.placeholder}) {
        if (old && old != after.installed && old != after.placeholder) {
            _files.removeItem(old->containerPath(), nullptr);
        }
    }
}

} // namespace appsync::device
