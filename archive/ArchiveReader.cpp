#include "archive/ArchiveReader.h"

#include "files/Syscalls.h"
#include "text/Printable.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define __SANITIZE_THREAD__ 1
#endif
#endif
#ifdef __SANITIZE_THREAD__
// The library converts each entry's time. The C library guards its time zone with a lock of its own, which the
// sanitizer does not see.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
const char* __tsan_default_suppressions() {
    return "race:tzset_internal\n";
}
#endif

namespace appsync {

namespace {

/// Read at once; more gains nothing, and a small archive needs no more than itself.
constexpr std::uint64_t largestRead = 1U << 20;
constexpr std::uint64_t smallestRead = 1U << 14;

/// Nothing for what is neither file, folder nor link.
std::optional<ZipDirectory::Kind> kindOf(archive_entry* entry) {
    if (archive_entry_hardlink(entry)) {
        return std::nullopt;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG: return ZipDirectory::Kind::file;
    case AE_IFDIR: return ZipDirectory::Kind::folder;
    case AE_IFLNK: return ZipDirectory::Kind::link;
    default: return std::nullopt;
    }
}

std::string_view textOrEmpty(const char* text) {
    return text ? std::string_view(text) : std::string_view();
}

} // namespace

void ArchiveReader::Close::operator()(archive* reader) const noexcept {
    archive_read_free(reader);
}

ArchiveReader::ArchiveReader(const Refusal& refuse) noexcept : _refuse(refuse), _archive(archive_read_new()) {}

ArchiveReader::~ArchiveReader() = default;

ErrorPtr ArchiveReader::_failure(std::string_view what) const {
    std::string text(what);
    if (_archive) {
        text.append(" (").append(printable(textOrEmpty(archive_error_string(_archive.get())))).append(")");
    }
    const InstallerError code = InstallerError::archiveDamaged;
    return _entry ? _refuse(code, textOrEmpty(archive_entry_pathname(_entry)), text) : _refuse(code, text);
}

Result<void> ArchiveReader::open(int file) {
    if (!_archive || archive_read_support_format_zip_seekable(_archive.get()) != ARCHIVE_OK) {
        return _refuse(InstallerError::failed, "there is no memory for reading it");
    }
    struct stat status {};
    if (::fstat(file, &status) != 0 || ::lseek(file, 0, SEEK_SET) != 0) {
        return _refuse(InstallerError::archiveMissing, systemText(errno));
    }
    const std::uint64_t readSize = std::clamp(static_cast<std::uint64_t>(status.st_size), smallestRead, largestRead);
    if (archive_read_open_fd(_archive.get(), file, static_cast<std::size_t>(readSize)) != ARCHIVE_OK) {
        return _failure("it cannot be read");
    }
    return {};
}

Result<bool> ArchiveReader::_readHeader() {
    _entry = nullptr;
    _offset = 0;
    archive_entry* entry = nullptr;
    const int outcome = archive_read_next_header(_archive.get(), &entry);
    if (outcome == ARCHIVE_EOF) {
        return false;
    }
    // A warning tells of an entry that contradicts the directory, or of a name that is no text.
    if (outcome != ARCHIVE_OK || !archive_entry_pathname(entry)) {
        _entry = outcome == ARCHIVE_WARN ? entry : nullptr;
        return _failure("cannot be read");
    }
    _entry = entry;
    return true;
}

/// The names have been checked in the directory and are taken from there; the library may spell them differently.
bool ArchiveReader::_isAsStated() const {
    const bool hasSize = archive_entry_size_is_set(_entry) != 0;
    return kindOf(_entry) == _stated->kind &&
           (_stated->kind != ZipDirectory::Kind::file ||
            (hasSize && static_cast<std::uint64_t>(archive_entry_size(_entry)) == _stated->unpackedBytes));
}

Result<ArchiveReader::Entry> ArchiveReader::next(const ZipDirectory::Entry& stated) {
    _stated = &stated;
    const auto found = _readHeader();
    if (!found) {
        return found.error();
    }
    if (!*found || !_isAsStated()) {
        return _refuse(InstallerError::archiveDamaged, stated.path, "is not what the archive's directory says");
    }
    return Entry{(archive_entry_perm(_entry) & 0111) != 0, textOrEmpty(archive_entry_symlink(_entry))};
}

Result<void> ArchiveReader::end() {
    const auto more = _readHeader();
    return more && !*more ? Result<void>() : _refuse(InstallerError::archiveDamaged, "it goes on after its last entry");
}

Result<std::string_view> ArchiveReader::nextPiece() {
    const void* start = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    int outcome = ARCHIVE_OK;
    do {
        outcome = archive_read_data_block(_archive.get(), &start, &size, &offset);
        if (outcome != ARCHIVE_EOF && (outcome != ARCHIVE_OK || static_cast<std::uint64_t>(offset) != _offset)) {
            return _failure("is damaged");
        }
    } while (outcome == ARCHIVE_OK && size == 0);
    const std::size_t length = outcome == ARCHIVE_OK ? size : 0;
    const std::uint64_t missing = _stated->unpackedBytes - _offset;
    if (length > missing || (length == 0 && missing > 0)) {
        return _refuse(InstallerError::archiveDamaged, _stated->path,
                       "has another size than the archive's directory says");
    }
    _offset += length;
    return std::string_view(static_cast<const char*>(start), length);
}

} // namespace appsync
