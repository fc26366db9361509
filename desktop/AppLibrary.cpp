#include "desktop/AppLibrary.h"

#include "concurrency/AllCores.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>
#include <unordered_map>

namespace appsync::desktop {

namespace {

/// Sorted by name.
Result<std::vector<std::string>> filesIn(const std::string& folder) {
    std::vector<std::string> files;
    std::error_code failure;
    std::filesystem::directory_iterator entry(folder, failure);
    for (; !failure && entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
        std::error_code unknown; // what cannot be looked at is no folder; opening it as an archive says why
        if (!entry->path().filename().string().starts_with(".") && !entry->is_directory(unknown)) {
            files.push_back(entry->path().string());
        }
    }
    if (failure) {
        return desktopError("The library '" + folder + "' cannot be read: " + failure.message() +
                                ". Name a folder that holds app archives.",
                            folder);
    }
    std::ranges::sort(files);
    return files;
}

/// There for something else, such as a list of what the library holds. What cannot be read may be an archive.
bool isOtherFile(const std::string& path) {
    const auto extension = std::filesystem::path(path).extension();
    std::error_code unknown;
    if (extension == ".archive" || extension == ".zip" || !std::filesystem::is_regular_file(path, unknown)) {
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    std::array<char, 2> first{};
    return file && !(file.read(first.data(), first.size()) && first == std::array{'P', 'K'});
}

/// With `keepsAll`, all archives of every app; otherwise the first of each.
Result<AppLibrary> readArchives(const std::string& folder, PropertyListSerialization& propertyLists, bool keepsAll) {
    const auto files = filesIn(folder);
    if (!files) {
        return files.error();
    }
    std::vector<std::optional<Result<AppArchive>>> apps(files->size()); // nullopt for other files
    forEachNumber(files->size(), [&](std::size_t number) {
        const std::string& file = (*files)[number];
        if (!isOtherFile(file)) {
            apps[number] = readAppArchive(file, propertyLists);
        }
    });
    AppLibrary library;
    std::unordered_map<std::string, std::string> pathOf;
    for (std::size_t number = 0; number < files->size(); ++number) {
        const std::string& file = (*files)[number];
        auto& app = apps[number];
        if (!app) {
            library.problems.push_back("'" + file + "' is no app archive and was passed over.");
        } else if (!*app) {
            library.unreadable.push_back({file, errorText(app->error())});
        } else if (const auto [first, isFirst] = pathOf.emplace((*app)->identifier, file); !isFirst && !keepsAll) {
            library.problems.push_back("'" + file + "' holds " + (*app)->identifier + " as '" + first->second +
                                       "' does; the latter is used. Keep one of the two.");
        } else {
            library.apps.push_back(std::move(**app));
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

Result<AppLibrary> readAppLibrary(const std::string& folder, PropertyListSerialization& propertyLists) {
    return readArchives(folder, propertyLists, false);
}

Result<AppLibrary> readAppCatalogue(const std::string& folder, PropertyListSerialization& propertyLists) {
    return readArchives(folder, propertyLists, true);
}

} // namespace appsync::desktop
