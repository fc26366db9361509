#include "ArchiveBuilder.h"

#include "propertylist/Codec.h"

#include <archive.h>
#include <archive_entry.h>
#include <zlib.h>

#include <utility>

namespace appsync::device {

ArchiveBuilder& ArchiveBuilder::file(std::string path, std::string content, unsigned mode) {
    _entries.push_back({Kind::file, std::move(path), std::move(content), mode});
    return *this;
}

ArchiveBuilder& ArchiveBuilder::folder(std::string path) {
    _entries.push_back({Kind::folder, std::move(path), {}, 0755});
    return *this;
}

ArchiveBuilder& ArchiveBuilder::link(std::string path, std::string target) {
    _entries.push_back({Kind::link, std::move(path), std::move(target), 0777});
    return *this;
}

ArchiveBuilder& ArchiveBuilder::list(std::string path, const Dictionary& content) {
    PropertyListCodec codec;
    return file(std::move(path),
                std::string(codec.dataWithPropertyList(content, PropertyListFormat::binary, nullptr)->bytes()));
}

ArchiveBuilder& ArchiveBuilder::app(const std::string& name, const std::string& identifier,
                                    const std::string& version) {
    folder(name + ".app");
    list(name + ".app/Info.plist", {{"BXBundleIdentifier", identifier},
                                    {"BXBundleVersion", version},
                                    {"BXBundleExecutable", name},
                                    {"BXBundleDisplayName", name},
                                    {"BXBundleIconFile", "Icon.png"}});
    return file(name + ".app/" + name, "executable of " + identifier + " " + version, 0755);
}

std::string ArchiveBuilder::bytes() const {
    std::string out;
    archive* writer = archive_write_new();
    archive_write_set_format_zip(writer);
    archive_write_set_options(writer, _isStored ? "zip:compression=store" : "zip:compression=deflate");
    archive_write_open2(
        writer, &out, nullptr,
        [](archive*, void* target, const void* start, std::size_t size) -> la_ssize_t {
            static_cast<std::string*>(target)->append(static_cast<const char*>(start), size);
            return static_cast<la_ssize_t>(size);
        },
        nullptr, nullptr);
    archive_write_set_bytes_in_last_block(writer, 1);
    for (const Entry& entry : _entries) {
        archive_entry* header = archive_entry_new();
        archive_entry_set_pathname(header, (entry.path + (entry.kind == Kind::folder ? "/" : "")).c_str());
        archive_entry_set_perm(header, static_cast<mode_t>(entry.mode));
        if (entry.kind == Kind::file) {
            archive_entry_set_filetype(header, AE_IFREG);
            archive_entry_set_size(header, static_cast<la_int64_t>(entry.content.size()));
        } else if (entry.kind == Kind::folder) {
            archive_entry_set_filetype(header, AE_IFDIR);
        } else {
            archive_entry_set_filetype(header, AE_IFLNK);
            archive_entry_set_symlink(header, entry.content.c_str());
        }
        archive_write_header(writer, header);
        if (entry.kind == Kind::file) {
            archive_write_data(writer, entry.content.data(), entry.content.size());
        }
        archive_entry_free(header);
    }
    archive_write_close(writer);
    archive_write_free(writer);
    return out;
}

namespace {

void put16(std::string& out, std::size_t value) {
    out += static_cast<char>(value & 0xff);
    out += static_cast<char>(value >> 8 & 0xff);
}
void put32(std::string& out, std::size_t value) {
    put16(out, value & 0xffff);
    put16(out, value >> 16 & 0xffff);
}

/// The fields that stand both before an entry's content and in the directory.
void putCommon(std::string& out, const RawEntry& entry) {
    put16(out, 20); // version needed
    put16(out, entry.flags);
    put16(out, entry.method);
    put32(out, 0x58210000); // 2024-01-01
    put32(out, entry.checksum);
    put32(out, entry.content.size());
    put32(out, entry.unpackedBytes);
    put16(out, entry.name.size());
}

} // namespace

RawEntry RawEntry::stored(std::string name, std::string content) {
    RawEntry entry;
    entry.checksum = static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size())));
    entry.unpackedBytes = static_cast<std::uint32_t>(content.size());
    entry.name = std::move(name);
    entry.content = std::move(content);
    return entry;
}

RawEntry RawEntry::deflated(std::string name, const std::string& content) {
    RawEntry entry = stored(std::move(name), content);
    entry.content.resize(compressBound(content.size()) + 64);
    entry.method = 8;
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, -MAX_WBITS, 9, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(entry.content.data());
    stream.avail_out = static_cast<uInt>(entry.content.size());
    deflate(&stream, Z_FINISH);
    entry.content.resize(stream.total_out);
    deflateEnd(&stream);
    return entry;
}

std::string rawArchive(const std::vector<RawEntry>& entries) {
    std::string out;
    std::string directory;
    std::size_t place = 0;
    for (const RawEntry& entry : entries) {
        if (!entry.sharesPlaceOfPrevious) {
            place = out.size();
            put32(out, 0x04034b50);
            putCommon(out, entry);
            put16(out, 0);
            out += entry.name;
            out += entry.content;
        }
        put32(directory, 0x02014b50);
        put16(directory, entry.madeBy | 20U);
        putCommon(directory, entry);
        put16(directory, entry.extra.size());
        put16(directory, 0); // comment
        put16(directory, 0); // disk
        put16(directory, 0);
        put32(directory, entry.attributes);
        put32(directory, place);
        directory += entry.name + entry.extra;
    }
    const std::size_t start = out.size();
    out += directory;
    put32(out, 0x06054b50);
    put32(out, 0);
    put16(out, entries.size());
    put16(out, entries.size());
    put32(out, directory.size());
    put32(out, start);
    put16(out, 0);
    return out;
}

std::string withEnd64(const std::string& content, std::uint64_t entries, std::uint64_t start) {
    const auto put64 = [](std::string& out, std::uint64_t value) {
        put32(out, value & 0xffffffff);
        put32(out, value >> 32);
    };
    std::string out = content;
    put32(out, 0x06064b50);
    put64(out, 44);
    put16(out, 45);
    put16(out, 45);
    put64(out, 0);
    put64(out, entries);
    put64(out, entries);
    put64(out, content.size() - content.find("PK\1\2"));
    put64(out, start);
    put32(out, 0x07064b50);
    put32(out, 0);
    put64(out, content.size());
    put32(out, 1);
    put32(out, 0x06054b50);
    put32(out, 0);
    put32(out, 0xffffffff);
    put64(out, ~std::uint64_t{0});
    put16(out, 0);
    return out;
}

std::string infoList(const std::string& identifier, const std::string& version, const std::string& name) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
           "version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>" +
           identifier + "</string><key>BXBundleVersion</key><string>" + version +
           "</string><key>BXBundleDisplayName</key><string>" + name + "</string></dict></plist>\n";
}

} // namespace appsync::device
