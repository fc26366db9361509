#include "archive/ZipDirectory.h"

#include "archive/EntryPath.h"
#include "archive/ZipRecords.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <optional>

namespace appsync {

namespace {

using Kind = ZipDirectory::Kind;

constexpr std::size_t impliedFolder = SIZE_MAX;

/// A directory of ordinary entries needs about 100 bytes for each.
constexpr std::uint64_t maxDirectorySize = std::uint64_t{64} << 20;
constexpr std::uint32_t dosFolderAttribute = 0x10;
constexpr std::uint64_t maxLinkTarget = PATH_MAX - 1; // the system takes no longer one

/// nullopt for what is neither file, folder nor link.
std::optional<Kind> statedKind(const zip::EntryRecord& record) {
    if (record.name.ends_with('/')) {
        return Kind::folder;
    }
    if (record.system == zip::madeOnDos) {
        return (record.attributes & dosFolderAttribute) != 0 ? Kind::folder : Kind::file;
    }
    switch (record.system == zip::madeOnUnix ? record.attributes >> 16 & S_IFMT : 0) {
    case 0:
    case S_IFREG: return Kind::file;
    case S_IFDIR: return Kind::folder;
    case S_IFLNK: return Kind::link;
    default: return std::nullopt;
    }
}

bool isExecutable(const zip::EntryRecord& record) {
    return record.system == zip::madeOnUnix && (record.attributes >> 16 & 0111) != 0;
}

} // namespace

/// Reads one directory.
class ZipDirectory::Reader {
  public:
    Reader(ArchiveFile& archive, const ArchiveLimits& limits, const Refusal& refuse)
        : _archive(archive), _limits(limits), _refuse(refuse) {}

    Result<ZipDirectory> read() {
        for (const auto step : {&Reader::_findEnd, &Reader::_findEnd64, &Reader::_readDirectory, &Reader::_readEntries,
                                &Reader::_checkPlaces, &Reader::_fillTable, &Reader::_checkSizes}) {
            if (const auto done = (this->*step)(); !done) {
                return done.error();
            }
        }
        return std::move(_directory);
    }

  private:
    [[nodiscard]] ErrorPtr _damaged(std::string_view reason) const {
        return _refuse(InstallerError::archiveDamaged, reason);
    }

    [[nodiscard]] ErrorPtr _tooMany(std::string_view what) const {
        return _refuse(InstallerError::archiveTooLarge,
                       "it has more than " + std::to_string(_limits.entries) + " " + std::string(what));
    }

    Result<void> _findEnd() {
        const std::uint64_t size = _archive.size();
        const auto tailSize =
            static_cast<std::size_t>(std::min<std::uint64_t>(size, zip::endRecordSize + zip::maxCommentSize));
        const auto tail = _archive.read(size - tailSize, tailSize);
        if (!tail) {
            return tail.error();
        }
        for (std::size_t place = tailSize; place-- > 0;) {
            const auto end = zip::readEndRecord(tail->substr(place));
            if (!end || place + zip::endRecordSize + end->commentSize != tailSize) {
                continue;
            }
            if (!end->isWhole) {
                return _refuse(InstallerError::archiveUnsupported, "it is one part of several");
            }
            _end = *end;
            _endPlace = _directoryEnd = size - tailSize + place;
            return {};
        }
        return _damaged(size == 0 ? "it is empty" : "it is no zip archive, or its end is missing; transfer it again");
    }

    /// An archive beyond 4 GB or 65,535 entries says its figures in a second record before the first.
    Result<void> _findEnd64() {
        if (_end.entries != 0xffff && _end.directorySize != 0xffffffff && _end.directoryStart != 0xffffffff) {
            return {};
        }
        if (_endPlace < zip::locator64Size + zip::endRecord64Size) {
            return {};
        }
        const std::uint64_t locatorPlace = _endPlace - zip::locator64Size;
        const auto bytes = _archive.read(locatorPlace, zip::locator64Size);
        if (!bytes) {
            return bytes.error();
        }
        const auto place = zip::readLocator64(*bytes);
        return place ? _readEnd64(*place, locatorPlace) : Result<void>(); // exactly 65,535 entries are possible without
    }

