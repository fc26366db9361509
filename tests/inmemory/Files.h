// A file system in memory, and the property-list codec with a journal.
#pragma once

#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"
#include "propertylist/Codec.h"
#include "tests/inmemory/Context.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace appsync::inmemory {

/// Files and folders by path; it has no links. The folders of a device on which a sync has run are there from the
/// start.
class Files final : public FileSystem {
  public:
    explicit Files(Context& context) : _context(context) {}

    bool createDirectory(std::string_view path, bool withIntermediateDirectories,
                         const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept override;
    bool removeItem(std::string_view path, ErrorPtr* error) noexcept override;
    bool moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    bool copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept override;
    bool fileExists(std::string_view path) noexcept override;
    std::optional<Data> readFile(std::string_view path, ErrorPtr* error) noexcept override;
    bool writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept override;
    bool createFile(std::string_view path, std::string_view bytes, const FileAttributes& attributes) noexcept override;
    std::optional<FileInformation> attributesOfItem(std::string_view path, ErrorPtr* error) noexcept override;
    int utimes(std::string_view path) noexcept override;
    std::string errorText(int errorNumber) noexcept override;

    // What a test prepares and looks at; none of it is in the journal.

    /// The error that `createDirectory` reports although it succeeds; null for none.
    ErrorPtr complaintOfCreateDirectory;

    void put(std::string_view path, std::string_view bytes);
    /// Puts a property list, in the binary form.
    void putPlist(std::string_view path, const Value& value);
    void putFolder(std::string_view path);
    [[nodiscard]] std::optional<std::string> bytesAt(std::string_view path) const;
    /// The property list at a path; nothing when there is none.
    [[nodiscard]] std::optional<Value> plistAt(std::string_view path) const;
    [[nodiscard]] bool exists(std::string_view path) const;
    [[nodiscard]] bool hasFolder(std::string_view path) const;
    [[nodiscard]] std::set<std::string> paths() const;

  private:
    [[nodiscard]] bool _exists(std::string_view path) const;

    // Each answers zero or an errno number; `place` is the path without "." and "..".
    int _resolve(std::string_view path, std::string& place) const;
    int _find(std::string_view path, std::string& place) const;
    int _findFile(std::string_view path, std::string& place) const;
    int _findPlace(std::string_view path, std::string& place) const;
    int _checkFolder(std::string_view folder) const;
    int _createDirectory(std::string_view path, bool withIntermediateDirectories);
    int _write(std::string_view path, std::string bytes);
    void _addFolders(std::string_view path);

    Context& _context;
    mutable std::mutex _mutex;
    std::map<std::string, std::string, std::less<>> _files;
    std::set<std::string, std::less<>> _folders{"/",
                                                "/tmp",
                                                "/var",
                                                "/var/mobile",
                                                "/var/mobile/Library",
                                                "/var/mobile/Library/ApplicationSync",
                                                "/var/mobile/Library/Logs",
                                                "/var/mobile/Library/Logs/MediaServices",
                                                "/var/mobile/Media"};
};

/// The real codec behind a journal: "plist.parse()" and "plist.serialise(binary)".
class PropertyLists final : public PropertyListSerialization {
  public:
    explicit PropertyLists(Context& context) : _context(context) {}
    std::optional<Value> propertyListWithData(std::string_view bytes, ErrorPtr* error) noexcept override;
    std::optional<Data> dataWithPropertyList(const Value& value, PropertyListFormat format,
                                             ErrorPtr* error) noexcept override;

  private:
    Context& _context;
    PropertyListCodec _codec;
};

} // namespace appsync::inmemory
