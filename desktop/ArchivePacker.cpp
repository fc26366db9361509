#include "desktop/ArchivePacker.h"

#include "archive/AppInArchive.h"
#include "archive/EntryPath.h"
#include "desktop/AppArchive.h"
#include "files/Syscalls.h"

#include <archive.h>
#include <archive_entry.h>
#include <locale.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

namespace appsync::desktop {

namespace {

namespace fs = std::filesystem;

struct PackedEntry {
    fs::path source;
    std::string name; // in the archive
    fs::file_type type;
    std::string linkTarget = {};
};

/// Makes the errors of one packing.
class Failure {
  public:
    /// Both must outlive the object.
    Failure(const std::string& folder, const std::string& archivePath) : _folder(folder), _archivePath(archivePath) {}

    [[nodiscard]] ErrorPtr because(const std::string& reason) const {
        return desktopError("'" + _folder + "' cannot be packed into '" + _archivePath + "': " + reason + ".", _folder);
    }
    [[nodiscard]] ErrorPtr unreadable(const fs::path& path, const std::string& reason) const {
        return because("'" + path.string() + "' cannot be read: " + reason);
    }
    [[nodiscard]] ErrorPtr changed(const fs::path& path) const {
        return because("'" + path.string() + "' has changed meanwhile; pack again");
    }

  private:
    const std::string& _folder;
    const std::string& _archivePath;
};

bool isNamedAsApp(const fs::path& path) {
    return path.filename().string().ends_with(bundleExtension);
}

/// Whether it is an app's folder; what cannot be looked at is no folder.
bool isAppFolder(const fs::path& path) {
    std::error_code unknown;
    return isNamedAsApp(path) && fs::is_directory(path, unknown);
}

/// As it is named, without a slash at its end.
fs::path withoutSlash(const fs::path& path) {
    return path.has_filename() ? path : path.parent_path();
}

/// What a folder is to be packed as.
class Contents {
  public:
    Contents(const fs::path& folder, const Refusal& refuse, const Failure& failed)
        : _folder(folder), _refuse(refuse), _failed(failed) {}

    /// Fails when the folder cannot be read or is refused.
    Result<void> collect() {
        if (isNamedAsApp(_folder)) {
            return _addApp(_folder);
        }
        auto inside = _pathsIn<fs::directory_iterator>(_folder);
        if (!inside) {
            return inside.error();
        }
        std::ranges::sort(*inside);
        for (const fs::path& path : *inside) {
            const std::string name = path.filename().string();
            const bool isCompanion = name == metadataFileName || name == artworkFileName;
            const auto added = isAppFolder(path) ? _addApp(path) : isCompanion ? _addCompanion(path) : Result<void>();
            if (!added) {
                return added;
            }
        }
        return {};
    }
    [[nodiscard]] const std::vector<PackedEntry>& entries() const noexcept { return _entries; }

  private:
    /// What is in a folder, with a recursive iterator also below it.
    template <class Iterator> Result<std::vector<fs::path>> _pathsIn(const fs::path& folder) const {
        std::vector<fs::path> paths;
        std::error_code failure;
        for (Iterator entry(folder, failure); !failure && entry != Iterator(); entry.increment(failure)) {
            paths.push_back(entry->path());
            if (paths.size() > _limits.entries) {
                return _refuse(InstallerError::archiveTooLarge,
                               "it has more than " + std::to_string(_limits.entries) + " files and folders");
            }
        }
        if (failure) {
            return _failed.unreadable(folder, failure.message());
        }
        return paths;
    }

