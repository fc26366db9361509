#include "device/archive/ArchiveReader.h"
#include "device/text/Printable.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

namespace appsync::device {

namespace {

/// Read at once; more gains nothing, and a small archive needs no more than itself.
constexpr std::uint64_t largestRead = 1U << 20;
constexpr std::uint64_t smallestRead = 1U << 14;

ArchiveReader::Kind kindOf(archive_entry* entry) {
    if (archive_entry_hardlink(entry)) {
        return ArchiveReader::Kind::other;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG: return ArchiveReader::Kind::file;
    case AE_IFDIR: return ArchiveReader::Kind::folder;
    case AE_IFLNK: return ArchiveReader::Kind::link;
    default: return ArchiveReader::Kind::other;
    }
}

/// Made once, since that reads a large file.
locale_t utf8Locale() noexcept {
    static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    return utf8;
}

std::string_view textOrEmpty(const char* text) {
    return text ? std::string_view(text) : std::string_view();
}

} // namespace

ArchiveReader::TextLocale::TextLocale() noexcept : _previous(nullptr) {
    if (const locale_t utf8 = utf8Locale()) {
        _previous = ::uselocale(utf8);
    }
}

ArchiveReader::TextLocale::~TextLocale() {
    if (_previous) {
        ::uselocale(_previous);
    }
}

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

Result<void> ArchiveReader::open(int file, std::uint64_t fileSize) {
    if (!_archive || archive_read_support_format_zip_seekable(_archive.get()) != ARCHIVE_OK) {
        return _refuse(InstallerError::failed, "there is no memory for reading it");
    }
    if (::lseek(file, 0, SEEK_SET) != 0) {
        return _refuse(InstallerError::archiveMissing, systemText(errno));
    }
    const auto readSize = static_cast<std::size_t>(std::clamp(fileSize, smallestRead, largestRead));
    if (archive_read_open_fd(_archive.get(), file, readSize) != ARCHIVE_OK) {
        return _failure("it cannot be read");
    }
    return {};
}

Result<std::optional<ArchiveReader::Entry>> ArchiveReader::next() {
    _entry = nullptr;
    _offset = 0;
    archive_entry* entry = nullptr;
    const int outcome = archive_read_next_header(_archive.get(), &entry);
    if (outcome == ARCHIVE_EOF) {
        return std::optional<Entry>();
    }
    // A warning tells of an entry that contradicts the directory, or of a name that is no text.
    if (outcome != ARCHIVE_OK || !archive_entry_pathname(entry)) {
        _entry = outcome == ARCHIVE_WARN ? entry : nullptr;
        return _failure("cannot be read");
    }
    _entry = entry;
    Entry found;
    found.kind = kindOf(entry);
    if (archive_entry_size_is_set(entry)) {
        found.unpackedBytes = static_cast<std::uint64_t>(archive_entry_size(entry));
    }
    found.isExecutable = (archive_entry_perm(entry) & 0111) != 0;
    found.linkTarget = textOrEmpty(archive_entry_symlink(entry));
    return std::optional<Entry>(found);
}

Result<std::string_view> ArchiveReader::nextPiece() {
    const void* start = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    for (;;) {
        const int outcome = archive_read_data_block(_archive.get(), &start, &size, &offset);
        if (outcome == ARCHIVE_EOF) {
            return std::string_view();
        }
        if (outcome != ARCHIVE_OK || static_cast<std::uint64_t>(offset) != _offset) {
            return _failure("is damaged");
        }
        if (size > 0) {
            _offset += size;
            return std::string_view(static_cast<const char*>(start), size);
        }
    }
}

} // namespace appsync::device