    Result<void> _readEnd64(std::uint64_t place, std::uint64_t locatorPlace) {
        constexpr std::string_view contradiction = "its directory's end contradicts itself";
        if (place > locatorPlace - zip::endRecord64Size) {
            return _damaged(contradiction);
        }
        const auto bytes = _archive.read(place, zip::endRecord64Size);
        if (!bytes) {
            return bytes.error();
        }
        const auto end = zip::readEndRecord64(*bytes);
        if (!end) {
            return _damaged(contradiction);
        }
        _end = *end;
        _directoryEnd = place;
        return {};
    }

    Result<void> _readDirectory() {
        if (_end.entries > _limits.entries) {
            return _tooMany("entries");
        }
        if (_end.directorySize > maxDirectorySize) {
            return _refuse(InstallerError::archiveTooLarge, "its directory is larger than any app needs");
        }
        if (_end.directoryStart > _directoryEnd || _directoryEnd - _end.directoryStart != _end.directorySize) {
            return _damaged("its directory is not where its end says");
        }
        _directory._bytes.resize(static_cast<std::size_t>(_end.directorySize));
        return _archive.read(_end.directoryStart, std::span(_directory._bytes));
    }

    Result<void> _readEntries() {
        if (_end.entries > _end.directorySize / zip::entryRecordSize) {
            return _damaged("its directory is shorter than its number of entries needs");
        }
        const auto count = static_cast<std::size_t>(_end.entries);
        _directory._entries.reserve(count);
        std::string_view rest = _directory._bytes;
        for (std::size_t number = 0; number < count; ++number) {
            const auto record = zip::takeEntryRecord(rest);
            if (!record) {
                return _damaged("its directory is damaged");
            }
            if (const auto checked = _checkRecord(*record); !checked) {
                return checked;
            }
            if (const auto added = _addEntry(*record); !added) {
                return added;
            }
        }
        return rest.empty() ? Result<void>() : _damaged("its directory is longer than its number of entries needs");
    }

    [[nodiscard]] Result<void> _checkRecord(const zip::EntryRecord& record) const {
        if (!record.hasFigures) {
            return _refuse(InstallerError::archiveDamaged, record.name, "has a damaged size or damaged extra bytes");
        }
        if ((record.flags & zip::encryptedFlags) != 0) {
            return _refuse(InstallerError::archiveUnsupported, record.name, "is encrypted");
        }
        if ((record.flags & zip::patchFlag) != 0 ||
            (record.method != zip::methodStored && record.method != zip::methodDeflated)) {
            return _refuse(InstallerError::archiveUnsupported, record.name,
                           "is compressed in a way that the device does not know (method " +
                               std::to_string(record.method) + "); use \"deflate\" or none");
        }
        if (record.part != 0) {
            return _refuse(InstallerError::archiveUnsupported, record.name, "lies in another part of the archive");
        }
        if (record.localHeader >= _archive.size() || record.sizes.packed > _archive.size()) {
            return _refuse(InstallerError::archiveDamaged, record.name, "reaches beyond the archive's data");
        }
        if (record.method == zip::methodStored && record.sizes.packed != record.sizes.unpacked) {
            return _refuse(InstallerError::archiveDamaged, record.name, "has two different sizes");
        }
        return {};
    }

    Result<void> _addEntry(const zip::EntryRecord& record) {
        std::string_view path = record.name;
        const auto kind = statedKind(record);
        if (!kind) {
            return _refuse(InstallerError::unsupportedEntry, path, unsupportedKind);
        }
        if (path.ends_with('/')) {
            path.remove_suffix(1);
        }
        if (const auto checked = checkPath(path, _limits, _refuse, record.name); !checked) {
            return checked;
        }
        if (*kind == Kind::folder && record.sizes.unpacked != 0) {
            return _refuse(InstallerError::archiveDamaged, path, "is a folder with content");
        }
        if (*kind == Kind::link && record.sizes.unpacked > maxLinkTarget) {
            return _refuse(InstallerError::archiveDamaged, path, "is a symbolic link with too long a target");
        }
        _directory._entries.push_back({.name = record.name,
                                       .path = path,
                                       .kind = *kind,
                                       .isExecutable = isExecutable(record),
                                       .isDeflated = record.method == zip::methodDeflated,
                                       .checksum = record.checksum,
                                       .packedBytes = record.sizes.packed,
                                       .unpackedBytes = record.sizes.unpacked,
                                       .start = record.localHeader});
        return {};
    }