    /// An app's folder and everything below it.
    Result<void> _addApp(const fs::path& bundle) {
        const std::string top = bundle.filename().string();
        const Descriptor folder(::open(bundle.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder.isOpen()) {
            return _failed.unreadable(bundle, systemText(errno));
        }
        const auto paths = _pathsIn<fs::recursive_directory_iterator>(bundle);
        if (!paths) {
            return paths.error();
        }
        _entries.push_back({bundle, top, fs::file_type::directory});
        const std::size_t first = _entries.size();
        for (const fs::path& path : *paths) {
            if (const auto added =
                    _add(path, top + "/" + path.lexically_relative(bundle).generic_string(), folder.get());
                !added) {
                return added;
            }
        }
        std::ranges::sort(_entries.begin() + static_cast<std::ptrdiff_t>(first), _entries.end(), {},
                          &PackedEntry::name);
        return {};
    }

    Result<void> _addCompanion(const fs::path& path) {
        std::error_code failure; // then it is no file, either
        PackedEntry entry{path, path.filename().string(), fs::symlink_status(path, failure).type()};
        if (entry.type != fs::file_type::regular) {
            return _refuse(InstallerError::unsupportedEntry, entry.name, "must be a file");
        }
        _entries.push_back(std::move(entry));
        return {};
    }

    /// Something in the app's folder, which is `bundle`.
    Result<void> _add(const fs::path& path, const std::string& name, int bundle) {
        std::error_code failure;
        PackedEntry entry{path, name, fs::symlink_status(path, failure).type()};
        if (const auto checked = checkPath(entry.name, _limits, _refuse, entry.name); !checked) {
            return checked;
        }
        if (entry.type == fs::file_type::symlink) {
            entry.linkTarget = fs::read_symlink(path, failure).string();
        }
        if (failure) {
            return _failed.unreadable(path, failure.message());
        }
        if (const auto checked = _check(entry, bundle); !checked) {
            return checked;
        }
        _entries.push_back(std::move(entry));
        return {};
    }

    [[nodiscard]] Result<void> _check(const PackedEntry& entry, int bundle) const {
        switch (entry.type) {
        case fs::file_type::regular:
        case fs::file_type::directory: return {};
        case fs::file_type::symlink: break;
        default: return _refuse(InstallerError::unsupportedEntry, entry.name, unsupportedKind);
        }
        const auto checked = checkLinkTarget(entry.name, entry.linkTarget, _refuse);
        return checked ? checkLink(bundle, entry.name, entry.linkTarget, _refuse) : checked;
    }

    const fs::path& _folder;
    const Refusal& _refuse;
    const Failure& _failed;
    const ArchiveLimits _limits;
    std::vector<PackedEntry> _entries;
};

/// While it lives, texts of its thread are UTF-8, whatever the process has chosen: the archive library renders names
/// in the thread's locale.
class TextLocale {
  public:
    TextLocale() noexcept : _utf8(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {
        if (_utf8) {
            _previous = ::uselocale(_utf8);
        }
    }
    ~TextLocale() {
        if (_utf8) {
            ::uselocale(_previous);
            ::freelocale(_utf8);
        }
    }
    TextLocale(const TextLocale&) = delete;
    TextLocale& operator=(const TextLocale&) = delete;

  private:
    const locale_t _utf8; // null when the system has none
    locale_t _previous = nullptr;
};

/// Writes entries to an open file through the archive library.
class ArchiveWriter {
  public:
    /// `failed` must outlive the writer.
    explicit ArchiveWriter(const Failure& failed) : _failed(failed), _archive(archive_write_new()) {}

    Result<void> write(const std::vector<PackedEntry>& entries, int file) {
        const TextLocale utf8; // else names would lack the mark that says so
        if (!_archive || archive_write_set_format_zip(_archive.get()) != ARCHIVE_OK ||
            archive_write_open_fd(_archive.get(), file) != ARCHIVE_OK) {
            return _failure();
        }
        for (const PackedEntry& entry : entries) {
            if (const auto written = _writeEntry(entry); !written) {
                return written;
            }
        }
        return _checked(archive_write_close(_archive.get()));
    }

  private:
    struct FreeArchive {
        void operator()(::archive* archive) const { archive_write_free(archive); }
    };
    struct FreeEntry {
        void operator()(archive_entry* entry) const { archive_entry_free(entry); }
    };

    [[nodiscard]] ErrorPtr _failure() const {
        const char* reason = _archive ? archive_error_string(_archive.get()) : nullptr;
        return _failed.because(reason ? reason : "the archive cannot be written");
    }

    [[nodiscard]] Result<void> _checked(int outcome) const {
        return outcome < ARCHIVE_OK ? _failure() : Result<void>();
    }

