#include "archive/ZipDirectory.h"

#include "archive/EntryPath.h"
#include "files/Syscalls.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

namespace appsync {

namespace {

constexpr std::size_t impliedFolder = SIZE_MAX;

/// Sizes of the fixed parts of the format's records, and where each begins to be looked for.
constexpr std::size_t endRecordSize = 22;
constexpr std::size_t maximumCommentSize = 0xffff;
constexpr std::size_t locator64Size = 20;
constexpr std::size_t endRecord64Size = 56;
constexpr std::size_t entryRecordSize = 46;
constexpr std::size_t localHeaderSize = 30;
/// A directory of ordinary entries needs about 100 bytes for each.
constexpr std::uint64_t maximumDirectorySize = std::uint64_t{64} << 20;

constexpr std::uint32_t endRecordSignature = 0x06054b50;
constexpr std::uint32_t locator64Signature = 0x07064b50;
constexpr std::uint32_t endRecord64Signature = 0x06064b50;
constexpr std::uint32_t entrySignature = 0x02014b50;

constexpr unsigned encryptedFlags = 1U << 0 | 1U << 6 | 1U << 13;
constexpr unsigned patchFlag = 1U << 5;
constexpr unsigned methodStored = 0;
constexpr unsigned methodDeflated = 8;
constexpr unsigned madeOnDos = 0;
constexpr unsigned madeOnUnix = 3;
constexpr std::uint32_t dosFolderAttribute = 0x10;
constexpr unsigned extra64Identifier = 0x0001;

/// A little-endian number of `Bytes` bytes; the caller has checked that it is there.
template <int Bytes> std::uint64_t number(std::string_view bytes, std::size_t place) {
    std::uint64_t value = 0;
    for (int count = Bytes; count-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes[place + static_cast<std::size_t>(count)]);
    }
    return value;
}
unsigned number16(std::string_view bytes, std::size_t place) {
    return static_cast<unsigned>(number<2>(bytes, place));
}
std::uint32_t number32(std::string_view bytes, std::size_t place) {
    return static_cast<std::uint32_t>(number<4>(bytes, place));
}

int readAt(int file, std::uint64_t offset, std::size_t size, std::string& bytes) {
    bytes.resize(size);
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = ::pread(file, bytes.data() + done, size - done, static_cast<off_t>(offset + done));
        if (count == 0) {
            return EIO; // the file has become shorter
        }
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return 0;
}

} // namespace

/// Reads one directory. Each step answers null, or why the archive is refused.
class ZipDirectoryReader {
  public:
    ZipDirectoryReader(int archive, const ArchiveLimits& limits, const Refusal& refuse)
        : _archive(archive), _limits(limits), _refuse(refuse) {}

    Result<ZipDirectory> read() {
        for (const auto step :
             {&ZipDirectoryReader::_findEnd, &ZipDirectoryReader::_findEnd64, &ZipDirectoryReader::_readDirectory,
              &ZipDirectoryReader::_readEntries, &ZipDirectoryReader::_checkPlaces, &ZipDirectoryReader::_fillTable,
              &ZipDirectoryReader::_checkSizes}) {
            if (ErrorPtr refused = (this->*step)()) {
                return refused;
            }
        }
        return std::move(_directory);
    }

  private:
    /// One record of the directory, as far as it is needed in more than one step.
    struct Record {
        std::string_view name;
        std::string_view extra;
        std::uint64_t packedBytes = 0;
        std::uint64_t unpackedBytes = 0;
        std::uint64_t localHeader = 0;
    };

    [[nodiscard]] ErrorPtr _damaged(std::string_view reason) const {
        return _refuse(InstallerError::archiveDamaged, reason);
    }

    [[nodiscard]] ErrorPtr _tooMany(std::string_view what) const {
        return _refuse(InstallerError::archiveTooLarge,
                       "it has more than " + std::to_string(_limits.entries) + " " + std::string(what));
    }

