// Writes archives for tests: ordinary ones through the archive library, odd ones byte by byte.
#pragma once

#include "values/PropertyList.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace appsync::device {

/// An archive as a desktop makes it.
class ArchiveBuilder {
  public:
    ArchiveBuilder& file(std::string path, std::string content, unsigned mode = 0644);
    ArchiveBuilder& folder(std::string path);
    ArchiveBuilder& link(std::string path, std::string target);
    ArchiveBuilder& list(std::string path, const Dictionary& content);
    /// "<name>.app" with an Info.plist and an executable.
    ArchiveBuilder& app(const std::string& name, const std::string& identifier, const std::string& version = "1.0");
    ArchiveBuilder& stored() {
        _isStored = true;
        return *this;
    }

    [[nodiscard]] std::string bytes() const;

  private:
    enum class Kind { file, folder, link };
    struct Entry {
        Kind kind = Kind::file;
        std::string path;
        std::string content;
        unsigned mode = 0644;
    };
    std::vector<Entry> _entries;
    bool _isStored = false;
};

/// One entry with every field open to tampering.
struct RawEntry {
    std::string name;
    std::string content; // as it lies in the archive
    std::uint32_t unpackedBytes = 0;
    std::uint16_t method = 0;
    std::uint16_t flags = 0x0800; // the name is UTF-8
    std::uint32_t checksum = 0;
    std::uint16_t madeBy = 3 << 8; // unix
    std::uint32_t attributes = 0100644U << 16;
    std::string extra;
    bool sharesPlaceOfPrevious = false;

    /// A stored file with its right size and checksum.
    [[nodiscard]] static RawEntry stored(std::string name, std::string content);
    /// A deflated one.
    [[nodiscard]] static RawEntry deflated(std::string name, const std::string& content);
};

/// The bytes of an archive with these entries, whatever they say.
[[nodiscard]] std::string rawArchive(const std::vector<RawEntry>& entries);
/// The same with a second end record, which states the number of entries and where the directory begins. `content` ends
/// with the directory.
[[nodiscard]] std::string withEnd64(const std::string& content, std::uint64_t entries, std::uint64_t start);
/// The Info.plist of an app, as XML.
[[nodiscard]] std::string infoList(const std::string& identifier, const std::string& version = "1.0",
                                   const std::string& name = "Name");

} // namespace appsync::device
