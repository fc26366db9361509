#include "host/backup/BackupFolder.h"

#include "archive/AppInArchive.h"
#include "files/Syscalls.h"
#include "host/plugin/PlugIn.h"
#include "platform/PropertyListSerialization.h"
#include "values/BundleIdentifier.h"

#include <linux/openat2.h>

#include <cstring>

namespace appsync::host {

namespace {

constexpr std::size_t maxListSize = std::size_t{256} << 20;

std::string textOf(const ErrorPtr& error) {
    const auto text = error ? error->userInfo().string(errorDescriptionKey) : std::nullopt;
    return text ? ": " + std::string(*text) : std::string(".");
}

/// A backup's lists.
class ListReader {
  public:
    ListReader(int folder, const std::string& path, PropertyListSerialization& propertyLists)
        : _folder(folder), _path(path), _propertyLists(propertyLists) {}

    /// The property list in a file.
    Result<Value> read(std::string_view name) {
        const std::string shown = pathOf(name);
        Descriptor file;
        std::string bytes;
        int failed = openBeneath(_folder, std::string(name), O_RDONLY | withoutWaiting, file, RESOLVE_NO_SYMLINKS);
        if (failed == 0) {
            failed = checkIsFile(file.get());
        }
        if (failed == 0) {
            failed = readAll(file.get(), maxListSize, bytes);
        }
        if (failed != 0) {
            return hostError("'" + shown + "' cannot be read: " + _reasonOf(failed) + ".");
        }
        if (bytes.empty()) {
            return hostError("'" + shown + "' is empty.");
        }
        ErrorPtr error;
        auto list = _propertyLists.propertyListWithData(bytes, &error);
        if (!list) {
            return hostError("'" + shown + "' is no property list" + textOf(error));
        }
        return std::move(*list);
    }
    /// Likewise, and it must be a dictionary.
    Result<Value> readDictionary(std::string_view name) {
        auto list = read(name);
        if (list && !list->dictionary()) {
            return hostError("'" + pathOf(name) + "' is no dictionary.");
        }
        return list;
    }
    [[nodiscard]] std::string pathOf(std::string_view name) const { return _path + "/" + std::string(name); }

  private:
    static std::string _reasonOf(int failed) {
        switch (failed) {
        case ELOOP: return "it is a symbolic link, and a backup has none";
        case ENXIO: return "it is no file";
        case EFBIG: return "it is larger than 256 MB";
        default: return std::strerror(failed);
        }
    }

    int _folder;
    const std::string& _path;
    PropertyListSerialization& _propertyLists;
};

std::optional<std::string> textIn(const Dictionary& metadata, std::string_view key) {
    const auto text = metadata.string(key);
    return text && !text->empty() ? std::optional<std::string>(*text) : std::nullopt;
}

/// Takes what an app's entry says, and finds what is wrong with it.
void readEntry(const Value& value, PropertyListSerialization& propertyLists, BackupApp& app) {
    if (!isBundleIdentifier(app.identifier)) {
        app.problem = "It is no bundle identifier.";
        return;
    }
    if (!value.dictionary()) {
        app.problem = "What the backup says of it is no dictionary.";
        return;
    }
    Dictionary entry = *value.dictionary();
    const auto metadata = entry.data("TamblinMetadata");
    if (!metadata) {
        app.problem = "The backup has no store metadata of it.";
        return;
    }
    const auto list = propertyLists.propertyListWithData(metadata->bytes(), nullptr);
    if (!list || !list->dictionary()) {
        app.problem = "Its store metadata is damaged.";
        return;
    }
    const Dictionary& facts = *list->dictionary();
    app.name = textIn(facts, "title").value_or(textIn(facts, "itemName").value_or(app.identifier));
    app.version = textIn(facts, "bundleVersion");
    if (entry.contains("ApplicationSINF") && !entry.data("ApplicationSINF")) {
        app.remark = "Its protection record is damaged and was left out.";
        entry.erase("ApplicationSINF");
    }
    const auto icon = entry.data("PlaceholderIcon");
    if (entry.contains("PlaceholderIcon") && (!icon || !isPNG(icon->bytes()))) {
        app.remark = "Its icon is no PNG and was left out.";
        entry.erase("PlaceholderIcon");
    }
    app.entry = std::move(entry);
}

void readDemoted(ListReader& lists, BackupContent& content) {
    const auto list = lists.readDictionary(demotedAppsName);
    if (list) {
        content.demoted = device::DemotionLists::fromPropertyList(*list);
    } else {
        content.problems.push_back(errorText(list.error()) + " No app counts as demoted.");
    }
}

void readIconState(ListReader& lists, BackupContent& content) {
    auto list = lists.read(iconStateName);
    std::string problem = list ? "" : errorText(list.error());
    if (list) {
        const auto layout = device::IconLayout::fromPropertyList(*list);
        if (layout) {
            content.iconState = std::move(*list);
            return;
        }
        problem = "'" + lists.pathOf(iconStateName) + "' is no icon layout: " + errorText(layout.error()) + ".";
    }
    content.problems.push_back(problem + " The icons are not arranged.");
}

ErrorPtr noBackup(const std::string& problem, const std::string& path) {
    return hostError(problem + " Name a folder that `qrd backup` has made.", path);
}

} // namespace

Result<BackupFolder> BackupFolder::open(const std::string& path) {
    Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.isOpen()) {
        return noBackup("'" + path + "' cannot be read: " + std::strerror(errno) + ".", path);
    }
    return BackupFolder(path, std::move(folder));
}

Result<BackupContent> BackupFolder::read(PropertyListSerialization& propertyLists) const {
    ListReader lists(_folder.get(), _path, propertyLists);
    const auto info = lists.readDictionary(restoreInfoName);
    if (!info) {
        return noBackup(errorText(info.error()), lists.pathOf(restoreInfoName));
    }
    BackupContent content;
    for (const auto& [identifier, entry] : *info->dictionary()) {
        BackupApp app{.identifier = std::string(identifier), .name = std::string(identifier)};
        readEntry(entry, propertyLists, app);
        content.apps.push_back(std::move(app));
    }
    readDemoted(lists, content);
    readIconState(lists, content);
    return content;
}

std::string BackupFolder::dataPath(const std::string& identifier) const {
    return _path + "/" + std::string(backupDataName) + "/" + identifier;
}

Result<std::optional<Descriptor>> BackupFolder::openData(const std::string& identifier) const {
    Descriptor opened;
    const int failed = openBeneath(_folder.get(), std::string(backupDataName) + "/" + identifier,
                                   O_RDONLY | O_DIRECTORY, opened, RESOLVE_NO_SYMLINKS);
    if (failed == ENOENT) {
        return std::optional<Descriptor>();
    }
    if (failed != 0) {
        const std::string reason =
            failed == ELOOP ? "a symbolic link leads to it, and a backup has none" : std::strerror(failed);
        return hostError("'" + dataPath(identifier) + "' cannot be read: " + reason + ".");
    }
    return std::optional(std::move(opened));
}

bool isPNG(std::string_view bytes) {
    constexpr std::string_view signature = "\x89PNG\r\n\x1a\n";
    return bytes.starts_with(signature);
}

} // namespace appsync::host
