#include "device/archive/Extraction.h"

#include "archive/ArchiveReader.h"
#include "device/archive/BundleWriter.h"
#include "device/root/FaultPoint.h"
#include "files/Syscalls.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"

namespace appsync::device {

namespace {

/// What the file system itself needs for a file or folder, at most.
constexpr std::uint64_t bytesPerEntry = 4096 + 512;

class Extraction {
  public:
    Extraction(const ExtractionRequest& request, int container, const ArchiveLimits& limits,
               PropertyListSerialization& propertyLists, FaultPoint* faultPoint)
        : _request(request), _container(container), _limits(limits), _propertyLists(propertyLists),
          _faultPoint(faultPoint), _refuse(request.archivePath), _writer(container, faultPoint) {}

    Result<ExtractedApplication> run() {
        auto directory = ZipDirectory::read(_request.archive, _limits, _refuse);
        if (!directory) {
            return directory.error();
        }
        _directory = std::move(*directory);
        for (const auto step : {&Extraction::_findApplication, &Extraction::_checkSpace, &Extraction::_unpack,
                                &Extraction::_makeLinks, &Extraction::_checkInfo}) {
            if (ErrorPtr error = (this->*step)()) {
                return error;
            }
        }
        return std::move(_application);
    }

  private:
    ErrorPtr _findApplication() {
        auto found = findApplication(_directory, _limits, _refuse);
        if (!found) {
            return found.error();
        }
        _app = std::move(*found);
        _application.bundleName = _app.bundleName;
        _bundlePrefix = _app.bundleName + "/";
        return nullptr;
    }

    ErrorPtr _checkSpace() {
        const std::uint64_t needed = _directory.unpackedBytes() + _directory.count() * bytesPerEntry;
        if (!_request.freeSpace || needed <= *_request.freeSpace) {
            return nullptr;
        }
        return _noSpace("it needs " + std::to_string(needed) + " bytes, " + std::to_string(*_request.freeSpace) +
                        " are free");
    }

    ErrorPtr _unpack() {
        ArchiveReader reader(_refuse);
        if (const auto opened = reader.open(_request.archive); !opened) {
            return opened.error();
        }
        for (const ZipDirectory::Entry& entry : _directory.entries()) {
            const auto found = reader.next(entry);
            if (!found) {
                return found.error();
            }
            if (ErrorPtr error = _unpackEntry(reader, entry, *found)) {
                return error;
            }
        }
        return reader.end().error();
    }

    ErrorPtr _unpackEntry(ArchiveReader& reader, const ZipDirectory::Entry& entry, const ArchiveReader::Entry& found) {
        if (entry.path == metadataFileName || entry.path == artworkFileName) {
            return _unpackCompanion(reader, entry);
        }
        if (!entry.path.starts_with(_bundlePrefix) && entry.path != _application.bundleName) {
            return nullptr; // not the app's
        }
        if (entry.kind == ZipDirectory::Kind::folder) {
            return _systemError(_writer.makeFolder(entry.path), entry.path);
        }
        if (entry.kind == ZipDirectory::Kind::link) {
            return _rememberLink(entry.path, found.linkTarget);
        }
        std::string* content = entry.path == _app.infoPath ? &_info : nullptr;
        if (ErrorPtr error = _unpackFile(reader, entry, found.isExecutable, content)) {
            return error;
        }
        _application.bytes += entry.unpackedBytes;
        return content ? _readInfo() : nullptr;
    }

    /// The files beside the app's folder.
    ErrorPtr _unpackCompanion(ArchiveReader& reader, const ZipDirectory::Entry& entry) {
        if (entry.path != metadataFileName) {
            return _unpackFile(reader, entry, false, nullptr);
        }
        if (!_request.wantsMetadata) {
            return nullptr;
        }
        std::string content;
        ErrorPtr error = _unpackFile(reader, entry, false, &content);
        _application.metadata = Data(std::move(content));
        return error;
    }

    ErrorPtr _rememberLink(std::string_view path, std::string_view target) {
        if (ErrorPtr refused = checkLinkTarget(path, target, _refuse)) {
            return refused;
        }
        _writer.addLink(path, target);
        return nullptr;
    }