    ErrorPtr _findEnd() {
        struct stat status {};
        if (::fstat(_archive, &status) != 0) {
            return _refuse(InstallerError::archiveMissing, systemText(errno));
        }
        if (!S_ISREG(status.st_mode)) {
            return _refuse(InstallerError::archiveMissing, "it is not a file");
        }
        _fileSize = static_cast<std::uint64_t>(status.st_size);
        const auto tailSize =
            static_cast<std::size_t>(std::min<std::uint64_t>(_fileSize, endRecordSize + maximumCommentSize));
        if (const int failed = readAt(_archive, _fileSize - tailSize, tailSize, _tail)) {
            return _refuse(InstallerError::archiveMissing, systemText(failed));
        }
        _tailStart = _fileSize - tailSize;
        for (std::size_t place = tailSize; place-- > 0;) {
            if (tailSize - place >= endRecordSize && number32(_tail, place) == endRecordSignature &&
                place + endRecordSize + number16(_tail, place + 20) == tailSize) {
                return _readEnd(place);
            }
        }
        return _damaged(_fileSize == 0 ? "it is empty"
                                       : "it is no zip archive, or its end is missing; transfer it again");
    }

    ErrorPtr _readEnd(std::size_t place) {
        if (number16(_tail, place + 4) != 0 || number16(_tail, place + 6) != 0 ||
            number16(_tail, place + 8) != number16(_tail, place + 10)) {
            return _refuse(InstallerError::archiveUnsupported, "it is one part of several");
        }
        _endPlace = _tailStart + place;
        _entryCount = number16(_tail, place + 10);
        _directorySize = number32(_tail, place + 12);
        _directoryStart = number32(_tail, place + 16);
        _directoryEnd = _endPlace;
        return nullptr;
    }

    /// An archive beyond 4 GB or 65,535 entries says its figures in a second record before the first.
    ErrorPtr _findEnd64() {
        if (_entryCount != 0xffff && _directorySize != 0xffffffff && _directoryStart != 0xffffffff) {
            return nullptr;
        }
        std::string bytes;
        if (_endPlace < locator64Size + endRecord64Size ||
            readAt(_archive, _endPlace - locator64Size, locator64Size, bytes) != 0 ||
            number32(bytes, 0) != locator64Signature) {
            return nullptr; // exactly 65,535 entries are possible without
        }
        const std::uint64_t place = number<8>(bytes, 8);
        if (place > _endPlace - locator64Size - endRecord64Size ||
            readAt(_archive, place, endRecord64Size, bytes) != 0 || number32(bytes, 0) != endRecord64Signature) {
            return _damaged("its directory's end contradicts itself");
        }
        _entryCount = number<8>(bytes, 32);
        _directorySize = number<8>(bytes, 40);
        _directoryStart = number<8>(bytes, 48);
        _directoryEnd = place;
        return nullptr;
    }

    ErrorPtr _readDirectory() {
        if (_entryCount > _limits.entries) {
            return _tooMany("entries");
        }
        if (_directorySize > maximumDirectorySize) {
            return _refuse(InstallerError::archiveTooLarge, "its directory is larger than any app needs");
        }
        if (_directoryStart > _directoryEnd || _directoryEnd - _directoryStart != _directorySize) {
            return _damaged("its directory is not where its end says");
        }
        if (_directoryStart >= _tailStart) {
            _directory._bytes = _tail.substr(static_cast<std::size_t>(_directoryStart - _tailStart),
                                             static_cast<std::size_t>(_directorySize));
            return nullptr;
        }
        const int failed =
            readAt(_archive, _directoryStart, static_cast<std::size_t>(_directorySize), _directory._bytes);
        return failed == 0 ? nullptr : _refuse(InstallerError::archiveMissing, systemText(failed));
    }

    ErrorPtr _readEntries() {
        if (_entryCount > _directorySize / entryRecordSize) {
            return _damaged("its directory is shorter than its number of entries needs");
        }
        const auto count = static_cast<std::size_t>(_entryCount);
        _directory._entries.reserve(count);
        std::string_view rest = _directory._bytes;
        for (std::size_t entry = 0; entry < count; ++entry) {
            if (ErrorPtr refused = _readEntry(rest)) {
                return refused;
            }
        }
        return rest.empty() ? nullptr : _damaged("its directory is longer than its number of entries needs");
    }

