#include "device/archive/Extraction.h"

#include "archive/EntryPath.h"
#include "archive/InstallerError.h"
#include "concurrency/OperationQueue.h"
#include "device/archive/BundleWriter.h"
#include "device/archive/FileUnpacker.h"
#include "device/archive/UnpackingPlaces.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "timeline/Timeline.h"

#include <algorithm>
#include <deque>

namespace appsync::device {

namespace {

/// What the file system itself needs for a file or folder, at most.
constexpr std::uint64_t bytesPerEntry = 4096 + 512;

/// An archive from here on is unpacked on several threads if there are cores to spare.
constexpr std::uint64_t largeArchive = std::uint64_t{32} << 20;

class Extraction {
  public:
    Extraction(const ExtractionRequest& request, ArchiveFile& file, const ZipDirectory& directory, int container,
               const ArchiveLimits& limits, PropertyListSerialization& propertyLists, UnpackingPlaces& places,
               const Refusal& refuse, FaultPoint* faultPoint)
        : _request(request), _directory(directory), _container(container), _limits(limits),
          _propertyLists(propertyLists), _places(places), _refuse(refuse), _file(file),
          _unpacker(request, file, BundleWriter(container, faultPoint), refuse,
                    [this](std::uint64_t bytes) { _wrote(bytes); }) {}

    Result<ExtractedApplication> run() {
        const Span span(_request.timeline, "unpacking", _request.identifier);
        for (const auto step : {&Extraction::_findApplication, &Extraction::_checkSpace, &Extraction::_unpack,
                                &Extraction::_makeLinks, &Extraction::_checkInfo}) {
            if (const auto done = (this->*step)(); !done) {
                return done.error();
            }
        }
        return std::move(_application);
    }

  private:
    Result<void> _findApplication() {
        auto found = findApplication(_directory, _limits, _refuse);
        if (!found) {
            return found.error();
        }
        _app = std::move(*found);
        _application.bundleName = _app.bundleName;
        _bundlePrefix = _app.bundleName + "/";
        return {};
    }

    Result<void> _checkSpace() {
        const std::uint64_t needed = _directory.unpackedBytes() + _directory.count() * bytesPerEntry;
        const auto free = _request.room ? _request.room->take(needed, _request.cancel) : std::nullopt;
        if (_request.cancel.stop_requested()) {
            return makeCancelledError(_request.identifier, _request.archivePath);
        }
        return free ? makeNoSpaceError(_request, "it needs " + std::to_string(needed) + " bytes, " +
                                                     std::to_string(*free) + " are free")
                    : nullptr;
    }

    Result<void> _unpack() {
        for (const ZipDirectory::Entry& entry : _directory.entries()) {
            if (const auto unpacked = _unpackEntry(entry); !unpacked) {
                return unpacked;
            }
        }
        return _shared.empty() ? Result<void>() : _unpackShared();
    }

    Result<void> _unpackEntry(const ZipDirectory::Entry& entry) {
        if (entry.path == metadataFileName || entry.path == artworkFileName) {
            return _unpackCompanion(entry);
        }
        if (!entry.path.starts_with(_bundlePrefix) && entry.path != _application.bundleName) {
            return _unpacker.check(entry); // not the app's
        }
        if (entry.kind == ZipDirectory::Kind::folder) {
            const auto checked = _unpacker.check(entry);
            return checked ? _makeFolder(entry.path) : checked;
        }
        if (entry.kind == ZipDirectory::Kind::link) {
            return _rememberLink(entry);
        }
        _application.bytes += entry.unpackedBytes;
        if (entry.path == _app.infoPath) {
            const auto unpacked = _unpacker.unpack(entry, entry.isExecutable, &_info);
            return unpacked ? _readInfo() : unpacked;
        }
        if (_directory.unpackedBytes() >= largeArchive) {
            _shared.push_back(&entry);
            return _makeFolder(parentOf(entry.path));
        }
        return _unpacker.unpack(entry, entry.isExecutable, nullptr);
    }

    Result<void> _makeFolder(std::string_view path) {
        const auto made = _unpacker.writer().makeFolder(path);
        return made ? made : makeWritingError(_request, made.error(), path);
    }

    /// The files beside the app's folder.
    Result<void> _unpackCompanion(const ZipDirectory::Entry& entry) {
        if (entry.path != metadataFileName) {
            return _unpacker.unpack(entry, false, nullptr);
        }
        if (!_request.wantsMetadata) {
            return _unpacker.check(entry);
        }
        std::string content;
        auto unpacked = _unpacker.unpack(entry, false, &content);
        _application.metadata = Data(std::move(content));
        return unpacked;
    }

    Result<void> _rememberLink(const ZipDirectory::Entry& entry) {
        const auto target = _unpacker.content(entry);
        if (!target) {
            return target.error();
        }
        if (const auto checked = checkLinkTarget(entry.path, *target, _refuse); !checked) {
            return checked;
        }
        _unpacker.writer().addLink(entry.path, *target);
        return {};
    }

