#include "desktop/AppLibrary.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <unordered_map>

namespace appsync::desktop {

namespace {

std::vector<std::string> filesIn(const std::string& folder, std::error_code& failure) {
    std::vector<std::string> files;
    std::filesystem::directory_iterator entry(folder, failure);
    for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
        std::error_code ignored;
        if (!entry->path().filename().string().starts_with(".") && !entry->is_directory(ignored)) {
            files.push_back(entry->path().string());
        }
    }
    std::ranges::sort(files);
    return files;
}

/// With `keepsAll`, all archives of every app; otherwise the first of each.
std::optional<AppLibrary> readArchives(const std::string& folder, PropertyListSerialization& propertyLists,
                                       bool keepsAll, ErrorPtr* error) {
    std::error_code failure;
    const auto files = filesIn(folder, failure);
    if (failure) {
        *error = desktopError("The library '" + folder + "' cannot be read: " + failure.message() +
                                  ". Name a folder that holds app archives.",
                              folder);
        return std::nullopt;
    }
    AppLibrary library;
    std::unordered_map<std::string, std::string> pathOf;
    for (const std::string& file : files) {
        auto app = readAppArchive(file, propertyLists);
        if (!app) {
            library.problems.push_back(errorText(app.error()));
        } else if (const auto [first, isFirst] = pathOf.emplace(app->identifier, file); !isFirst && !keepsAll) {
            library.problems.push_back("'" + file + "' holds " + app->identifier + " as '" + first->second +
                                       "' does; the latter is used. Keep one of the two.");
        } else {
            library.apps.push_back(std::move(*app));
        }
    }
    return library;
}

} // namespace

const AppArchive* AppLibrary::find(std::string_view identifier) const {
    const auto found = std::ranges::find(apps, identifier, &AppArchive::identifier);
    return found != apps.end() ? &*found : nullptr;
}

const AppArchive* AppLibrary::find(std::string_view identifier, const std::optional<std::string>& version) const {
    const auto found = std::ranges::find_if(
        apps, [&](const AppArchive& app) { return app.identifier == identifier && app.version == version; });
    return found != apps.end() ? &*found : find(identifier);
}

std::optional<AppLibrary> readAppLibrary(const std::string& folder, PropertyListSerialization& propertyLists,
                                         ErrorPtr* error) {
    return readArchives(folder, propertyLists, false, error);
}

std::optional<AppLibrary> readAppCatalogue(const std::string& folder, PropertyListSerialization& propertyLists,
                                           ErrorPtr* error) {
    return readArchives(folder, propertyLists, true, error);
}

} // namespace appsync::desktop
