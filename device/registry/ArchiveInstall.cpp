// Installing an app from an archive: unpack, make durable, register, and only then let the old version go.
#include "device/registry/RegistryImplementation.h"

#include "archive/InstallerError.h"
#include "device/registry/UninstalledList.h"

#include <fcntl.h>

#include <optional>

namespace appsync::device {

namespace {

/// Ends the install's progress as cancelled, failed or finished.
class ProgressScope {
  public:
    ProgressScope(std::shared_ptr<InstallProgress> progress, const std::stop_source& cancellation)
        : _progress(std::move(progress)) {
        _progress->begin(PDInstallPhaseInstalling, cancellation);
        _progress->setTotalUnitCount(unitCount);
    }
    ~ProgressScope() {
        _progress->detach();
        _progress->setInstallState(_finalState);
    }
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

    void report(double fraction) {
        _progress->setCompletedUnitCount(static_cast<std::int64_t>(fraction * static_cast<double>(unitCount)));
    }
    void end(const ErrorPtr& error) {
        _finalState = !error                                                              ? PDInstallStateFinished
                      : isError(error, TVInstallerErrorDomain, InstallerError::cancelled) ? PDInstallStateCanceled
                                                                                          : PDInstallStateFailed;
    }
    [[nodiscard]] const InstallProgress& progress() const noexcept { return *_progress; }

  private:
    static constexpr std::int64_t unitCount = 1000;
    const std::shared_ptr<InstallProgress> _progress;
    std::uint64_t _finalState = PDInstallStateFailed;
};

} // namespace

class Registry::Implementation::ArchiveInstall {
  public:
    ArchiveInstall(Implementation& registry, const ArchiveRequest& request, std::stop_token cancel,
                   std::function<void(double)> progress)
        : _registry(registry), _request(request), _cancel(std::move(cancel)), _progress(std::move(progress)),
          _before(registry._table.find(request.identifier).value_or(RegistryTable::App{})) {}

    ErrorPtr run() {
        auto container = Container::make(_registry._files);
        if (!container) {
            return _failure(container.error());
        }
        for (const auto step :
             {&ArchiveInstall::_unpack, &ArchiveInstall::_writeCompanions, &ArchiveInstall::_register}) {
            if (ErrorPtr error = (this->*step)(*container)) {
                return error;
            }
        }
        container->keep();
        _replace();
        return nullptr;
    }

  private:
    [[nodiscard]] ErrorPtr _failure(const ErrorPtr& reason) const {
        return installerFailure("install " + _request.identifier, reason, _request.archivePath);
    }

    ErrorPtr _unpack(Container& container) {
        const auto archive = _registry._files.open(_request.archivePath, O_RDONLY | O_NONBLOCK | O_NOCTTY);
        if (!archive) {
            return makeInstallerError(InstallerError::archiveMissing,
                                      "cannot install " + _request.identifier + ": " + errorText(archive.error()),
                                      _request.archivePath);
        }
        const auto freeSpace = _registry._files.freeSpace();
        const ExtractionRequest extraction{archive->get(),      _request.archivePath,
                                           _request.identifier, freeSpace ? std::optional(*freeSpace) : std::nullopt,
                                           _progress,           _cancel,
                                           !_request.metadata};
        auto unpacked = extractApplication(extraction, container.folder(), _registry._options.limits,
                                           _registry._propertyLists, _registry._files.faultPoint());
        if (!unpacked) {
            return unpacked.error();
        }
        _unpacked = std::move(*unpacked);
        return nullptr;
    }

    /// The store's files beside the app; what neither request nor archive brings is taken from the placeholder.
    ErrorPtr _writeCompanions(Container& container) {
        std::optional<Data> metadata = _request.metadata    ? _request.metadata
                                       : _unpacked.metadata ? std::nullopt
                                                            : _ofPlaceholder(metadataFileName);
        _sinf = _request.sinf ? _request.sinf : _ofPlaceholder(sinfFileName);
        for (const auto& [name, content] : {std::tie(metadataFileName, metadata), std::tie(sinfFileName, _sinf)}) {
            if (!content) {
                continue;
            }
            if (const auto written = container.writeFile(name, content->bytes()); !written) {
                return _failure(written.error());
            }
        }
        return nullptr;
    }

    [[nodiscard]] std::optional<Data> _ofPlaceholder(std::string_view file) const {
        return _before.placeholder
                   ? _registry._files.readFile(_before.placeholder->containerPath() + "/" + std::string(file), nullptr)
                   : std::nullopt;
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
        record.hasDeviceSinf = _registry._isDeviceSinf(_sinf);
        _registry._describe(record, _unpacked.info);
        return std::make_shared<const RegistryRecord>(std::move(record));
    }

    /// From here on the install cannot be cancelled: it takes effect in one transaction, or not at all.
    ErrorPtr _register(Container& container) {
        if (_cancel.stop_requested()) {
            return makeCancelledError(_request.identifier, _request.archivePath);
        }
        if (const auto moved = container.putInPlace(); !moved) {
            return _failure(moved.error());
        }
        _record = _makeRecord(container.name());
        _arrival = _before.arrival != 0 ? _before.arrival : _registry._table.takeArrival();
        const auto committed = _registry._groupCommit.commit([this](Database::Transaction& transaction) {
            RegistryStore::put(transaction, *_record, _arrival);
            RegistryStore::remove(transaction, _record->identifier, true);
            UninstalledList::remove(transaction, _record->identifier);
        });
        if (isError(committed.error(), DatabaseErrorDomain, DatabaseError::failed)) {
            // It may have reached the disk all the same. What stands at the next start decides which container goes.
            container.keep();
        }
        return committed ? nullptr : _failure(committed.error());
    }

    void _replace() {
        _registry._table.install(_record, _arrival);
        for (const RegistryRecordPtr& old : {_before.installed, _before.placeholder}) {
            if (old) {
                _registry._files.removeItem(old->containerPath(),
                                            nullptr); // what stays is cleared away at the next start
            }
        }
    }

    Implementation& _registry;
    const ArchiveRequest& _request;
    const std::stop_token _cancel;
    const std::function<void(double)> _progress;
    const RegistryTable::App _before;
    ExtractedApplication _unpacked;
    std::optional<Data> _sinf;
    RegistryRecordPtr _record;
    std::int64_t _arrival = 0;
};

Result<void> Registry::Implementation::installArchive(const ArchiveRequest& request) {
    if (ErrorPtr error = checkIdentifier(request.identifier)) {
        return error;
    }
    const AppLocks::Held held(_locks, request.identifier);
    std::stop_source cancellation;
    const std::stop_callback forward(request.cancel, [&] { cancellation.request_stop(); });
    const auto shown = _makeProgress(request.identifier, PDInstallPhaseInstalling);
    ErrorPtr error;
    {
        ProgressScope scope(shown, cancellation);
        const auto report = [&](double fraction) {
            scope.report(fraction);
            if (request.progress) {
                request.progress(fraction);
            }
        };
        error = ArchiveInstall(*this, request, cancellation.get_token(), report).run();
        scope.end(error);
    }
    if (!error && _follower.wasInstalled) {
        _follower.wasInstalled(request.identifier);
    }
    // After a failure a placeholder goes on showing how its install ended.
    const auto app = _table.find(request.identifier);
    if (!error || !app || !app->placeholder) {
        _table.endProgress(*shown);
    }
    _announcer.announceChange();
    return error;
}

} // namespace appsync::device
