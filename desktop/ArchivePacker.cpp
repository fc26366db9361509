#include "desktop/ArchivePacker.h"

#include "desktop/AppArchive.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace appsync::desktop {

namespace {

namespace fs = std::filesystem;

struct PackedEntry {
    fs::path source;
    std::string name; // in the archive
};

struct FreeWriter {
    void operator()(archive* writer) const { archive_write_free(writer); }
};
struct FreeEntry {
    void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

/// Everything below `folder`, sorted, under `prefix` in the archive.
void addTree(const fs::path& folder, const std::string& prefix, std::vector<PackedEntry>& entries) {
    std::vector<PackedEntry> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        found.push_back({entry.path(), prefix + "/" + entry.path().lexically_relative(folder).generic_string()});
    }
    std::ranges::sort(found, {}, &PackedEntry::name);
    entries.push_back({folder, prefix});
    entries.insert(entries.end(), found.begin(), found.end());
}

std::vector<PackedEntry> entriesOf(const fs::path& folder) {
    std::vector<PackedEntry> entries;
    if (folder.filename().string().ends_with(".app")) {
        addTree(folder, folder.filename().string(), entries);
        return entries;
    }
    std::vector<fs::path> inside;
    std::ranges::copy(fs::directory_iterator(folder), std::back_inserter(inside));
    std::ranges::sort(inside);
    for (const fs::path& path : inside) {
        const std::string name = path.filename().string();
        if (name.ends_with(".app") && fs::is_directory(path)) {
            addTree(path, name, entries);
        } else if (name == "TamblinMetadata.plist" || name == "TamblinArtwork") {
            entries.push_back({path, name});
        }
    }
    return entries;
}

void check(archive* writer, int status) {
    if (status < ARCHIVE_WARN) {
        throw std::runtime_error(archive_error_string(writer));
    }
}

void writeContent(archive* writer, const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read '" + file.string() + "'");
    }
    std::vector<char> buffer(std::size_t{1} << 20);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const auto length = static_cast<std::size_t>(in.gcount());
        if (length > 0 && archive_write_data(writer, buffer.data(), length) != static_cast<la_ssize_t>(length)) {
            throw std::runtime_error(archive_error_string(writer));
        }
    }
}

void writeEntry(archive* writer, const PackedEntry& packed) {
    const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
    archive_entry_set_pathname_utf8(entry.get(), packed.name.c_str());
    const auto status = fs::symlink_status(packed.source);
    const auto mode = static_cast<mode_t>(status.permissions() & fs::perms::mask);
    const bool isFile = status.type() == fs::file_type::regular;
    if (status.type() == fs::file_type::symlink) {
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_symlink_utf8(entry.get(), fs::read_symlink(packed.source).c_str());
    } else if (isFile) {
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(fs::file_size(packed.source)));
    } else {
        archive_entry_set_filetype(entry.get(), AE_IFDIR);
    }
    archive_entry_set_perm(entry.get(), mode);
    check(writer, archive_write_header(writer, entry.get()));
    if (isFile) {
        writeContent(writer, packed.source);
    }
    check(writer, archive_write_finish_entry(writer));
}

void writeArchive(const std::vector<PackedEntry>& entries, const std::string& path) {
    const std::unique_ptr<archive, FreeWriter> writer(archive_write_new());
    check(writer.get(), archive_write_set_format_zip(writer.get()));
    check(writer.get(), archive_write_open_filename(writer.get(), path.c_str()));
    for (const PackedEntry& entry : entries) {
        writeEntry(writer.get(), entry);
    }
    check(writer.get(), archive_write_close(writer.get()));
}

} // namespace

bool packApp(const std::string& folder, const std::string& archivePath, PropertyListSerialization& propertyLists,
             ErrorPtr* error) {
    const std::string unfinished = archivePath + ".unfinished";
    std::error_code ignored;
    try {
        const fs::path source = fs::path(folder).has_filename() ? fs::path(folder) : fs::path(folder).parent_path();
        const auto entries = entriesOf(source);
        if (entries.empty()) {
            *error =
                desktopError("'" + folder + "' is no app: name a folder <Name>.app, or one that holds it.", folder);
            return false;
        }
        writeArchive(entries, unfinished);
        if (!readAppArchive(unfinished, propertyLists, error)) {
            fs::remove(unfinished, ignored);
            *error = desktopError(
                "'" + folder + "' is no app: it needs an Info.plist with a usable BXBundleIdentifier.", folder);
            return false;
        }
        fs::rename(unfinished, archivePath);
        return true;
    } catch (const std::exception& failure) {
        fs::remove(unfinished, ignored);
        *error = desktopError("'" + folder + "' cannot be packed into '" + archivePath + "': " + failure.what() + ".",
                              folder);
        return false;
    }
}

} // namespace appsync::desktop
