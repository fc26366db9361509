// Registering a placeholder: its bundle moves into a container of its own.
#include "device/registry/RegistryImplementation.h"

#include "archive/EntryPath.h"
#include "archive/InstallerError.h"
#include "device/root/Tree.h"
#include "files/Syscalls.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"

#include <fcntl.h>

#include <tuple>

namespace appsync::device {

class Registry::Implementation::PlaceholderInstall {
  public:
    PlaceholderInstall(Implementation& registry, const PlaceholderRequest& request)
        : _registry(registry), _files(registry._files), _request(request),
          _before(registry._table.find(request.identifier).value_or(RegistryTable::App{})),
          _continuesRestore(request.installType == PDInstallTypeSync && _before.placeholder &&
                            _before.placeholder->installType == PDInstallTypeRestore) {}

    ErrorPtr run() {
        if (ErrorPtr error = _readInfo()) {
            return error;
        }
        auto container = Container::make(_files);
        if (!container) {
            return _failure(container.error());
        }
        ErrorPtr error = _fill(*container);
        if (!error) {
            error = _register(*container);
        }
        if (error && _mayBeRegistered) {
            container->keep();
        } else if (error) {
            _giveBack(*container);
        }
        if (error) {
            return error;
        }
        container->keep();
        _registry._table.put(_record, _arrival);
        if (_before.placeholder) {
            _files.removeItem(_before.placeholder->containerPath(), nullptr);
        }
        if (_replacesApp()) {
            _registry._table.remove(_request.identifier, false);
            _files.removeItem(_before.installed->containerPath(), nullptr);
        }
        return nullptr;
    }

  private:
    [[nodiscard]] ErrorPtr _failure(const ErrorPtr& reason) const {
        return installerFailure("install the placeholder of " + _request.identifier, reason, _request.bundlePath);
    }
    [[nodiscard]] ErrorPtr _invalid(const std::string& reason) const {
        return makeInstallerError(InstallerError::placeholderInvalid,
                                  "the placeholder bundle " + _request.bundlePath + " of " + _request.identifier +
                                      " cannot be installed: " + reason,
                                  _request.bundlePath);
    }
    [[nodiscard]] bool _replacesApp() const { return _request.replacesApp && _before.installed; }
    [[nodiscard]] bool _isBuiltHere() const { return _request.bundlePath.empty(); }

    ErrorPtr _readInfo() {
        if (_isBuiltHere()) {
            _info = _request.info;
            _info.set("BXBundleIdentifier", _request.identifier);
            return nullptr;
        }
        const std::string path = _request.bundlePath + "/" + std::string(infoFileName);
        const auto size = _files.attributesOfItem(path, nullptr);
        if (size && size->size > _registry._options.limits.listBytes) {
            return _invalid("its Info.plist is larger than the device reads");
        }
        ErrorPtr reason;
        const auto bytes = _files.readFile(path, &reason);
        if (!bytes) {
            return _invalid(errorText(reason));
        }
        auto list = _registry._propertyLists.propertyListWithData(bytes->bytes(), &reason);
        if (!list || !list->dictionary()) {
            return _invalid("its Info.plist cannot be read" + (reason ? ": " + errorText(reason) : std::string()));
        }
        _info = *list->dictionary();
        const auto identifier = _info.string("BXBundleIdentifier");
        if (identifier != _request.identifier) {
            return _invalid("its Info.plist is that of \"" + printable(identifier.value_or("")) + "\"");
        }
        return nullptr;
    }

    ErrorPtr _fill(Container& container) {
        std::optional<Data> metadata = _companion(metadataFileName, _request.metadata);
        _sinf = _companion(sinfFileName, _request.sinf);
        for (const auto& [name, content] : {std::tie(metadataFileName, metadata), std::tie(sinfFileName, _sinf)}) {
            if (!content) {
                continue;
            }
            if (const auto written = container.writeFile(name, content->bytes()); !written) {
                return _failure(written.error());
            }
        }
        _bundle = _bundleName();
        const std::string bundle = container.path() + "/" + _bundle;
        ErrorPtr error;
        if (!_isBuiltHere()) {
            _isMoved = _files.moveItem(_request.bundlePath, bundle, &error);
            return _isMoved ? nullptr : _failure(error);
        }
        return _build(container, bundle);
    }