    ErrorPtr _readEntry(std::string_view& rest) {
        if (rest.size() < entryRecordSize || number32(rest, 0) != entrySignature) {
            return _damaged("its directory is damaged");
        }
        const std::size_t nameSize = number16(rest, 28);
        const std::size_t extraSize = number16(rest, 30);
        const std::size_t size = entryRecordSize + nameSize + extraSize + number16(rest, 32);
        if (size > rest.size()) {
            return _damaged("its directory is damaged");
        }
        const std::string_view fixed = rest.substr(0, entryRecordSize);
        Record record{rest.substr(entryRecordSize, nameSize), rest.substr(entryRecordSize + nameSize, extraSize),
                      number32(fixed, 20), number32(fixed, 24), number32(fixed, 42)};
        rest.remove_prefix(size);
        if (ErrorPtr refused = _readFigures64(record)) {
            return refused;
        }
        if (ErrorPtr refused = _checkFeatures(fixed, record)) {
            return refused;
        }
        return _addEntry(fixed, record);
    }

    /// Figures that do not fit their fields stand in an extra field, in this order.
    ErrorPtr _readFigures64(Record& record) const {
        std::string_view extra = record.extra;
        while (extra.size() >= 4) {
            const std::size_t size = number16(extra, 2);
            if (size > extra.size() - 4) {
                break;
            }
            std::string_view field = extra.substr(4, size);
            const bool isWanted = number16(extra, 0) == extra64Identifier;
            extra.remove_prefix(4 + size);
            for (std::uint64_t* figure : {&record.unpackedBytes, &record.packedBytes, &record.localHeader}) {
                if (isWanted && *figure == 0xffffffff) {
                    if (field.size() < 8) {
                        return _refuse(InstallerError::archiveDamaged, record.name, "has a damaged size");
                    }
                    *figure = number<8>(field, 0);
                    field.remove_prefix(8);
                }
            }
        }
        return nullptr;
    }

    ErrorPtr _checkFeatures(std::string_view fixed, const Record& record) const {
        const unsigned flags = number16(fixed, 8);
        const unsigned method = number16(fixed, 10);
        if ((flags & encryptedFlags) != 0) {
            return _refuse(InstallerError::archiveUnsupported, record.name, "is encrypted");
        }
        if ((flags & patchFlag) != 0 || (method != methodStored && method != methodDeflated)) {
            return _refuse(InstallerError::archiveUnsupported, record.name,
                           "is compressed in a way that the device does not know (method " + std::to_string(method) +
                               "); use \"deflate\" or none");
        }
        if (number16(fixed, 34) != 0) {
            return _refuse(InstallerError::archiveUnsupported, record.name, "lies in another part of the archive");
        }
        if (record.localHeader >= _fileSize || record.packedBytes > _fileSize) {
            return _refuse(InstallerError::archiveDamaged, record.name, "reaches beyond the archive's data");
        }
        if (method == methodStored && record.packedBytes != record.unpackedBytes) {
            return _refuse(InstallerError::archiveDamaged, record.name, "has two different sizes");
        }
        return nullptr;
    }

    /// Nothing for what is neither file, folder nor link.
    [[nodiscard]] static std::optional<ZipDirectory::Kind> _kindOf(std::string_view fixed, std::string_view name) {
        if (name.ends_with('/')) {
            return ZipDirectory::Kind::folder;
        }
        const unsigned system = number16(fixed, 4) >> 8;
        const std::uint32_t attributes = number32(fixed, 38);
        if (system == madeOnDos) {
            return (attributes & dosFolderAttribute) != 0 ? ZipDirectory::Kind::folder : ZipDirectory::Kind::file;
        }
        switch (system == madeOnUnix ? attributes >> 16 & S_IFMT : 0) {
        case 0:
        case S_IFREG: return ZipDirectory::Kind::file;
        case S_IFDIR: return ZipDirectory::Kind::folder;
        case S_IFLNK: return ZipDirectory::Kind::link;
        default: return std::nullopt;
        }
    }

