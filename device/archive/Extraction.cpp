#include "device/archive/Extraction.h"

#include "device/archive/ArchiveReader.h"
#include "device/archive/BundleWriter.h"
#include "device/archive/EntryPath.h"
#include "device/archive/ZipDirectory.h"
#include "device/root/Syscalls.h"
#include "device/text/Printable.h"
#include "platform/PropertyListSerialization.h"

#include <sys/stat.h>

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
    /// Finds the one folder "<Name>.app" at the top.
    ErrorPtr _findApplication() {
        std::string_view found;
        for (const ZipDirectory::Entry& entry : _directory.entries()) {
            const std::string_view top = entry.path.substr(0, entry.path.find('/'));
            const bool isFolder = top.size() < entry.path.size() || entry.kind == ZipDirectory::Kind::folder;
            if (!isFolder || !top.ends_with(bundleExtension) || top.size() == bundleExtension.size() || top == found) {
                continue;
            }
            if (!found.empty()) {
                return _refuse(InstallerError::noApplication, "it holds two apps, \"" + printable(found) + "\" and \"" +
                                                                  printable(top) + "\"; an archive holds one");
            }
            found = top;
        }
        if (found.empty()) {
            return _refuse(InstallerError::noApplication, "it holds no folder \"<Name>.app\" at its top");
        }
        _application.bundleName = found;
        _bundlePrefix = _application.bundleName + "/";
        _infoPath = _bundlePrefix + std::string(infoFileName);
        const ZipDirectory::Entry* info = _directory.find(_infoPath);
        if (!info || info->kind != ZipDirectory::Kind::file || info->unpackedBytes > _limits.listBytes) {
            return _refuse(InstallerError::infoMissing, "it has no usable file \"" + printable(_infoPath) + "\"");
        }
        return nullptr;
    }

    ErrorPtr _checkSpace() {
        const std::uint64_t needed = _directory.unpackedBytes() + _directory.entries().size() * bytesPerEntry;
        if (!_request.freeSpace || needed <= *_request.freeSpace) {
            return nullptr;
        }
        return _noSpace("it needs " + std::to_string(needed) + " bytes, " + std::to_string(*_request.freeSpace) +
                        " are free");
    }

    ErrorPtr _unpack() {
        struct stat status {};
        if (::fstat(_request.archive, &status) != 0) {
            return _refuse(InstallerError::archiveMissing, systemText(errno));
        }
        ArchiveReader reader(_refuse);
        const auto opened = reader.open(_request.archive, static_cast<std::uint64_t>(status.st_size));
        if (!opened) {
            return opened.error();
        }
        for (const ZipDirectory::Entry& stated : _directory.entries()) {
            const auto found = reader.next();
            if (!found) {
                return found.error();
            }
            if (!*found || !_isAsStated(**found, stated)) {
                return _refuse(InstallerError::archiveDamaged, stated.path, "is not what the archive's directory says");
            }
            if (ErrorPtr error = _unpackEntry(reader, stated, **found)) {
                return error;
            }
        }
        const auto more = reader.next();
        return more && !*more ? nullptr : _refuse(InstallerError::archiveDamaged, "it goes on after its last entry");
    }

    /// The names have been checked in the directory and are taken from there; the reader may spell them differently.
    static bool _isAsStated(const ArchiveReader::Entry& found, const ZipDirectory::Entry& stated) {
        switch (found.kind) {
        case ArchiveReader::Kind::file:
            return stated.kind == ZipDirectory::Kind::file && found.unpackedBytes == stated.unpackedBytes;
        case ArchiveReader::Kind::folder: return stated.kind == ZipDirectory::Kind::folder;
        case ArchiveReader::Kind::link: return stated.kind == ZipDirectory::Kind::link;
        default: return false;
        }
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
        std::string* content = entry.path == _infoPath ? &_info : nullptr;
        if (ErrorPtr error = _unpackFile(reader, entry, found.isExecutable, content)) {
            return error;
        }
        _application.bytes += entry.unpackedBytes;
        return content ? _readInfo() : nullptr;
    }

    /// The files beside the app's folder.
    ErrorPtr _unpackCompanion(ArchiveReader& reader, const ZipDirectory::Entry& entry) {
        if (entry.kind != ZipDirectory::Kind::file) {
            return _refuse(InstallerError::unsupportedEntry, entry.path, "must be a file");
        }
        if (entry.unpackedBytes > _limits.listBytes) {
            return _refuse(InstallerError::archiveTooLarge, entry.path, "is larger than the device reads");
        }
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
        if (target.empty()) {
            return _refuse(InstallerError::archiveDamaged, path, "is a symbolic link without a target");
        }
        if (target.starts_with('/')) {
            return _refuse(InstallerError::unsafePath, path, "is a symbolic link with an absolute target");
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
        for (std::uint64_t written = 0;;) {
            const auto piece = reader.nextPiece();
            if (!piece) {
                return piece.error();
            }
            if (piece->size() > entry.unpackedBytes - written || (piece->empty() && written < entry.unpackedBytes)) {
                return _refuse(InstallerError::archiveDamaged, entry.path,
                               "has another size than the archive's directory says");
            }
            if (piece->empty()) {
                BundleWriter::finishFile(file.get(), written);
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
            written += piece->size();
            _report(piece->size());
        }
    }

    [[nodiscard]] int _write(int file, std::string_view piece, std::string_view path) const {
        const int failed = beforeChange(_faultPoint, "write", path);
        return failed != 0 ? failed : writeAll(file, piece);
    }

    /// Every link must lead to something in the app; the kernel follows it there, over other links if need be.
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
            Descriptor reached;
            if (openBeneath(bundle.get(), path.substr(_bundlePrefix.size()), O_PATH, reached) != 0) {
                return _refuse(InstallerError::unsafePath, path,
                               "is a symbolic link to \"" + printable(target) + "\", which is not in the app");
            }
        }
        return nullptr;
    }

    /// Looks at Info.plist as soon as it has been read: a wrong app need not be unpacked to its end.
    ErrorPtr _readInfo() {
        ErrorPtr reason;
        auto list = _propertyLists.propertyListWithData(_info, &reason);
        Dictionary* info = list ? list->mutableDictionary() : nullptr;
        if (!info) {
            return _refuse(InstallerError::infoMissing, _infoPath,
                           list ? "is a property list but no dictionary" : "cannot be read: " + errorText(reason));
        }
        const auto identifier = info->string("BXBundleIdentifier");
        if (!identifier) {
            return _refuse(InstallerError::infoMissing, _infoPath, "has no \"BXBundleIdentifier\"");
        }
        if (*identifier != _request.identifier) {
            return _refuse(InstallerError::identifierMismatch, "it holds the app \"" + printable(*identifier) +
                                                                   "\", asked for was \"" +
                                                                   printable(_request.identifier) + "\"");
        }
        _application.info = std::move(*info);
        return nullptr;
    }

    ErrorPtr _checkInfo() {
        return _application.info.empty() ? _refuse(InstallerError::infoMissing, _infoPath, "is missing") : nullptr;
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
    ExtractedApplication _application;
    std::string _bundlePrefix; // "<Name>.app/"
    std::string _infoPath;
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
