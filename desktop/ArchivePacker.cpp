#include "desktop/ArchivePacker.h"

#include "archive/AppInArchive.h"
#include "archive/EntryPath.h"
#include "archive/TextLocale.h"
#include "desktop/AppArchive.h"
#include "files/OutputFile.h"
#include "files/Syscalls.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace appsync::desktop {

namespace {

namespace fs = std::filesystem;

struct FreeWriter {
    void operator()(::archive* writer) const { archive_write_free(writer); }
};
struct FreeEntry {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

struct PackedEntry {
    fs::path source;
    std::string name; // in the archive
    fs::file_type type;
    std::string linkTarget = {};
};

/// What a folder is to be packed as. Each step answers null, or why the folder is refused.
class Contents {
  public:
    Contents(const fs::path& folder, const Refusal& refuse) : _folder(folder), _refuse(refuse) {}

    ErrorPtr collect() {
        if (_folder.filename().string().ends_with(bundleExtension)) {
            return _addApp(_folder);
        }
        std::vector<fs::path> inside;
        std::ranges::copy(fs::directory_iterator(_folder), std::back_inserter(inside));
        std::ranges::sort(inside);
        for (const fs::path& path : inside) {
            const std::string name = path.filename().string();
            const bool isApp = name.ends_with(bundleExtension) && fs::is_directory(path);
            const bool isCompanion = name == metadataFileName || name == artworkFileName;
            if (ErrorPtr refused = isApp ? _addApp(path) : isCompanion ? _addCompanion(path) : nullptr) {
                return refused;
            }
        }
        return nullptr;
    }
    [[nodiscard]] const std::vector<PackedEntry>& entries() const noexcept { return _entries; }

