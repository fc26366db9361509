#include "Files.h"

#include <cerrno>
#include <system_error>
#include <vector>

namespace port {

namespace {

/// False, with the reason, unless the number is 0.
bool done(int problem, std::string_view path, ErrorPtr* error) {
    if (problem != 0 && error) {
        *error = makeError(posixErrorDomain, problem, std::generic_category().message(problem), path);
    }
    return problem == 0;
}

bool isBelow(std::string_view name, std::string_view folder) {
    return name.starts_with(folder) && name.substr(folder.size()).starts_with('/');
}

} // namespace

Files::Files() {
    for (const char* folder : {"/tmp", "/var/mobile/Library/Logs/MediaServices", "/var/mobile/Media"}) {
        createDirectory(folder, true, std::nullopt, nullptr);
    }
}

Files::Place Files::_place(std::string_view path, bool makesParents) {
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) {
        return {"", EINVAL};
    }
    std::string name;
    while (!path.empty()) {
        path.remove_prefix(1);
        const std::string_view step = path.substr(0, path.find('/'));
        path.remove_prefix(step.size());
        if (step.empty() || step == ".") {
            continue;
        }
        const auto folder = makesParents ? _items.try_emplace(name).first : _items.find(name);
        if (folder == _items.end()) {
            return {"", ENOENT};
        }
        if (!folder->second.isFolder) {
            return {"", ENOTDIR};
        }
        if (step == "..") {
            name.resize(name.empty() ? 0 : name.rfind('/')); // above the top is the top
        } else {
            name.append("/").append(step);
        }
    }
    return {name};
}

Files::Items::iterator Files::_find(std::string_view path, int& problem) {
    const Place place = _place(path);
    const auto item = _items.find(place.name);
    problem = place.problem != 0 ? place.problem : item == _items.end() ? ENOENT : 0;
    return item;
}

bool Files::createDirectory(std::string_view path, bool withIntermediateDirectories,
                            const std::optional<FileAttributes>& /*attributes*/, ErrorPtr* error) noexcept {
    const std::lock_guard lock(_mutex);
    Place place = _place(path, withIntermediateDirectories);
    if (place.problem == 0) {
        const auto [item, isNew] = _items.try_emplace(place.name);
        const bool isFine = isNew || (withIntermediateDirectories && item->second.isFolder);
        place.problem = isFine ? 0 : EEXIST;
    }
    return done(place.problem, path, error);
}

bool Files::removeItem(std::string_view path, ErrorPtr* error) noexcept {
    const std::lock_guard lock(_mutex);
    int problem = 0;
    const auto item = _find(path, problem);
    if (problem == 0) {
        const std::string name = item->first;
        std::erase_if(_items, [&](const auto& other) { return other.first == name || isBelow(other.first, name); });
    }
    return done(problem, path, error);
}

bool Files::moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    const std::lock_guard lock(_mutex);
    int problem = 0;
    const auto item = _find(from, problem);
    if (problem != 0) {
        return done(problem, from, error);
    }
    const Place place = _place(to);
    const std::string name = item->first;
    problem = place.problem != 0 ? place.problem : _items.contains(place.name) ? EEXIST : 0;
    if (problem == 0 && isBelow(place.name, name)) {
        problem = EINVAL; // a folder does not fit into itself
    }
    if (problem != 0) {
        return done(problem, to, error);
    }
    std::vector<std::string> moving;
    for (const auto& [other, unused] : _items) {
        if (other == name || isBelow(other, name)) {
            moving.push_back(other);
        }
    }
    for (const std::string& other : moving) {
        auto node = _items.extract(other);
        node.key() = place.name + other.substr(name.size());
        _items.insert(std::move(node));
    }
    return true;
}

bool Files::copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    const auto bytes = readFile(from, error);
    return bytes && writeFileAtomically(to, bytes->bytes(), error);
}

bool Files::fileExists(std::string_view path) noexcept {
    const std::lock_guard lock(_mutex);
    int problem = 0;
    _find(path, problem);
    return problem == 0;
}

std::optional<Data> Files::readFile(std::string_view path, ErrorPtr* error) noexcept {
    const std::lock_guard lock(_mutex);
    int problem = 0;
    const auto item = _find(path, problem);
    if (problem == 0 && item->second.isFolder) {
        problem = EISDIR;
    }
    return done(problem, path, error) ? std::optional(Data(item->second.bytes)) : std::nullopt;
}

int Files::_write(std::string_view path, std::string_view bytes) {
    const std::lock_guard lock(_mutex);
    const Place place = _place(path);
    if (place.problem != 0) {
        return place.problem;
    }
    const auto [item, isNew] = _items.try_emplace(place.name, Item{false, {}});
    if (item->second.isFolder) {
        return EISDIR;
    }
    item->second.bytes = bytes;
    return 0;
}

bool Files::writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept {
    return done(_write(path, bytes), path, error);
}

bool Files::createFile(std::string_view path, std::string_view bytes, const FileAttributes& /*attributes*/) noexcept {
    return _write(path, bytes) == 0;
}

std::optional<FileInformation> Files::attributesOfItem(std::string_view path, ErrorPtr* error) noexcept {
    const std::lock_guard lock(_mutex);
    int problem = 0;
    const auto item = _find(path, problem);
    return done(problem, path, error) ? std::optional(FileInformation{item->second.bytes.size()}) : std::nullopt;
}

int Files::utimes(std::string_view path) noexcept {
    return fileExists(path) ? 0 : ENOENT;
}

std::string Files::errorText(int errorNumber) noexcept {
    return std::generic_category().message(errorNumber);
}

} // namespace port