    /// On this thread, and one more for each place that nobody else needs.
    Result<void> _unpackShared() {
        SharedFiles files(std::move(_shared));
        std::deque<UnpackingPlaces::Place> places;
        std::deque<ArchiveFile> archives; // each thread has its own reader and writer, made before any of them works
        std::deque<FileUnpacker> unpackers;
        while (auto place = _places.takeSpare()) {
            const auto& taken = places.emplace_back(std::move(*place));
            unpackers.emplace_back(_request, archives.emplace_back(_file.another(taken.memory())),
                                   _unpacker.writer().another(), _refuse,
                                   [this](std::uint64_t bytes) { _wrote(bytes); });
        }
        OperationQueue others(std::max<std::size_t>(places.size(), 1));
        for (FileUnpacker& unpacker : unpackers) {
            others.addOperation([&] {
                const Span span(_request.timeline, "unpacking", _request.identifier);
                files.unpack(unpacker);
            });
        }
        files.unpack(_unpacker);
        others.stop();
        return files.outcome();
    }

    /// Links are looked at once all are there, since one may lead over another.
    Result<void> _makeLinks() {
        BundleWriter& writer = _unpacker.writer();
        if (writer.links().empty()) {
            return {};
        }
        if (const auto made = writer.makeLinks(); !made) {
            return makeWritingError(_request, made.error(), "a symbolic link");
        }
        Descriptor bundle;
        if (const int failed = openBeneath(_container, _application.bundleName, O_PATH | O_DIRECTORY, bundle)) {
            return makeWritingError(_request, makePosixError(failed, "open", _application.bundleName),
                                    _application.bundleName);
        }
        for (const auto& [path, target] : writer.links()) {
            if (const auto checked = checkLink(bundle.get(), path, target, _refuse); !checked) {
                return checked;
            }
        }
        return {};
    }

    /// Looks at Info.plist as soon as it has been read: a wrong app need not be unpacked to its end.
    Result<void> _readInfo() {
        auto info = readInfo(_info, _app, _propertyLists, _refuse);
        if (!info) {
            return info.error();
        }
        const auto identifier = info->string("BXBundleIdentifier");
        if (*identifier != _request.identifier) {
            return _refuse(InstallerError::identifierMismatch, "it holds the app \"" + printable(*identifier) +
                                                                   "\", asked for was \"" +
                                                                   printable(_request.identifier) + "\"");
        }
        _application.info = std::move(*info);
        return {};
    }

    Result<void> _checkInfo() {
        return _application.info.empty() ? _refuse(InstallerError::infoMissing, _app.infoPath, "is missing")
                                         : Result<void>();
    }

    void _wrote(std::uint64_t bytes) EXCLUDES(_progressMutex) {
        constexpr double smallestStep = 1.0 / 256;
        if (!_request.progress) {
            return;
        }
        const Lock lock(_progressMutex);
        _written += bytes;
        const double fraction = static_cast<double>(_written) / static_cast<double>(_directory.unpackedBytes());
        if (fraction >= _reported + smallestStep || _written == _directory.unpackedBytes()) {
            _reported = fraction;
            _request.progress(fraction);
        }
    }

    const ExtractionRequest& _request;
    const ZipDirectory& _directory;
    const int _container;
    const ArchiveLimits& _limits;
    PropertyListSerialization& _propertyLists;
    UnpackingPlaces& _places;
    const Refusal& _refuse;
    ArchiveFile& _file;
    FileUnpacker _unpacker;
    AppInArchive _app;
    ExtractedApplication _application;
    std::string _bundlePrefix; // "<Name>.app/"
    std::string _info;
    std::vector<const ZipDirectory::Entry*> _shared; // files that several threads may unpack, in their order
    Mutex _progressMutex;
    std::uint64_t _written GUARDED_BY(_progressMutex) = 0; // bytes, by all threads
    double _reported GUARDED_BY(_progressMutex) = 0;
};

} // namespace

Result<ExtractedApplication> extractApplication(const ExtractionRequest& request, int container,
                                                const ArchiveLimits& limits, PropertyListSerialization& propertyLists,
                                                UnpackingPlaces& places, FaultPoint* faultPoint) {
    const auto place = places.take(request.cancel);
    if (!place) {
        return makeCancelledError(request.identifier, request.archivePath);
    }
    const Refusal refuse(request.archivePath);
    auto file = ArchiveFile::open(request.archive, refuse, place->memory());
    if (!file) {
        return file.error();
    }
    const auto directory = [&] {
        const Span span(request.timeline, "checking", request.identifier);
        return ZipDirectory::read(*file, limits, refuse);
    }();
    if (!directory) {
        return directory.error();
    }
    return Extraction(request, *file, *directory, container, limits, propertyLists, places, refuse, faultPoint).run();
}

} // namespace appsync::device
