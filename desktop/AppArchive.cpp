#include "desktop/AppArchive.h"

#include "archive/AppInArchive.h"
#include "archive/ArchiveReader.h"
#include "archive/EntryPath.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "values/BundleIdentifier.h"

#include <map>
#include <string_view>
#include <vector>

namespace appsync::desktop {

namespace {

/// No real version or name is longer, and those of a whole library are in memory.
constexpr std::size_t longestText = 1'000;

/// An open archive whose structure has been read.
class AppReader {
  public:
    /// `file` and `refuse` must outlive the reader.
    static Result<AppReader> open(int file, const Refusal& refuse) {
        AppReader reader(file, refuse);
        auto directory = ZipDirectory::read(file, reader._limits, refuse);
        if (!directory) {
            return directory.error();
        }
        reader._directory = std::move(*directory);
        auto app = findApplication(reader._directory, reader._limits, refuse);
        if (!app) {
            return app.error();
        }
        reader._app = std::move(*app);
        return reader;
    }

    /// The app's Info.plist: its bytes and what they say.
    Result<Dictionary> readInfoPlist(PropertyListSerialization& propertyLists, std::string& bytes) const {
        auto contents = _read({_app.infoPath});
        if (!contents) {
            return contents.error();
        }
        bytes = std::move(contents->front());
        return readInfo(bytes, _app, propertyLists, *_refuse);
    }

    /// The small files that go with the app, as far as there are any.
    Result<AppDescription> readDescription(PropertyListSerialization& propertyLists) const {
        std::string bytes;
        const auto info = readInfoPlist(propertyLists, bytes);
        if (!info) {
            return info.error();
        }
        AppDescription description;
        description.infoPlist = Data(std::move(bytes));
        description.iconName = _iconName(*info);
        const std::string icon = description.iconName ? _app.bundleName + "/" + *description.iconName : "";
        const std::vector<std::string> paths{std::string(metadataFileName), std::string(artworkFileName), icon};
        auto contents = _read(paths);
        if (!contents) {
            return contents.error();
        }
        const std::vector targets{&description.metadata, &description.artwork, &description.icon};
        for (std::size_t number = 0; number < paths.size(); ++number) {
            if (_directory.find(paths[number]) != nullptr) {
                *targets[number] = Data(std::move((*contents)[number]));
            }
        }
        return description;
    }

  private:
    AppReader(int file, const Refusal& refuse) : _file(file), _refuse(&refuse) {}

    /// The picture in the app's folder that its Info.plist names, unless it is too large to be shown.
    [[nodiscard]] std::optional<std::string> _iconName(const Dictionary& info) const {
        const auto name = info.string("BXBundleIconFile");
        if (!name || !name->ends_with(".png") || name->find('/') != std::string_view::npos) {
            return std::nullopt;
        }
        const ZipDirectory::Entry* icon = _directory.find(_app.bundleName + "/" + std::string(*name));
        const bool isUsable =
            icon != nullptr && icon->kind == ZipDirectory::Kind::file && icon->unpackedBytes <= _limits.pictureBytes;
        return isUsable ? std::optional<std::string>(*name) : std::nullopt;
    }

    /// The contents of entries by their paths; empty for those that are not there.
    [[nodiscard]] Result<std::vector<std::string>> _read(const std::vector<std::string>& paths) const {
        std::vector<std::string> contents(paths.size());
        std::map<const ZipDirectory::Entry*, std::string*> wanted;
        for (std::size_t number = 0; number < paths.size(); ++number) {
            if (const ZipDirectory::Entry* entry = _directory.find(paths[number])) {
                wanted.emplace(entry, &contents[number]);
            }
        }
        ArchiveReader reader(*_refuse);
        if (const auto opened = reader.open(_file); !opened) {
            return opened.error();
        }
        for (auto entry = _directory.entries().begin(); !wanted.empty(); ++entry) {
            if (const auto next = reader.next(*entry); !next) {
                return next.error();
            }
            const auto found = wanted.find(&*entry);
            if (found == wanted.end()) {
                continue;
            }
            if (ErrorPtr error = _readEntry(reader, *found->second)) {
                return error;
            }
            wanted.erase(found);
        }
        return contents;
    }

    static ErrorPtr _readEntry(ArchiveReader& reader, std::string& content) {
        for (;;) {
            const auto piece = reader.nextPiece();
            if (!piece || piece->empty()) {
                return piece.error();
            }
            content.append(*piece);
        }
    }

    int _file;
    const Refusal* _refuse;
    ArchiveLimits _limits;
    ZipDirectory _directory;
    AppInArchive _app;
};

/// A refusal as the problem of a library.
ErrorPtr libraryProblem(const ErrorPtr& reason, const std::string& path) {
    std::string sentence = errorText(reason);
    sentence.append(sentence.ends_with('.') ? "" : ".").append(" Take it out of the library or replace it.");
    return desktopError(std::move(sentence), path);
}

/// A text as far as it is kept.
std::string cut(std::string_view text) {
    std::string kept(text.substr(0, longestText));
    while (!isUtf8(kept)) { // the cut may have gone through a character
        kept.pop_back();
    }
    return kept;
}

} // namespace

Result<AppArchive> readAppArchive(int file, PropertyListSerialization& propertyLists, const Refusal& refuse) {
    const auto reader = AppReader::open(file, refuse);
    if (!reader) {
        return reader.error();
    }
    std::string bytes;
    const auto info = reader->readInfoPlist(propertyLists, bytes);
    if (!info) {
        return info.error();
    }
    AppArchive app;
    app.identifier = *info->string("BXBundleIdentifier");
    if (!isBundleIdentifier(app.identifier)) {
        return refuse(InstallerError::invalidIdentifier,
                      "its BXBundleIdentifier \"" + printable(app.identifier) +
                          "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
    }
    if (const auto version = info->string("BXBundleVersion")) {
        app.version = cut(*version);
    }
    if (const auto name = info->string("BXBundleDisplayName")) {
        app.name = cut(*name);
    }
    return app;
}

Result<AppArchive> readAppArchive(const std::string& path, PropertyListSerialization& propertyLists) {
    const auto file = RegularFile::open(path);
    if (!file) {
        return libraryProblem(file.error(), path);
    }
    auto app = readAppArchive(file->descriptor(), propertyLists, Refusal(path));
    if (!app) {
        return libraryProblem(app.error(), path);
    }
    app->path = path;
    app->stamp = file->stamp();
    app->size = app->stamp.size;
    return app;
}

Result<RegularFile> openAgain(const AppArchive& app) {
    auto file = RegularFile::open(app.path);
    if (!file) {
        return desktopError(errorText(file.error()) + ". Put it back into the library and sync again.", app.path);
    }
    if (file->stamp() != app.stamp) {
        return desktopError("'" + app.path + "' has changed since the library was read. Sync again.", app.path);
    }
    return file;
}

Result<AppDescription> readAppDescription(const AppArchive& app, PropertyListSerialization& propertyLists) {
    const auto file = openAgain(app);
    if (!file) {
        return file.error();
    }
    const Refusal refuse(app.path);
    const auto reader = AppReader::open(file->descriptor(), refuse);
    auto description = reader ? reader->readDescription(propertyLists) : Result<AppDescription>(reader.error());
    if (!description) {
        return libraryProblem(description.error(), app.path);
    }
    return description;
}

ErrorPtr desktopError(std::string description, std::string_view path) {
    return makeError(DesktopErrorDomain, 1, description, path);
}

} // namespace appsync::desktop