  private:
    /// An app's folder and everything below it, sorted.
    ErrorPtr _addApp(const fs::path& bundle) {
        const std::string top = bundle.filename().string();
        const Descriptor folder(::open(bundle.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        _entries.push_back({bundle, top, fs::file_type::directory});
        const std::size_t first = _entries.size();
        for (const auto& found : fs::recursive_directory_iterator(bundle)) {
            PackedEntry entry{found.path(), top + "/" + found.path().lexically_relative(bundle).generic_string(),
                              found.symlink_status().type()};
            if (ErrorPtr refused = _check(entry, folder.get())) {
                return refused;
            }
            _entries.push_back(std::move(entry));
            if (_entries.size() > _limits.entries) {
                return _refuse(InstallerError::archiveTooLarge,
                               "it has more than " + std::to_string(_limits.entries) + " files and folders");
            }
        }
        std::ranges::sort(_entries.begin() + static_cast<std::ptrdiff_t>(first), _entries.end(), {},
                          &PackedEntry::name);
        return nullptr;
    }

    ErrorPtr _addCompanion(const fs::path& path) {
        PackedEntry entry{path, path.filename().string(), fs::symlink_status(path).type()};
        if (entry.type != fs::file_type::regular) {
            return _refuse(InstallerError::unsupportedEntry, entry.name, "must be a file");
        }
        _entries.push_back(std::move(entry));
        return nullptr;
    }

    ErrorPtr _check(PackedEntry& entry, int bundle) {
        if (const auto unsafe = findUnsafe(entry.name, _limits)) {
            return _refuse(InstallerError::unsafePath, entry.name, *unsafe);
        }
        switch (entry.type) {
        case fs::file_type::regular:
        case fs::file_type::directory: return nullptr;
        case fs::file_type::symlink: break;
        default: return _refuse(InstallerError::unsupportedEntry, entry.name, unsupportedKind);
        }
        entry.linkTarget = fs::read_symlink(entry.source).string();
        ErrorPtr refused = checkLinkTarget(entry.name, entry.linkTarget, _refuse);
        return refused ? refused : checkLink(bundle, entry.name, entry.linkTarget, _refuse);
    }

    const fs::path& _folder;
    const Refusal& _refuse;
    const ArchiveLimits _limits;
    std::vector<PackedEntry> _entries;
};

void check(::archive* writer, int status) {
    if (status < ARCHIVE_OK) {
        const char* reason = archive_error_string(writer);
        throw std::runtime_error(reason != nullptr ? reason : "the archive cannot be written");
    }
}

/// The content has the size that was announced, even if the file changes meanwhile.
void writeContent(::archive* writer, int file, std::uint64_t size, const PackedEntry& entry) {
    std::vector<char> buffer(std::size_t{1} << 20);
    std::uint64_t written = 0;
    for (;;) {
        const ssize_t length = ::read(file, buffer.data(), buffer.size());
        if (length < 0) {
            throw std::runtime_error("'" + entry.source.string() + "' cannot be read: " + systemText(errno));
        }
        written += static_cast<std::uint64_t>(length);
        if (written > size || (length == 0 && written < size)) {
            throw std::runtime_error("'" + entry.source.string() + "' has changed meanwhile; pack again");
        }
        if (length == 0) {
            return;
        }
        if (archive_write_data(writer, buffer.data(), static_cast<std::size_t>(length)) != length) {
            check(writer, ARCHIVE_FATAL);
        }
    }
}

void writeEntry(::archive* writer, const PackedEntry& packed) {
    const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), packed.name.c_str());
    Descriptor file;
    struct stat status {};
    if (packed.type == fs::file_type::symlink) {
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_symlink(entry.get(), packed.linkTarget.c_str());
        status.st_mode = 0777;
    } else {
        const bool isFile = packed.type == fs::file_type::regular;
        // The top folder may be given as a link to it.
        const int kind = isFile ? O_NOFOLLOW | O_NONBLOCK | O_NOCTTY : O_DIRECTORY;
        file = Descriptor(::open(packed.source.c_str(), O_RDONLY | O_CLOEXEC | kind));
        if (!file.isOpen() || ::fstat(file.get(), &status) != 0) {
            throw std::runtime_error("'" + packed.source.string() + "' cannot be read: " + systemText(errno));
        }
        if (isFile != S_ISREG(status.st_mode)) {
            throw std::runtime_error("'" + packed.source.string() + "' has changed meanwhile; pack again");
        }
        archive_entry_set_filetype(entry.get(), isFile ? AE_IFREG : AE_IFDIR);
        if (isFile) {
            archive_entry_set_size(entry.get(), status.st_size);
        }
    }
    archive_entry_set_perm(entry.get(), status.st_mode & 07777);
    check(writer, archive_write_header(writer, entry.get()));
    if (packed.type == fs::file_type::regular) {
        writeContent(writer, file.get(), static_cast<std::uint64_t>(status.st_size), packed);
    }
    check(writer, archive_write_finish_entry(writer));
}

void writeArchive(const std::vector<PackedEntry>& entries, int file) {
    const TextLocale utf8; // else names would lack the mark that says so
    const std::unique_ptr<::archive, FreeWriter> writer(archive_write_new());
    check(writer.get(), archive_write_set_format_zip(writer.get()));
    check(writer.get(), archive_write_open_fd(writer.get(), file));
    for (const PackedEntry& entry : entries) {
        writeEntry(writer.get(), entry);
    }
    check(writer.get(), archive_write_close(writer.get()));
}

ErrorPtr pack(const fs::path& folder, const std::string& archivePath, PropertyListSerialization& propertyLists) {
    const std::string name = folder.string();
    const Refusal refuse(name, "the app");
    Contents contents(folder, refuse);
    if (ErrorPtr refused = contents.collect()) {
        return refused;
    }
    if (contents.entries().empty()) {
        return desktopError("'" + name + "' is no app: name a folder <Name>.app, or one that holds it.", name);
    }
    const auto file = OutputFile::open(archivePath);
    if (!file) {
        return file.error();
    }
    writeArchive(contents.entries(), (*file)->descriptor());
    const auto app = readAppArchive((*file)->descriptor(), propertyLists, refuse);
    return app ? (*file)->finish().error() : app.error();
}

} // namespace

bool packApp(const std::string& folder, const std::string& archivePath, PropertyListSerialization& propertyLists,
             ErrorPtr* error) {
    try {
        const fs::path path(folder);
        *error = pack(path.has_filename() ? path : path.parent_path(), archivePath, propertyLists);
    } catch (const std::exception& failure) {
        *error = desktopError("'" + folder + "' cannot be packed into '" + archivePath + "': " + failure.what() + ".",
                              folder);
    }
    return *error == nullptr;
}

} // namespace appsync::desktop
