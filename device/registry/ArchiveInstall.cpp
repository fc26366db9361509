// Installing an app from an archive: unpack, make durable, register, and only then let the old version go.
#include "archive/InstallerError.h"
#include "device/archive/Extraction.h"
#include "device/registry/Registry.h"
#include "device/root/Container.h"
#include "device/root/DeviceFileSystem.h"
#include "timeline/Timeline.h"

#include <fcntl.h>

namespace appsync::device {

class Registry::ArchiveInstall {
  public:
    ArchiveInstall(Registry& registry, const ArchiveRequest& request, std::stop_token cancel,
                   std::function<void(double)> progress)
        : _registry(registry), _files(registry._files), _request(request), _cancel(std::move(cancel)),
          _progress(std::move(progress)), _before(registry._table.find(request.identifier)), _room(registry._room) {}

    Result<void> run() {
        auto container = Container::make(_files);
        if (!container) {
            return _failure(container.error());
        }
        for (const auto step :
             {&ArchiveInstall::_unpack, &ArchiveInstall::_writeCompanions, &ArchiveInstall::_register}) {
            if (auto done = (this->*step)(*container); !done) {
                return done;
            }
        }
        const Span span(_files.timeline(), "swap", _request.identifier);
        _registry._replace(_before, _after);
        return {};
    }

  private:
    [[nodiscard]] ErrorPtr _failure(const ErrorPtr& reason) const {
        return _makeFailure("install " + _request.identifier, reason, _request.archivePath);
    }

    Result<void> _unpack(Container& container) {
        const auto archive = _files.open(_request.archivePath, O_RDONLY | O_NONBLOCK | O_NOCTTY);
        if (!archive) {
            return makeInstallerError(InstallerError::archiveMissing,
                                      "cannot install " + _request.identifier + ": " + errorText(archive.error()),
                                      _request.archivePath);
        }
        const ExtractionRequest extraction{archive->get(), _request.archivePath, _request.identifier, &_room, _progress,
                                           _cancel,        !_request.metadata,   _files.timeline()};
        auto unpacked = extractApplication(extraction, container.folder(), _registry._limits, _registry._propertyLists,
                                           _registry._unpackingPlaces, _files.faultPoint());
        if (unpacked) {
            _unpacked = std::move(*unpacked);
        }
        return unpacked.error();
    }

    /// The store's files beside the app; what neither request nor archive brings is taken from the placeholder.
    Result<void> _writeCompanions(Container& container) {
        const bool hasMetadata = _request.metadata || _unpacked.metadata;
        const auto metadata = hasMetadata ? Result(_request.metadata) : _ofPlaceholder(metadataFileName);
        auto sinf = _request.sinf ? Result(_request.sinf) : _ofPlaceholder(sinfFileName);
        if (!metadata || !sinf) { // they go with the placeholder
            return _failure(metadata ? sinf.error() : metadata.error());
        }
        _sinf = std::move(*sinf);
        auto written = container.writeFile(metadataFileName, *metadata);
        if (written) {
            written = container.writeFile(sinfFileName, _sinf);
        }
        return written ? written : _failure(written.error());
    }

    [[nodiscard]] Result<std::optional<Data>> _ofPlaceholder(std::string_view file) const {
        return _before.placeholder ? _files.readIfThere(_before.placeholder->containerPath() + "/" + std::string(file))
                                   : std::optional<Data>();
    }

    [[nodiscard]] RegistryRecordPtr _makeRecord(const std::string& container) const {
        RegistryRecord record;
        record.identifier = _request.identifier;
        record.isSystem = _request.isSystem || (_before.installed && _before.installed->isSystem) ||
                          (_before.placeholder && _before.placeholder->isSystem);
        record.installType =
            _request.installType.value_or(_before.placeholder ? _before.placeholder->installType : PDInstallTypeNone);
        record.container = container;
        record.bundle = _unpacked.bundleName;
        record.bytes = _unpacked.bytes;
        _registry._describe(record, _unpacked.info, _sinf);
        return std::make_shared<const RegistryRecord>(std::move(record));
    }

    /// From here on the install cannot be cancelled: it takes effect in one transaction, or not at all.
    Result<void> _register(Container& container) {
        if (_cancel.stop_requested()) {
            return makeCancelledError(_request.identifier, _request.archivePath);
        }
        _after = {_makeRecord(container.name()), nullptr, _registry._table.arrivalOf(_before)};
        const Span span(_files.timeline(), "making durable", _request.identifier);
        const auto entered = _registry._enter(container, _before, _after, Durability::durable);
        return entered ? entered : _failure(entered.error());
    }

    Registry& _registry;
    DeviceFileSystem& _files;
    const ArchiveRequest& _request;
    const std::stop_token _cancel;
    const std::function<void(double)> _progress;
    const RegistryTable::App _before;
    RegistryTable::App _after;
    DiskRoom::Share _room; // until the old version has gone
    ExtractedApplication _unpacked;
    std::optional<Data> _sinf;
};

Result<void> Registry::installArchive(const ArchiveRequest& request) {
    if (auto checked = _checkIdentifier(request.identifier); !checked) {
        return checked;
    }
    const AppLocks::Held held(_locks, request.identifier);
    Timeline::endWaiting(_files.timeline(), request.identifier);
    const Span span(_files.timeline(), "install", request.identifier);
    std::stop_source cancellation;
    const std::stop_callback forward(request.cancel, [&] { cancellation.request_stop(); });
    const auto shown = _installs.findOrMake(request.identifier, PDInstallPhaseInstalling);
    constexpr std::int64_t unitCount = 1000;
    shown->begin(PDInstallPhaseInstalling, cancellation);
    shown->setTotalUnitCount(unitCount);
    const auto report = [&](double fraction) {
        shown->setCompletedUnitCount(static_cast<std::int64_t>(fraction * static_cast<double>(unitCount)));
        if (request.progress) {
            request.progress(fraction);
        }
    };
    auto installed = ArchiveInstall(*this, request, cancellation.get_token(), report).run();
    const bool isCancelled = isError(installed.error(), TVInstallerErrorDomain, InstallerError::cancelled);
    shown->end(installed ? PDInstallStateFinished : isCancelled ? PDInstallStateCanceled : PDInstallStateFailed);
    if (installed) {
        _follower.wasInstalled(request.identifier);
    }
    // After a failure a placeholder goes on showing how its install ended.
    if (installed || !hasPlaceholder(request.identifier)) {
        _installs.end(*shown);
    }
    _announcer.announceChange();
    return installed;
}

} // namespace appsync::device