    /// Entries that share bytes would unpack to more than the archive can hold.
    Result<void> _checkPlaces() {
        std::ranges::sort(_directory._entries, {}, &Entry::start);
        std::uint64_t end = 0;
        Entry* previous = nullptr;
        for (Entry& entry : _directory._entries) {
            if (entry.start < end) {
                return _refuse(InstallerError::archiveDamaged, entry.path, "lies over another entry");
            }
            end = entry.start + zip::localHeaderSize + entry.name.size() + entry.packedBytes;
            if (end > _end.directoryStart) {
                return _refuse(InstallerError::archiveDamaged, entry.path, "reaches beyond the archive's data");
            }
            if (previous) {
                previous->end = entry.start;
            }
            entry.end = _end.directoryStart;
            previous = &entry;
        }
        return {};
    }

    Result<void> _fillTable() {
        const std::size_t count = _directory._entries.size();
        _directory._numbers.reserve(count + count / 4);
        for (std::size_t number = 0; number < count; ++number) {
            const Entry& entry = _directory._entries[number];
            if (const auto added = _addPath(entry.path, entry.kind, number); !added) {
                return added;
            }
            if (_directory.count() > _limits.entries) {
                return _tooMany("files and folders");
            }
        }
        return {};
    }

    /// Adds the path and its parents to the table, in which each stands for one thing only.
    Result<void> _addPath(std::string_view path, Kind kind, std::size_t number) {
        const auto [known, isNew] = _directory._numbers.try_emplace(path, number);
        if (!isNew) {
            if (known->second != impliedFolder || kind != Kind::folder) {
                return _refuse(InstallerError::duplicateEntry, path, "is there twice");
            }
            known->second = number;
        }
        for (std::string_view parent = parentOf(path); !parent.empty(); parent = parentOf(parent)) {
            const auto [folder, isNewFolder] = _directory._numbers.try_emplace(parent, impliedFolder);
            if (isNewFolder) {
                continue;
            }
            if (folder->second != impliedFolder && _directory._entries[folder->second].kind != Kind::folder) {
                return _refuse(InstallerError::duplicateEntry, parent, "is there as a file and as a folder");
            }
            break; // its parents are in the table
        }
        return {};
    }

    Result<void> _checkSizes() {
        std::uint64_t& total = _directory._unpackedBytes;
        for (const Entry& entry : _directory._entries) {
            if (entry.unpackedBytes > _limits.unpackedBytes - total) {
                return _refuse(InstallerError::archiveTooLarge,
                               "it unpacks to more than " + std::to_string(_limits.unpackedBytes) + " bytes");
            }
            total += entry.unpackedBytes;
        }
        if (total > _limits.freeBytes && total / _archive.size() >= _limits.ratio) {
            return _refuse(InstallerError::archiveTooLarge, "it unpacks to " + std::to_string(total) + " bytes, " +
                                                                std::to_string(total / _archive.size()) +
                                                                " times its size; at most " +
                                                                std::to_string(_limits.ratio) + " times is taken");
        }
        return {};
    }

    ArchiveFile& _archive;
    const ArchiveLimits& _limits;
    const Refusal& _refuse;
    zip::EndRecord _end;
    std::uint64_t _endPlace = 0;
    std::uint64_t _directoryEnd = 0;
    ZipDirectory _directory;
};

Result<ZipDirectory> ZipDirectory::read(ArchiveFile& archive, const ArchiveLimits& limits, const Refusal& refuse) {
    return Reader(archive, limits, refuse).read();
}

const ZipDirectory::Entry* ZipDirectory::find(std::string_view path) const noexcept {
    const auto found = _numbers.find(path);
    return found == _numbers.end() || found->second == impliedFolder ? nullptr : &_entries[found->second];
}

std::optional<ZipDirectory::Kind> ZipDirectory::kindOf(std::string_view path) const noexcept {
    const auto found = _numbers.find(path);
    if (found == _numbers.end()) {
        return std::nullopt;
    }
    return found->second == impliedFolder ? Kind::folder : _entries[found->second].kind;
}

} // namespace appsync
