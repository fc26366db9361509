#include "device/archive/Extraction.h"

#include "archive/ArchiveReader.h"
#include "device/archive/BundleWriter.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"

namespace appsync::device {

namespace {

/// What the file system itself needs for a file or folder, at most.
constexpr std::uint64_t bytesPerEntry = 4096 + 512;

class Extraction {
  public:
    Extraction(const ExtractionRequest& request, ArchiveFile& file, const ZipDirectory& directory, int container,
               const ArchiveLimits& limits, PropertyListSerialization& propertyLists, const Refusal& refuse,
               FaultPoint* faultPoint)
        : _request(request), _directory(directory), _container(container), _limits(limits),
          _propertyLists(propertyLists), _refuse(refuse), _reader(file, refuse), _writer(container, faultPoint) {}

    Result<ExtractedApplication> run() {
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
        if (!_request.freeSpace || needed <= *_request.freeSpace) {
            return {};
        }
        return _noSpace("it needs " + std::to_string(needed) + " bytes, " + std::to_string(*_request.freeSpace) +
                        " are free");
    }

    Result<void> _unpack() {
        for (const ZipDirectory::Entry& entry : _directory.entries()) {
            if (const auto opened = _reader.open(entry); !opened) {
                return opened;
            }
            if (const auto unpacked = _unpackEntry(entry); !unpacked) {
                return unpacked;
            }
        }
        return {};
    }

    Result<void> _unpackEntry(const ZipDirectory::Entry& entry) {
        if (entry.path == metadataFileName || entry.path == artworkFileName) {
            return _unpackCompanion(entry);
        }
        if (!entry.path.starts_with(_bundlePrefix) && entry.path != _application.bundleName) {
            return {}; // not the app's
        }
        if (entry.kind == ZipDirectory::Kind::folder) {
            const auto made = _writer.makeFolder(entry.path);
            return made ? made : _writingFailed(made.error(), entry.path);
        }
        if (entry.kind == ZipDirectory::Kind::link) {
            return _rememberLink(entry);
        }
        std::string* content = entry.path == _app.infoPath ? &_info : nullptr;
        if (const auto unpacked = _unpackFile(entry, entry.isExecutable, content); !unpacked) {
            return unpacked;
        }
        _application.bytes += entry.unpackedBytes;
        return content ? _readInfo() : Result<void>();
    }

    /// The files beside the app's folder.
    Result<void> _unpackCompanion(const ZipDirectory::Entry& entry) {
        if (entry.path != metadataFileName) {
            return _unpackFile(entry, false, nullptr);
        }
        if (!_request.wantsMetadata) {
            return {};
        }
        std::string content;
        auto unpacked = _unpackFile(entry, false, &content);
        _application.metadata = Data(std::move(content));
        return unpacked;
    }

    Result<void> _rememberLink(const ZipDirectory::Entry& entry) {
        const auto target = _reader.content();
        if (!target) {
            return target.error();
        }
        if (const auto checked = checkLinkTarget(entry.path, *target, _refuse); !checked) {
            return checked;
        }
        _writer.addLink(entry.path, *target);
        return {};
    }

    Result<void> _unpackFile(const ZipDirectory::Entry& entry, bool isExecutable, std::string* content) {
        const auto file = _writer.makeFile(entry.path, isExecutable, entry.unpackedBytes);
        if (!file) {
            return _writingFailed(file.error(), entry.path);
        }
        for (;;) {
            const auto piece = _reader.nextPiece();
            if (!piece) {
                return piece.error();
            }
            if (piece->empty()) {
                BundleWriter::finishFile(*file, entry.unpackedBytes);
                return {};
            }
            if (_request.cancel.stop_requested()) {
                return makeCancelledError(_request.identifier, _request.archivePath);
            }
            if (const auto written = _writer.write(*file, *piece, entry.path); !written) {
                return _writingFailed(written.error(), entry.path);
            }
            if (content) {
                content->append(*piece);
            }
            _report(piece->size());
        }
    }

    /// Links are looked at once all are there, since one may lead over another.
    Result<void> _makeLinks() {
        if (_writer.links().empty()) {
            return {};
        }
        if (const auto made = _writer.makeLinks(); !made) {
            return _writingFailed(made.error(), "a symbolic link");
        }
        Descriptor bundle;
        if (const int failed = openBeneath(_container, _application.bundleName, O_PATH | O_DIRECTORY, bundle)) {
            return _writingFailed(makePosixError(failed, "open", _application.bundleName), _application.bundleName);
        }
        for (const auto& [path, target] : _writer.links()) {
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

    /// `reason` is what the system says.
    [[nodiscard]] ErrorPtr _writingFailed(const ErrorPtr& reason, std::string_view entry) const {
        const auto number = static_cast<int>(reason->code());
        const std::string text = "writing its entry \"" + printable(entry) + "\": " + systemText(number);
        return number == ENOSPC || number == EDQUOT
                   ? _noSpace(text)
                   : makeInstallerError(InstallerError::failed,
                                        "cannot install the archive " + _request.archivePath + ": " + text,
                                        _request.archivePath);
    }

    const ExtractionRequest& _request;
    const ZipDirectory& _directory;
    const int _container;
    const ArchiveLimits& _limits;
    PropertyListSerialization& _propertyLists;
    const Refusal& _refuse;
    ArchiveReader _reader;
    BundleWriter _writer;
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
    const Refusal refuse(request.archivePath);
    auto file = ArchiveFile::open(request.archive, refuse);
    if (!file) {
        return file.error();
    }
    const auto directory = ZipDirectory::read(*file, limits, refuse);
    if (!directory) {
        return directory.error();
    }
    return Extraction(request, *file, *directory, container, limits, propertyLists, refuse, faultPoint).run();
}

} // namespace appsync::device
