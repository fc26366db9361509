// The plug-in's property-list files: the to-do list, the restore state and the demoted apps.
#include "plugin/client/AppsClient.h"

#include "platform/FileSystem.h"
#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"

#include <algorithm>

namespace appsync {

namespace {

/// The dictionary under a key, made when it is missing or something else.
Dictionary& dictionaryAt(Dictionary& parent, std::string_view key) {
    Value* child = parent.find(key);
    if (!child || !child->dictionary()) {
        parent.set(key, Dictionary{});
        child = parent.find(key);
    }
    return *child->mutableDictionary();
}

/// Whether an item of the to-do list is a record of that app.
auto isRecordOf(std::string_view identifier) {
    return [identifier](const Value& item) {
        const Dictionary* record = item.dictionary();
        return record && record->string("identifier") == identifier;
    };
}

} // namespace

std::optional<Array> AppsClient::_loadPlist_withError(std::string_view path, ErrorPtr* error) {
    const auto bytes = _platform.files.readFile(path, error);
    if (!bytes || bytes->empty()) {
        return std::nullopt;
    }
    auto root = _platform.propertyLists.propertyListWithData(bytes->bytes(), error);
    if (!root) {
        _log.error("couldn't parse todo list");
        return std::nullopt;
    }
    Array* list = root->mutableArray();
    if (!list) {
        _log.error("todo list is not an array");
        return std::nullopt;
    }
    return std::move(*list);
}

std::optional<Dictionary> AppsClient::_loadDemotedAppsPlist_withError(std::string_view path, ErrorPtr* error) {
    const auto bytes = _platform.files.readFile(path, error);
    if (!bytes || bytes->empty()) {
        return std::nullopt;
    }
    const auto root = _platform.propertyLists.propertyListWithData(bytes->bytes(), error);
    if (!root) {
        _log.error("couldn't parse demoted apps list");
        return std::nullopt;
    }
    if (!root->dictionary()) {
        _log.error("demoted apps list is not a dictionary");
        return std::nullopt;
    }
    return *root->dictionary();
}

std::optional<Value>
AppsClient::_restoreStatePropertyForKey_identifier_version(std::string_view key, std::string_view identifier,
                                                           const std::optional<std::string>& version) {
    const auto root = readPropertyList(_platform, paths::restoreState);
    if (!root || !root->dictionary() || !version) {
        return std::nullopt;
    }
    const Dictionary* versions = root->dictionary()->dictionary(identifier);
    const Dictionary* properties = versions ? versions->dictionary(*version) : nullptr;
    const Value* value = properties ? properties->find(key) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
}

void AppsClient::_setRestoreStatePropertyValue_forKey_identifier_version(const Value& value, std::string_view key,
                                                                         std::string_view identifier,
                                                                         const std::optional<std::string>& version) {
    if (!version) {
        return;
    }
    const Lock lock(_restoreStateMutex);
    std::optional<Value> root = Dictionary{};
    if (const auto bytes = _platform.files.readFile(paths::restoreState, nullptr)) {
        root = _platform.propertyLists.propertyListWithData(bytes->bytes(), nullptr);
    }
    Dictionary* state = root ? root->mutableDictionary() : nullptr;
    if (!state) {
        return; // a file that cannot be understood is left as it is
    }
    Dictionary& versions = dictionaryAt(*state, identifier);
    Dictionary& properties = dictionaryAt(versions, *version);
    properties.set(key, value);
    writePropertyList(_platform, *root, PropertyListFormat::xml, paths::restoreState);
}

void AppsClient::cleanRestoreStateForIdentifier(std::string_view identifier) {
    const Lock lock(_restoreStateMutex);
    auto root = readPropertyList(_platform, paths::restoreState);
    Dictionary* state = root ? root->mutableDictionary() : nullptr;
    if (!state) {
        return;
    }
    state->erase(identifier);
    if (state->empty()) {
        _platform.files.removeItem(paths::restoreState, nullptr);
    } else {
        writePropertyList(_platform, *root, PropertyListFormat::xml, paths::restoreState);
    }
}

void AppsClient::changeAssetID_toDo(std::string_view identifier, std::string_view operation) {
    ToDoChange own{identifier, operation};
    _toDoChanges.join(own, [this](const std::vector<ToDoChange*>& changes) {
        Array toDoList = _loadPlist_withError(paths::toDoList, nullptr).value_or(Array{});
        bool isChanged = false;
        for (const ToDoChange* change : changes) {
            const auto item = std::ranges::find_if(toDoList, isRecordOf(change->identifier));
            if (item == toDoList.end()) {
                continue;
            }
            Dictionary& record = *item->mutableDictionary();
            _log.message("Changing %{public}@ from %{public}@ to %{public}@", change->identifier,
                         record.find("operation"), change->operation);
            record.set("operation", change->operation);
            isChanged = true;
        }
        if (isChanged) {
            writePropertyList(_platform, std::move(toDoList), PropertyListFormat::binary, paths::toDoList);
        }
    });
}

std::optional<std::string> AppsClient::_operationStateForIdentifier(std::string_view identifier) {
    const Array toDoList = _loadPlist_withError(paths::toDoList, nullptr).value_or(Array{});
    const auto item = std::ranges::find_if(toDoList, isRecordOf(identifier));
    const auto operation = item != toDoList.end() ? item->dictionary()->string("operation") : std::nullopt;
    return operation ? std::optional<std::string>(*operation) : std::nullopt;
}

} // namespace appsync
