#include "desktop/AppArchive.h"

#include "platform/PropertyListSerialization.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string_view>

namespace appsync::desktop {

namespace {

// An entry beyond this is no property list or icon; the app is staged without it.
constexpr std::size_t largestFact = std::size_t{8} << 20;

struct CloseArchive {
    void operator()(archive* reader) const { archive_read_free(reader); }
};
using ArchiveReader = std::unique_ptr<archive, CloseArchive>;

ArchiveReader openArchive(const std::string& path, ErrorPtr* error) {
    constexpr std::size_t blockSize = 64 << 10;
    ArchiveReader reader(archive_read_new());
    archive_read_support_format_zip_seekable(reader.get());
    if (archive_read_open_filename(reader.get(), path.c_str(), blockSize) != ARCHIVE_OK) {
        *error = desktopError("'" + path + "' is no app archive: " + archive_error_string(reader.get()) +
                                  ". Take it out of the library or replace it.",
                              path);
        return nullptr;
    }
    return reader;
}

std::optional<std::string> readEntry(archive* reader, archive_entry* entry) {
    const auto size = static_cast<std::size_t>(std::max<la_int64_t>(archive_entry_size(entry), 0));
    if (size > largestFact) {
        return std::nullopt;
    }
    std::string bytes(size, '\0');
    const la_ssize_t read = archive_read_data(reader, bytes.data(), size);
    return read == static_cast<la_ssize_t>(size) ? std::optional(std::move(bytes)) : std::nullopt;
}

/// "Name.app" and "Info.plist" of "Name.app/Info.plist"; nothing for a path of another depth or outside an app.
std::optional<std::string_view> nameInApp(std::string_view path) {
    const std::size_t slash = path.find('/');
    if (slash == std::string_view::npos || !path.substr(0, slash).ends_with(".app") ||
        path.find('/', slash + 1) != std::string_view::npos || slash + 1 == path.size()) {
        return std::nullopt;
    }
    return path.substr(slash + 1);
}

/// The small files that describe the app: those directly in the app's folder, by name, and those beside it.
struct Facts {
    std::optional<std::string> metadata;
    std::optional<std::string> artwork;
    std::optional<std::string> infoPlist;
    std::map<std::string, std::string, std::less<>> images;
};

bool readFacts(archive* reader, Facts& facts) {
    archive_entry* entry = nullptr;
    int status = ARCHIVE_OK;
    while ((status = archive_read_next_header(reader, &entry)) == ARCHIVE_OK) {
        const char* pathname = archive_entry_pathname_utf8(entry);
        const std::string_view path = pathname != nullptr ? pathname : "";
        const auto name = nameInApp(path);
        if (path == "TamblinMetadata.plist") {
            facts.metadata = readEntry(reader, entry);
        } else if (path == "TamblinArtwork") {
            facts.artwork = readEntry(reader, entry);
        } else if (name == "Info.plist") {
            facts.infoPlist = readEntry(reader, entry);
        } else if (name && name->ends_with(".png")) {
            if (auto bytes = readEntry(reader, entry)) {
                facts.images.emplace(*name, std::move(*bytes));
            }
        }
    }
    return status == ARCHIVE_EOF;
}

std::optional<Data> toData(std::optional<std::string> bytes) {
    return bytes ? std::optional(Data(std::move(*bytes))) : std::nullopt;
}

std::optional<std::string> stringAt(const Dictionary& info, std::string_view key) {
    const auto text = info.string(key);
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

} // namespace

std::optional<AppArchive> readAppArchive(const std::string& path, PropertyListSerialization& propertyLists,
                                         ErrorPtr* error) {
    const ArchiveReader reader = openArchive(path, error);
    if (reader == nullptr) {
        return std::nullopt;
    }
    Facts facts;
    // Damage further on is the device's to find: what describes the app may be whole all the same.
    const bool whole = readFacts(reader.get(), facts);
    if (!facts.infoPlist) {
        *error = desktopError("'" + path + "' holds no app: there is no readable <Name>.app/Info.plist in it" +
                                  (whole ? "" : std::string(" (") + archive_error_string(reader.get()) + ")") +
                                  ". Pack it again with `qrd pack`.",
                              path);
        return std::nullopt;
    }
    AppArchive app;
    app.path = path;
    std::error_code ignored;
    app.size = std::filesystem::file_size(path, ignored);
    app.infoPlist = Data(std::move(*facts.infoPlist));
    const auto root = propertyLists.propertyListWithData(app.infoPlist.bytes(), nullptr);
    const Dictionary* info = root ? root->dictionary() : nullptr;
    const auto identifier = info != nullptr ? info->string("BXBundleIdentifier") : std::nullopt;
    if (!identifier || !isUsableIdentifier(*identifier)) {
        *error = desktopError("'" + path + "' does not say which app it is: its Info.plist has no usable " +
                                  "BXBundleIdentifier" + (identifier ? " (\"" + std::string(*identifier) + "\")" : "") +
                                  ". Correct the Info.plist and pack the app again.",
                              path);
        return std::nullopt;
    }
    app.identifier = *identifier;
    app.version = stringAt(*info, "BXBundleVersion");
    app.name = stringAt(*info, "BXBundleDisplayName");
    app.metadata = toData(std::move(facts.metadata));
    app.artwork = toData(std::move(facts.artwork));
    app.iconName = stringAt(*info, "BXBundleIconFile");
    if (const auto image = app.iconName ? facts.images.find(*app.iconName) : facts.images.end();
        image != facts.images.end()) {
        app.icon = Data(image->second);
    }
    return app;
}

bool isUsableIdentifier(std::string_view identifier) {
    constexpr std::size_t longest = 200;
    const auto isUsable = [](char character) {
        return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
               (character >= '0' && character <= '9') || character == '.' || character == '-' || character == '_';
    };
    return !identifier.empty() && identifier.size() <= longest && identifier.front() != '.' &&
           std::ranges::all_of(identifier, isUsable);
}

ErrorPtr desktopError(std::string description, std::string_view path) {
    Dictionary facts{{ErrorDescriptionKey, description}};
    if (!path.empty()) {
        facts.set(ErrorPathKey, path);
    }
    return Error::make(DesktopErrorDomain, 1, std::move(facts));
}

} // namespace appsync::desktop
