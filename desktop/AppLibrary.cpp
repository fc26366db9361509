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

std::string sentenceOf(const ErrorPtr& error) {
    return std::string(error->userInfo().string(ErrorDescriptionKey).value_or(""));
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

std::optional<AppLibrary> readAppCatalogue(const std::string& folder, PropertyListSerialization& propertyLists,
                                           ErrorPtr* error) {
    std::error_code failure;
    const auto files = filesIn(folder, failure);
    if (failure) {
        *error = desktopError("The library '" + folder + "' cannot be read: " + failure.message() +
                                  ". Name a folder that holds app archives.",
                              folder);
        return std::nullopt;
    }
    AppLibrary library;
    for (const std::string& file : files) {
        ErrorPtr problem;
        if (auto app = readAppArchive(file, propertyLists, &problem)) {
            library.apps.push_back(std::move(*app));
        } else {
            library.problems.push_back(sentenceOf(problem));
        }
    }
    return library;
}

std::optional<AppLibrary> readAppLibrary(const std::string& folder, PropertyListSerialization& propertyLists,
                                         ErrorPtr* error) {
    auto catalogue = readAppCatalogue(folder, propertyLists, error);
    if (!catalogue) {
        return std::nullopt;
    }
    AppLibrary library{.apps = {}, .problems = std::move(catalogue->problems)};
    std::unordered_map<std::string, std::string> pathOf;
    for (AppArchive& app : catalogue->apps) {
        if (const auto [first, isFirst] = pathOf.emplace(app.identifier, app.path); !isFirst) {
            library.problems.push_back("'" + app.path + "' holds " + app.identifier + " as '" + first->second +
                                       "' does; the latter is used. Keep one of the two.");
        } else {
            library.apps.push_back(std::move(app));
        }
    }
    return library;
}

} // namespace appsync::desktop
