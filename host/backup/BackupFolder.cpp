#include "host/backup/BackupFolder.h"

#include "desktop/AppArchive.h"
#include "device/root/Descriptor.h"
#include "device/root/Syscalls.h"
#include "host/plugin/PlugIn.h"
#include "platform/PropertyListSerialization.h"

#include <cstring>

namespace appsync::host {

namespace {

constexpr std::size_t largestList = std::size_t{1} << 30;

std::string textOf(const ErrorPtr& error) {
    const auto text = error != nullptr ? error->userInfo().string(ErrorDescriptionKey) : std::nullopt;
    return text ? ": " + std::string(*text) : std::string(".");
}

/// The property list in a file; nothing, and a sentence in `problem`, when there is none.
std::optional<Value> readList(const std::string& path, PropertyListSerialization& propertyLists, std::string& problem) {
    const device::Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string bytes;
    const int failed = file.isOpen() ? device::readAll(file.get(), largestList, bytes) : errno;
    if (failed != 0) {
        problem = "'" + path + "' cannot be read: " + std::strerror(failed) + ".";
        return std::nullopt;
    }
    if (bytes.empty()) {
        problem = "'" + path + "' is empty.";
        return std::nullopt;
    }
    ErrorPtr error;
    auto list = propertyLists.propertyListWithData(bytes, &error);
    if (!list) {
        problem = "'" + path + "' is no property list" + textOf(error);
    }
    return list;
}

std::optional<std::string> textIn(const Dictionary& metadata, std::string_view key) {
    const auto text = metadata.string(key);
    return text && !text->empty() ? std::optional<std::string>(*text) : std::nullopt;
}

/// Takes what an app's entry says, and finds what is wrong with it.
void readEntry(const Value& value, PropertyListSerialization& propertyLists, BackupApp& app) {
    if (!desktop::isUsableIdentifier(app.identifier)) {
        app.problem = "It is no bundle identifier.";
        return;
    }
    if (value.dictionary() == nullptr) {
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
    if (!list || list->dictionary() == nullptr) {
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

void readDemoted(const std::string& path, PropertyListSerialization& propertyLists, BackupContent& content) {
    std::string problem;
    const auto list = readList(path, propertyLists, problem);
    content.demoted = list ? device::DemotionLists::fromPropertyList(*list) : std::nullopt;
    if (list && !content.demoted) {
        problem = "'" + path + "' is no dictionary.";
    }
    if (!problem.empty()) {
        content.problems.push_back(problem + " No app counts as demoted.");
    }
}

void readIconState(const std::string& path, PropertyListSerialization& propertyLists, BackupContent& content) {
    std::string problem;
    auto list = readList(path, propertyLists, problem);
    std::string reason;
    if (list && !device::IconLayout::fromPropertyList(*list, reason)) {
        problem = "'" + path + "' is no icon layout: " + reason + ".";
        list.reset();
    }
    content.iconState = std::move(list);
    if (!problem.empty()) {
        content.problems.push_back(problem + " The icons are not arranged.");
    }
}

} // namespace

std::optional<BackupContent> readBackup(const std::string& folder, PropertyListSerialization& propertyLists,
                                        ErrorPtr* error) {
    const std::string path = folder + "/" + std::string(RestoreInfoName);
    std::string problem;
    const auto info = readList(path, propertyLists, problem);
    if (info && info->dictionary() == nullptr) {
        problem = "'" + path + "' is no dictionary.";
    }
    if (!problem.empty()) {
        *error = hostError(problem + " Name a folder that `qrd backup` has made.", path);
        return std::nullopt;
    }
    BackupContent content;
    for (const auto& [identifier, entry] : *info->dictionary()) {
        BackupApp app{.identifier = std::string(identifier), .name = std::string(identifier)};
        readEntry(entry, propertyLists, app);
        content.apps.push_back(std::move(app));
    }
    readDemoted(folder + "/" + std::string(DemotedAppsName), propertyLists, content);
    readIconState(folder + "/" + std::string(IconStateName), propertyLists, content);
    return content;
}

bool isPNG(std::string_view bytes) {
    constexpr std::string_view signature = "\x89PNG\r\n\x1a\n";
    return bytes.starts_with(signature);
}

} // namespace appsync::host
