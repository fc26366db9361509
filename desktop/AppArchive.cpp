#include "desktop/AppArchive.h"

#include "archive/AppInArchive.h"
#include "archive/ArchiveReader.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"
#include "values/BundleIdentifier.h"
#include "values/Description.h"

#include <string_view>
#include <utility>

namespace appsync::desktop {

namespace {

/// No real version or name is longer, and those of a whole library are in memory.
constexpr std::size_t maxTextBytes = 1'000;

const ArchiveLimits limits;

/// An open archive whose structure has been read.
struct OpenArchive {
    ArchiveFile file;
    ZipDirectory directory;
    AppInArchive app;

    /// The descriptor, `refuse` and `memory` must outlive it.
    static Result<OpenArchive> open(int descriptor, const Refusal& refuse, ArchiveMemory& memory) {
        auto file = ArchiveFile::open(descriptor, refuse, memory);
        if (!file) {
            return file.error();
        }
        auto directory = ZipDirectory::read(*file, limits, refuse);
        if (!directory) {
            return directory.error();
        }
        auto app = findApplication(*directory, limits, refuse);
        if (!app) {
            return app.error();
        }
        return OpenArchive{std::move(*file), std::move(*directory), std::move(*app)};
    }
};

/// Reads the small files that go with an app.
class AppReader {
  public:
    /// `archive`, `propertyLists` and `refuse` must outlive the reader.
    AppReader(OpenArchive& archive, PropertyListSerialization& propertyLists, const Refusal& refuse)
        : _directory(archive.directory), _app(archive.app), _propertyLists(propertyLists), _refuse(refuse),
          _reader(archive.file, refuse) {}

    /// The app's Info.plist: its bytes and what they say.
    Result<Dictionary> readInfoPlist(Data& bytes) {
        auto content = _read(_app.infoPath);
        if (!content) {
            return content.error();
        }
        bytes = std::move(**content); // findApplication has found it
        return readInfo(bytes.bytes(), _app, _propertyLists, _refuse);
    }

    Result<AppDescription> readDescription() {
        AppDescription description;
        const auto info = readInfoPlist(description.infoPlist);
        if (!info) {
            return info.error();
        }
        description.iconName = _iconName(*info);
        const std::string icon = description.iconName ? _app.bundleName + "/" + *description.iconName : "";
        for (const auto& [path, target] :
             {std::pair(metadataFileName, &description.metadata), std::pair(artworkFileName, &description.artwork),
              std::pair(std::string_view(icon), &description.icon)}) {
            auto content = _read(path);
            if (!content) {
                return content.error();
            }
            *target = std::move(*content);
        }
        return description;
    }

    /// What the device would refuse at an entry's beginning need not be sent.
    Result<void> checkEntries() {
        for (const ZipDirectory::Entry& entry : _directory.entries()) {
            if (const auto opened = _reader.open(entry); !opened) {
                return opened;
            }
        }
        return {};
    }

  private:
    /// The picture in the app's folder that its Info.plist names, unless it is too large to be shown.
    [[nodiscard]] std::optional<std::string> _iconName(const Dictionary& info) const {
        const auto name = info.string("BXBundleIconFile");
        if (!name || !name->ends_with(".png") || name->find('/') != std::string_view::npos) {
            return std::nullopt;
        }
        const ZipDirectory::Entry* icon = _directory.find(_app.bundleName + "/" + std::string(*name));
        const bool isUsable =
            icon && icon->kind == ZipDirectory::Kind::file && icon->unpackedBytes <= limits.pictureBytes;
        return isUsable ? std::optional<std::string>(*name) : std::nullopt;
    }

    /// The content of an entry; nullopt when there is none of this path.
    [[nodiscard]] Result<std::optional<Data>> _read(std::string_view path) {
        const ZipDirectory::Entry* entry = _directory.find(path);
        if (!entry) {
            return std::optional<Data>();
        }
        if (const auto opened = _reader.open(*entry); !opened) {
            return opened.error();
        }
        auto content = _reader.content();
        return content ? Result(std::optional(Data(std::move(*content)))) : content.error();
    }

    const ZipDirectory& _directory;
    const AppInArchive& _app;
    PropertyListSerialization& _propertyLists;
    const Refusal& _refuse;
    ArchiveReader _reader;
};

/// A refusal as the problem of a library.
ErrorPtr libraryProblem(const ErrorPtr& reason, const std::string& path) {
    std::string sentence = errorText(reason);
    sentence.append(sentence.ends_with('.') ? "" : ".").append(" Take it out of the library or replace it.");
    return desktopError(std::move(sentence), path);
}

} // namespace

Result<AppArchive> readAppArchive(int file, PropertyListSerialization& propertyLists, const Refusal& refuse) {
    ArchiveMemory memory;
    auto archive = OpenArchive::open(file, refuse, memory);
    if (!archive) {
        return archive.error();
    }
    Data bytes;
    const auto info = AppReader(*archive, propertyLists, refuse).readInfoPlist(bytes);
    if (!info) {
        return info.error();
    }
    AppArchive app;
    app.unpackedSize = archive->directory.unpackedBytes();
    app.identifier = *info->string("BXBundleIdentifier");
    if (!isBundleIdentifier(app.identifier)) {
        return refuse(InstallerError::invalidIdentifier,
                      "its BXBundleIdentifier \"" + printable(app.identifier) +
                          "\" is no bundle identifier: " + std::string(bundleIdentifierRule));
    }
    if (const auto version = info->string("BXBundleVersion")) {
        app.version = cutText(*version, maxTextBytes);
    }
    if (const auto name = info->string("BXBundleDisplayName")) {
        app.name = cutText(*name, maxTextBytes);
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
    ArchiveMemory memory;
    auto archive = OpenArchive::open(file->descriptor(), refuse, memory);
    if (!archive) {
        return libraryProblem(archive.error(), app.path);
    }
    AppReader reader(*archive, propertyLists, refuse);
    if (const auto checked = reader.checkEntries(); !checked) {
        return libraryProblem(checked.error(), app.path);
    }
    auto description = reader.readDescription();
    return description ? std::move(description) : libraryProblem(description.error(), app.path);
}

ErrorPtr desktopError(std::string description, std::string_view path) {
    return makeError(desktopErrorDomain, 1, description, path);
}

} // namespace appsync::desktop