    ErrorPtr _addEntry(std::string_view fixed, const Record& record) {
        std::string_view path = record.name;
        const auto kind = _kindOf(fixed, path);
        if (!kind) {
            return _refuse(InstallerError::unsupportedEntry, path, unsupportedKind);
        }
        if (path.ends_with('/')) {
            path.remove_suffix(1);
        }
        if (const auto unsafe = findUnsafe(path, _limits)) {
            return _refuse(InstallerError::unsafePath, record.name, *unsafe);
        }
        if (*kind == ZipDirectory::Kind::folder && record.unpackedBytes != 0) {
            return _refuse(InstallerError::archiveDamaged, path, "is a folder with content");
        }
        const std::uint64_t end = record.localHeader + localHeaderSize + record.name.size() + record.packedBytes;
        _directory._entries.push_back({path, *kind, record.unpackedBytes, record.localHeader, end});
        return nullptr;
    }

    /// Entries that share bytes would unpack to more than the archive can hold.
    ErrorPtr _checkPlaces() {
        std::ranges::sort(_directory._entries, {}, &ZipDirectory::Entry::start);
        std::uint64_t end = 0;
        for (const ZipDirectory::Entry& entry : _directory._entries) {
            if (entry.start < end) {
                return _refuse(InstallerError::archiveDamaged, entry.path, "lies over another entry");
            }
            end = entry.end;
            if (end > _directoryStart) {
                return _refuse(InstallerError::archiveDamaged, entry.path, "reaches beyond the archive's data");
            }
        }
        return nullptr;
    }

    ErrorPtr _fillTable() {
        const std::size_t count = _directory._entries.size();
        _directory._numbers.reserve(count + count / 4);
        for (std::size_t number = 0; number < count; ++number) {
            const ZipDirectory::Entry& entry = _directory._entries[number];
            if (ErrorPtr refused = _addPath(entry.path, entry.kind, number)) {
                return refused;
            }
            if (_directory.count() > _limits.entries) {
                return _tooMany("files and folders");
            }
        }
        return nullptr;
    }

    /// Adds the path and its parents to the table, in which each stands for one thing only.
    ErrorPtr _addPath(std::string_view path, ZipDirectory::Kind kind, std::size_t number) {
        const auto [known, isNew] = _directory._numbers.try_emplace(path, number);
        if (!isNew) {
            if (known->second != impliedFolder || kind != ZipDirectory::Kind::folder) {
                return _refuse(InstallerError::duplicateEntry, path, "is there twice");
            }
            known->second = number;
        }
        for (std::string_view parent = parentOf(path); !parent.empty(); parent = parentOf(parent)) {
            const auto [folder, isNewFolder] = _directory._numbers.try_emplace(parent, impliedFolder);
            if (isNewFolder) {
                continue;
            }
            if (folder->second != impliedFolder &&
                _directory._entries[folder->second].kind != ZipDirectory::Kind::folder) {
                return _refuse(InstallerError::duplicateEntry, parent, "is there as a file and as a folder");
            }
            break; // its parents are in the table
        }
        return nullptr;
    }

    ErrorPtr _checkSizes() {
        std::uint64_t& total = _directory._unpackedBytes;
        for (const ZipDirectory::Entry& entry : _directory._entries) {
            if (entry.unpackedBytes > _limits.unpackedBytes - total) {
                return _refuse(InstallerError::archiveTooLarge,
                               "it unpacks to more than " + std::to_string(_limits.unpackedBytes) + " bytes");
            }
            total += entry.unpackedBytes;
        }
        if (total > _limits.freeBytes && total / _fileSize >= _limits.ratio) {
            return _refuse(InstallerError::archiveTooLarge,
                           "it unpacks to " + std::to_string(total) + " bytes, " + std::to_string(total / _fileSize) +
                               " times its size; at most " + std::to_string(_limits.ratio) + " times is taken");
        }
        return nullptr;
    }

    const int _archive;
    const ArchiveLimits& _limits;
    const Refusal& _refuse;
    std::uint64_t _fileSize = 0;
    std::string _tail; // the last bytes of the archive
    std::uint64_t _tailStart = 0;
    std::uint64_t _endPlace = 0;
    std::uint64_t _entryCount = 0;
    std::uint64_t _directorySize = 0;
    std::uint64_t _directoryStart = 0;
    std::uint64_t _directoryEnd = 0;
    ZipDirectory _directory;
};

Result<ZipDirectory> ZipDirectory::read(int archive, const ArchiveLimits& limits, const Refusal& refuse) {
    return ZipDirectoryReader(archive, limits, refuse).read();
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