    Result<void> _writeEntry(const PackedEntry& packed) {
        const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
        archive_entry_set_pathname(entry.get(), packed.name.c_str());
        if (packed.type == fs::file_type::symlink) {
            archive_entry_set_filetype(entry.get(), AE_IFLNK);
            archive_entry_set_symlink(entry.get(), packed.linkTarget.c_str());
            archive_entry_set_perm(entry.get(), 0777);
            return _writeHeader(*entry);
        }
        const bool isFile = packed.type == fs::file_type::regular;
        // The top folder may be given as a link to it.
        const int kind = isFile ? O_NOFOLLOW | withoutWaiting : O_DIRECTORY;
        const Descriptor source(::open(packed.source.c_str(), O_RDONLY | O_CLOEXEC | kind));
        struct stat status {};
        if (!source.isOpen() || ::fstat(source.get(), &status) != 0) {
            return _failed.unreadable(packed.source, systemText(errno));
        }
        if (isFile != S_ISREG(status.st_mode)) {
            return _failed.changed(packed.source);
        }
        archive_entry_set_filetype(entry.get(), isFile ? AE_IFREG : AE_IFDIR);
        archive_entry_set_perm(entry.get(), status.st_mode & 07777);
        if (!isFile) {
            return _writeHeader(*entry);
        }
        archive_entry_set_size(entry.get(), status.st_size);
        if (const auto written = _writeHeader(*entry); !written) {
            return written;
        }
        return _writeContent(source.get(), static_cast<std::uint64_t>(status.st_size), packed.source);
    }

    Result<void> _writeHeader(archive_entry& entry) { return _checked(archive_write_header(_archive.get(), &entry)); }

    /// The content has the size that was announced, even if the file changes meanwhile.
    Result<void> _writeContent(int file, std::uint64_t size, const fs::path& source) {
        std::uint64_t written = 0;
        for (;;) {
            const ssize_t length = ::read(file, _buffer.data(), _buffer.size());
            if (length < 0) {
                return _failed.unreadable(source, systemText(errno));
            }
            written += static_cast<std::uint64_t>(length);
            if (written > size || (length == 0 && written < size)) {
                return _failed.changed(source);
            }
            if (length == 0) {
                return _checked(archive_write_finish_entry(_archive.get()));
            }
            if (archive_write_data(_archive.get(), _buffer.data(), static_cast<std::size_t>(length)) != length) {
                return _failure();
            }
        }
    }

    const Failure& _failed;
    const std::unique_ptr<::archive, FreeArchive> _archive;
    std::vector<char> _buffer = std::vector<char>(std::size_t{1} << 20);
};

} // namespace

std::string findAppFolder(const std::string& folder) {
    const fs::path path = withoutSlash(folder);
    if (isNamedAsApp(path)) {
        return path.string();
    }
    std::error_code failure; // what cannot be read holds none
    std::vector<fs::path> apps;
    for (fs::directory_iterator entry(path, failure); !failure && entry != fs::directory_iterator();
         entry.increment(failure)) {
        if (isAppFolder(entry->path())) {
            apps.push_back(entry->path());
        }
    }
    return apps.empty() ? "" : std::ranges::min(apps).string();
}

Result<PackedApp> PackedApp::make(const std::string& folder, const std::string& archivePath,
                                  PropertyListSerialization& propertyLists) {
    const fs::path app = withoutSlash(folder);
    const std::string name = app.string();
    const Refusal refuse(name, "the app");
    const Failure failed(folder, archivePath);
    Contents contents(app, refuse, failed);
    if (const auto collected = contents.collect(); !collected) {
        return collected.error();
    }
    if (contents.entries().empty()) {
        return desktopError("'" + name + "' is no app: name a folder <Name>.app, or one that holds it.", name);
    }
    auto file = OutputFile::open(archivePath);
    if (!file) {
        return file.error();
    }
    if (const auto written = ArchiveWriter(failed).write(contents.entries(), (*file)->descriptor()); !written) {
        return written.error();
    }
    const auto read = readAppArchive((*file)->descriptor(), propertyLists, refuse);
    return read ? Result(PackedApp(std::move(*file))) : read.error();
}

Result<void> packApp(const std::string& folder, const std::string& archivePath,
                     PropertyListSerialization& propertyLists) {
    auto packed = PackedApp::make(folder, archivePath, propertyLists);
    return packed ? packed->keep() : packed.error();
}

} // namespace appsync::desktop
