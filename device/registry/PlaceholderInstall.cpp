// Registering a placeholder: its bundle moves into a container of its own.
#include "archive/AppInArchive.h"
#include "archive/EntryPath.h"
#include "archive/InstallerError.h"
#include "device/registry/Registry.h"
#include "device/root/Container.h"
#include "device/root/DeviceFileSystem.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "timeline/Timeline.h"

namespace appsync::device {

class Registry::PlaceholderInstall {
  public:
    PlaceholderInstall(Registry& registry, const PlaceholderRequest& request)
        : _registry(registry), _files(registry._files), _request(request),
          _before(registry._table.find(request.identifier)),
          _continuesRestore(request.installType == PDInstallTypeSync && _before.placeholder &&
                            _before.placeholder->installType == PDInstallTypeRestore) {}

    Result<void> run() {
        if (auto read = _readInfo(); !read) {
            return read;
        }
        auto container = Container::make(_files);
        if (!container) {
            return _failure(container.error());
        }
        auto installed = _fill(*container);
        if (installed) {
            installed = _register(*container);
        }
        if (!installed) {
            if (_isMoved && !container->isKept()) {
                _files.moveItem(container->path() + "/" + _bundle, _request.bundlePath, nullptr);
            }
            return installed;
        }
        _registry._replace(_before, _after);
        return {};
    }

  private:
    [[nodiscard]] ErrorPtr _failure(const ErrorPtr& reason) const {
        return _makeFailure("install the placeholder of " + _request.identifier, reason, _request.bundlePath);
    }
    [[nodiscard]] ErrorPtr _invalid(const std::string& reason) const {
        return makeInstallerError(InstallerError::placeholderInvalid,
                                  "the placeholder bundle " + _request.bundlePath + " of " + _request.identifier +
                                      " cannot be installed: " + reason,
                                  _request.bundlePath);
    }
    [[nodiscard]] bool _isBuiltHere() const { return _request.bundlePath.empty(); }

    Result<void> _readInfo() {
        if (_isBuiltHere()) {
            _info = _request.info;
            _info.set("BXBundleIdentifier", _request.identifier);
            return {};
        }
        const std::string path = _request.bundlePath + "/" + std::string(infoFileName);
        const auto size = _files.attributesOfItem(path, nullptr);
        if (size && size->size > _registry._limits.listBytes) {
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
        return {};
    }

    Result<void> _fill(Container& container) {
        const auto metadata = _companion(metadataFileName, _request.metadata);
        auto sinf = _companion(sinfFileName, _request.sinf);
        if (!metadata || !sinf) { // they go with the placeholder that is replaced
            return _failure(metadata ? sinf.error() : metadata.error());
        }
        _sinf = std::move(*sinf);
        auto filled = container.writeFile(metadataFileName, *metadata);
        if (filled) {
            filled = container.writeFile(sinfFileName, _sinf);
        }
        if (filled) {
            _bundle = _bundleName();
            filled = _isBuiltHere() ? _build(container) : _moveBundle(container);
        }
        return filled ? filled : _failure(filled.error());
    }

    /// A file beside the bundle: what a restore has brought, else what the request brings.
    [[nodiscard]] Result<std::optional<Data>> _companion(std::string_view name,
                                                         const std::optional<Data>& requested) const {
        auto restored = _continuesRestore
                            ? _files.readIfThere(_before.placeholder->containerPath() + "/" + std::string(name))
                            : std::optional<Data>();
        return restored && !*restored ? requested : restored;
    }

    [[nodiscard]] std::string _bundleName() const {
        const std::string_view own = lastNameOf(_request.bundlePath);
        const bool isUsable =
            own.size() > bundleExtension.size() && own.ends_with(bundleExtension) && isSafePath(own, _registry._limits);
        return isUsable ? std::string(own) : _request.identifier + std::string(bundleExtension);
    }

    Result<void> _moveBundle(const Container& container) {
        ErrorPtr error;
        _isMoved = _files.moveItem(_request.bundlePath, container.path() + "/" + _bundle, &error);
        return error;
    }

    Result<void> _build(Container& container) {
        const std::string bundle = container.path() + "/" + _bundle;
        ErrorPtr error;
        if (!_files.createDirectory(bundle, false, std::nullopt, &error)) {
            return error;
        }
        if (_placeIcon(bundle + "/Icon.png")) {
            _info.set("BXBundleIconFile", "Icon.png");
        }
        const auto bytes = _registry._propertyLists.dataWithPropertyList(_info, PropertyListFormat::binary, &error);
        return bytes ? container.writeFile(_bundle + "/" + std::string(infoFileName), bytes) : error;
    }

    /// A placeholder whose icon is missing is better than none.
    [[nodiscard]] bool _placeIcon(const std::string& place) {
        if (!_request.iconPath) {
            return false;
        }
        const bool isShared = _request.sharesIcon && _files.link(*_request.iconPath, place);
        return isShared || _files.copyItem(*_request.iconPath, place, nullptr);
    }

    [[nodiscard]] Result<RegistryRecordPtr> _makeRecord(const Container& container) {
        const auto size = _files.treeSize(container.path() + "/" + _bundle);
        if (!size) {
            return _invalid(errorText(size.error()));
        }
        RegistryRecord record;
        record.identifier = _request.identifier;
        record.isPlaceholder = true;
        record.isSystem = _request.isSystem || (_before.installed && _before.installed->isSystem);
        record.installType = _continuesRestore ? std::uint64_t{PDInstallTypeRestore} : _request.installType;
        if (!isDemotion(record.installType)) {
            record.demotion = _registry._follower.demotion(_request.identifier);
        }
        record.container = container.name();
        record.bundle = _bundle;
        record.bytes = *size;
        _registry._describe(record, _info, _sinf);
        return std::make_shared<const RegistryRecord>(std::move(record));
    }

    /// A new placeholder need not outlast a loss of power; what it replaces must not be gone then.
    Result<void> _register(Container& container) {
        auto record = _makeRecord(container);
        if (!record) {
            return record.error();
        }
        _after = {_request.replacesApp ? nullptr : _before.installed, std::move(*record),
                  _registry._table.arrivalOf(_before)};
        const bool replaces = _before.placeholder || _after.installed != _before.installed;
        const auto entered =
            _registry._enter(container, _before, _after, replaces ? Durability::durable : Durability::ordinary);
        return entered ? entered : _failure(entered.error());
    }

    Registry& _registry;
    DeviceFileSystem& _files;
    const PlaceholderRequest& _request;
    const RegistryTable::App _before;
    RegistryTable::App _after;
    const bool _continuesRestore;
    std::optional<Data> _sinf;
    Dictionary _info;
    std::string _bundle;
    bool _isMoved = false;
};

Result<void> Registry::installPlaceholder(const PlaceholderRequest& request) {
    if (auto checked = _checkIdentifier(request.identifier); !checked) {
        return checked;
    }
    const AppLocks::Held held(_locks, request.identifier);
    const Span span(_files.timeline(), "placeholder", request.identifier);
    auto installed = PlaceholderInstall(*this, request).run();
    if (installed) {
        _announcer.announceChange();
    }
    return installed;
}

} // namespace appsync::device