    /// A file beside the bundle: what a restore has brought, else what the request brings.
    [[nodiscard]] std::optional<Data> _companion(std::string_view name, const std::optional<Data>& requested) const {
        auto restored = _continuesRestore
                            ? _files.readFile(_before.placeholder->containerPath() + "/" + std::string(name), nullptr)
                            : std::nullopt;
        return restored ? restored : requested;
    }

    [[nodiscard]] std::string _bundleName() const {
        const std::string_view own = lastNameOf(_request.bundlePath);
        const bool isUsable = own.size() > bundleExtension.size() && own.ends_with(bundleExtension) &&
                              !findUnsafe(own, _registry._options.limits);
        return isUsable ? std::string(own) : _request.identifier + std::string(bundleExtension);
    }

    ErrorPtr _build(Container& container, const std::string& bundle) {
        ErrorPtr error;
        if (!_files.createDirectory(bundle, false, std::nullopt, &error)) {
            return _failure(error);
        }
        if (_request.iconPath && _files.copyItem(*_request.iconPath, bundle + "/Icon.png", nullptr)) {
            _info.set("BXBundleIconFile", "Icon.png"); // a placeholder whose icon is missing is better than none
        }
        const auto bytes = _registry._propertyLists.dataWithPropertyList(_info, PropertyListFormat::binary, &error);
        if (!bytes) {
            return _failure(error);
        }
        const auto written = container.writeFile(_bundle + "/" + std::string(infoFileName), bytes->bytes());
        return written ? nullptr : _failure(written.error());
    }

    [[nodiscard]] ErrorPtr _makeRecord(const Container& container) {
        RegistryRecord record;
        record.identifier = _request.identifier;
        record.isPlaceholder = true;
        record.isSystem = _request.isSystem || (_before.installed && _before.installed->isSystem);
        record.installType = _continuesRestore ? std::uint64_t{PDInstallTypeRestore} : _request.installType;
        record.container = container.name();
        record.bundle = _bundle;
        record.hasDeviceSinf = _registry._isDeviceSinf(_sinf);
        _registry._describe(record, _info);
        auto folder = _files.open(container.path() + "/" + _bundle, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (!folder) {
            return _invalid(errorText(folder.error()));
        }
        if (const int failed = treeSize(std::move(*folder), record.bytes)) {
            return _invalid(systemText(failed));
        }
        _record = std::make_shared<const RegistryRecord>(std::move(record));
        return nullptr;
    }

    /// A new placeholder need not outlast a loss of power; the one that it replaces must not be gone then.
    ErrorPtr _register(Container& container) {
        if (ErrorPtr error = _makeRecord(container)) {
            return error;
        }
        if (const auto moved = container.putInPlace(); !moved) {
            return _failure(moved.error());
        }
        _arrival = _before.arrival != 0 ? _before.arrival : _registry._table.takeArrival();
        const bool replaces = _before.placeholder || _replacesApp();
        const auto committed = replaces ? _registry._groupCommit.commit([this](auto& transaction) {
            RegistryStore::put(transaction, *_record, _arrival);
            if (_replacesApp()) {
                RegistryStore::remove(transaction, _request.identifier, false);
            }
        })
                                        : _putSoon();
        // It may have reached the disk all the same. What stands at the next start decides which container goes.
        _mayBeRegistered = replaces && isError(committed.error(), DatabaseErrorDomain, DatabaseError::failed);
        return committed ? nullptr : _failure(committed.error());
    }

    Result<void> _putSoon() {
        Database::Transaction transaction(_registry._database);
        RegistryStore::put(transaction, *_record, _arrival);
        return transaction.commit();
    }

    void _giveBack(const Container& container) {
        if (_isMoved) {
            _files.moveItem(container.path() + "/" + _bundle, _request.bundlePath, nullptr);
        }
    }

    Implementation& _registry;
    DeviceFileSystem& _files;
    const PlaceholderRequest& _request;
    const RegistryTable::App _before;
    const bool _continuesRestore;
    std::optional<Data> _sinf;
    Dictionary _info;
    std::string _bundle;
    bool _isMoved = false;
    bool _mayBeRegistered = false;
    RegistryRecordPtr _record;
    std::int64_t _arrival = 0;
};

Result<void> Registry::Implementation::installPlaceholder(const PlaceholderRequest& request) {
    if (ErrorPtr error = checkIdentifier(request.identifier)) {
        return error;
    }
    const AppLocks::Held held(_locks, request.identifier);
    if (ErrorPtr error = PlaceholderInstall(*this, request).run()) {
        return error;
    }
    _announcer.announceChange();
    return {};
}

} // namespace appsync::device