    ErrorPtr _unpackFile(ArchiveReader& reader, const ZipDirectory::Entry& entry, bool isExecutable,
                         std::string* content) {
        Descriptor file;
        if (const int failed = _writer.makeFile(entry.path, isExecutable, entry.unpackedBytes, file)) {
            return _systemError(failed, entry.path);
        }
        for (;;) {
            const auto piece = reader.nextPiece();
            if (!piece) {
                return piece.error();
            }
            if (piece->empty()) {
                BundleWriter::finishFile(file.get(), entry.unpackedBytes);
                return nullptr;
            }
            if (_request.cancel.stop_requested()) {
                return makeCancelledError(_request.identifier, _request.archivePath);
            }
            if (const int failed = _write(file.get(), *piece, entry.path)) {
                return _systemError(failed, entry.path);
            }
            if (content) {
                content->append(*piece);
            }
            _report(piece->size());
        }
    }

    [[nodiscard]] int _write(int file, std::string_view piece, std::string_view path) const {
        const int failed = beforeChange(_faultPoint, "write", path);
        return failed != 0 ? failed : writeAll(file, piece);
    }

    /// Links are looked at once all are there, since one may lead over another.
    ErrorPtr _makeLinks() {
        if (_writer.links().empty()) {
            return nullptr;
        }
        if (const int failed = _writer.makeLinks()) {
            return _systemError(failed, "a symbolic link");
        }
        Descriptor bundle;
        if (const int failed = openBeneath(_container, _application.bundleName, O_PATH | O_DIRECTORY, bundle)) {
            return _systemError(failed, _application.bundleName);
        }
        for (const auto& [path, target] : _writer.links()) {
            if (ErrorPtr refused = checkLink(bundle.get(), path, target, _refuse)) {
                return refused;
            }
        }
        return nullptr;
    }

    /// Looks at Info.plist as soon as it has been read: a wrong app need not be unpacked to its end.
    ErrorPtr _readInfo() {
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
        return nullptr;
    }

    ErrorPtr _checkInfo() {
        return _application.info.empty() ? _refuse(InstallerError::infoMissing, _app.infoPath, "is missing") : nullptr;
    }

    void _report(std::uint64_t bytes) {
        constexpr double smallestStep = 1.0 / 256;
        _written += bytes;
        if (!_request.progress) {
            return;
        }
        const double fraction = static_cast<double>(_written) / static_cast<double>(_directory.unpackedBytes());
        if (fraction >= _reported + smallestStep || _written == _directory.unpackedBytes()) {
            _reported = fraction;
            _request.progress(fraction);
        }
    }

    [[nodiscard]] ErrorPtr _noSpace(const std::string& reason) const {
        return makeInstallerError(InstallerError::notEnoughSpace,
                                  "there is no space to install the archive " + _request.archivePath + ": " + reason +
                                      "; remove apps or files and try again",
                                  _request.archivePath);
    }

    [[nodiscard]] ErrorPtr _systemError(int failed, std::string_view entry) const {
        if (failed == 0) {
            return nullptr;
        }
        const std::string text = "writing its entry \"" + printable(entry) + "\": " + systemText(failed);
        return failed == ENOSPC || failed == EDQUOT
                   ? _noSpace(text)
                   : makeInstallerError(InstallerError::failed,
                                        "cannot install the archive " + _request.archivePath + ": " + text,
                                        _request.archivePath);
    }

    const ExtractionRequest& _request;
    const int _container;
    const ArchiveLimits& _limits;
    PropertyListSerialization& _propertyLists;
    FaultPoint* const _faultPoint;
    const Refusal _refuse;
    BundleWriter _writer;
    ZipDirectory _directory;
    AppInArchive _app;
    ExtractedApplication _application;
    std::string _bundlePrefix; // "<Name>.app/"
    std::string _info;
    std::uint64_t _written = 0;
    double _reported = 0;
};

} // namespace

Result<ExtractedApplication> extractApplication(const ExtractionRequest& request, int container,
                                                const ArchiveLimits& limits, PropertyListSerialization& propertyLists,
                                                FaultPoint* faultPoint) {
    return Extraction(request, container, limits, propertyLists, faultPoint).run();
}

} // namespace appsync::device
