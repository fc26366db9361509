#include "tests/inmemory/Files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

namespace appsync::inmemory {

namespace {

bool report(int failed, std::string_view path, ErrorPtr* error) {
    if (failed != 0 && error) {
        *error = Error::make(posixErrorDomain, failed, {{errorPathKey, path}});
    }
    return failed == 0;
}

bool isBelow(std::string_view path, std::string_view folder) {
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

std::string parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

std::string attributesText(const std::optional<FileAttributes>& attributes) {
    return attributes ? ", owner " + attributes->ownerAccountName.value_or("(null)") + ", group " +
                            attributes->groupOwnerAccountName.value_or("(null)")
                      : "";
}

} // namespace

bool Files::createDirectory(std::string_view path, bool withIntermediateDirectories,
                            const std::optional<FileAttributes>& attributes, ErrorPtr* error) noexcept {
    const std::string intermediates = withIntermediateDirectories ? ", with intermediates" : "";
    if (_context.fails("files.createDirectory", std::string(path) + intermediates + attributesText(attributes),
                       error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    if (!report(_createDirectory(path, withIntermediateDirectories), path, error)) {
        return false;
    }
    if (error && complaintOfCreateDirectory) {
        *error = complaintOfCreateDirectory;
    }
    return true;
}

int Files::_createDirectory(std::string_view path, bool withIntermediateDirectories) {
    std::string place;
    if (const int failed = _resolve(path, place)) {
        return failed;
    }
    if (_exists(place)) {
        return withIntermediateDirectories && _folders.contains(place) ? 0 : EEXIST;
    }
    const int failed = _checkFolder(parentOf(place));
    if (failed != 0 && (failed != ENOENT || !withIntermediateDirectories)) {
        return failed;
    }
    _addFolders(place);
    return 0;
}

bool Files::removeItem(std::string_view path, ErrorPtr* error) noexcept {
    if (_context.fails("files.removeItem", std::string(path), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    std::string place;
    if (!report(_find(path, place), path, error)) {
        return false;
    }
    std::erase_if(_files, [&](const auto& file) { return file.first == place || isBelow(file.first, place); });
    std::erase_if(_folders, [&](const auto& folder) { return folder == place || isBelow(folder, place); });
    return true;
}

bool Files::moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    if (_context.fails("files.moveItem", std::string(from) + " to " + std::string(to), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    std::string source;
    std::string target;
    if (!report(_find(from, source), from, error) || !report(_findPlace(to, target), to, error) ||
        !report(_exists(target) ? EEXIST : 0, to, error)) {
        return false;
    }
    const auto moved = [&](const std::string& path) { return target + path.substr(source.size()); };
    std::map<std::string, std::string, std::less<>> files;
    for (auto& [path, bytes] : _files) {
        files[path == source || isBelow(path, source) ? moved(path) : path] = std::move(bytes);
    }
    std::set<std::string, std::less<>> folders;
    for (const std::string& path : _folders) {
        folders.insert(path == source || isBelow(path, source) ? moved(path) : path);
    }
    _files = std::move(files);
    _folders = std::move(folders);
    return true;
}

bool Files::copyItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    if (_context.fails("files.copyItem", std::string(from) + " to " + std::string(to), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    std::string source;
    if (!report(_findFile(from, source), from, error)) {
        return false;
    }
    return report(_write(to, std::string(_files.find(source)->second)), to, error);
}

bool Files::fileExists(std::string_view path) noexcept {
    _context.call("files.fileExists", std::string(path));
    return exists(path);
}

std::optional<Data> Files::readFile(std::string_view path, ErrorPtr* error) noexcept {
    if (_context.fails("files.readFile", std::string(path), error)) {
        return std::nullopt;
    }
    const std::lock_guard lock(_mutex);
    std::string place;
    if (!report(_findFile(path, place), path, error)) {
        return std::nullopt;
    }
    return Data(_files.find(place)->second);
}

bool Files::writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept {
    if (_context.fails("files.writeFileAtomically", std::string(path), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    return report(_write(path, std::string(bytes)), path, error);
}

bool Files::createFile(std::string_view path, std::string_view bytes, const FileAttributes& attributes) noexcept {
    if (_context.fails("files.createFile", std::string(path) + attributesText(attributes), nullptr)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    return _write(path, std::string(bytes)) == 0;
}

std::optional<FileInformation> Files::attributesOfItem(std::string_view path, ErrorPtr* error) noexcept {
    if (_context.fails("files.attributesOfItem", std::string(path), error)) {
        return std::nullopt;
    }
    const std::lock_guard lock(_mutex);
    std::string place;
    if (!report(_find(path, place), path, error)) {
        return std::nullopt;
    }
    const auto file = _files.find(place);
    return FileInformation{file != _files.end() ? file->second.size() : 0};
}

int Files::utimes(std::string_view path) noexcept {
    const ErrorPtr fault = _context.call("files.utimes", std::string(path));
    return fault ? static_cast<int>(fault->code()) : exists(path) ? 0 : ENOENT;
}

std::string Files::errorText(int errorNumber) noexcept {
    return "errno " + std::to_string(errorNumber);
}

void Files::put(std::string_view path, std::string_view bytes) {
    const std::lock_guard lock(_mutex);
    _files[std::string(path)] = bytes;
    _addFolders(parentOf(path));
}

void Files::putPlist(std::string_view path, const Value& value) {
    put(path, PropertyListCodec().dataWithPropertyList(value, PropertyListFormat::binary, nullptr).value().bytes());
}

void Files::putFolder(std::string_view path) {
    const std::lock_guard lock(_mutex);
    _addFolders(path);
}

std::optional<std::string> Files::bytesAt(std::string_view path) const {
    const std::lock_guard lock(_mutex);
    const auto file = _files.find(path);
    return file != _files.end() ? std::optional(file->second) : std::nullopt;
}

std::optional<Value> Files::plistAt(std::string_view path) const {
    const auto bytes = bytesAt(path);
    return bytes ? PropertyListCodec().propertyListWithData(*bytes, nullptr) : std::nullopt;
}

bool Files::exists(std::string_view path) const {
    const std::lock_guard lock(_mutex);
    std::string place;
    return _find(path, place) == 0;
}

bool Files::hasFolder(std::string_view path) const {
    const std::lock_guard lock(_mutex);
    return _folders.contains(path);
}

std::set<std::string> Files::paths() const {
    const std::lock_guard lock(_mutex);
    std::set<std::string> all(_folders.begin(), _folders.end());
    for (const auto& [path, bytes] : _files) {
        all.insert(path);
    }
    return all;
}

bool Files::_exists(std::string_view path) const {
    return _files.contains(path) || _folders.contains(path);
}

int Files::_resolve(std::string_view path, std::string& place) const {
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) {
        return EINVAL;
    }
    if (path.find("/.") == std::string_view::npos) {
        place = path;
        return 0;
    }
    std::vector<std::string> names;
    const auto joined = [&] {
        std::string text;
        for (const std::string& name : names) {
            text += "/" + name;
        }
        return text.empty() ? "/" : text;
    };
    std::istringstream rest{std::string(path)};
    for (std::string name; std::getline(rest, name, '/');) {
        if (name != "..") {
            if (!name.empty() && name != ".") {
                names.push_back(name);
            }
            continue;
        }
        if (const int failed = _checkFolder(joined())) {
            return failed;
        }
        if (!names.empty()) { // above the top is the top
            names.pop_back();
        }
    }
    place = joined();
    return 0;
}

int Files::_find(std::string_view path, std::string& place) const {
    const int failed = _resolve(path, place);
    return failed != 0 ? failed : _exists(place) ? 0 : ENOENT;
}

int Files::_findFile(std::string_view path, std::string& place) const {
    const int failed = _find(path, place);
    return failed != 0 ? failed : _folders.contains(place) ? EISDIR : 0;
}

int Files::_findPlace(std::string_view path, std::string& place) const {
    const int failed = _resolve(path, place);
    return failed != 0 ? failed : _checkFolder(parentOf(place));
}

int Files::_checkFolder(std::string_view folder) const {
    if (_folders.contains(folder)) {
        return 0;
    }
    for (std::string above(folder); above != "/"; above = parentOf(above)) {
        if (_files.contains(above)) {
            return ENOTDIR;
        }
    }
    return ENOENT;
}

int Files::_write(std::string_view path, std::string bytes) {
    std::string place;
    if (const int failed = _findPlace(path, place)) {
        return failed;
    }
    if (_folders.contains(place)) {
        return EISDIR;
    }
    _files[place] = std::move(bytes);
    return 0;
}

void Files::_addFolders(std::string_view path) {
    for (std::string folder(path); folder != "/"; folder = parentOf(folder)) {
        _folders.insert(folder);
    }
}

std::optional<Value> PropertyLists::propertyListWithData(std::string_view bytes, ErrorPtr* error) noexcept {
    if (_context.fails("plist.parse", "", error)) {
        return std::nullopt;
    }
    return _codec.propertyListWithData(bytes, error);
}

std::optional<Data> PropertyLists::dataWithPropertyList(const Value& value, PropertyListFormat format,
                                                        ErrorPtr* error) noexcept {
    if (_context.fails("plist.serialise", format == PropertyListFormat::binary ? "binary" : "xml", error)) {
        return std::nullopt;
    }
    return _codec.dataWithPropertyList(value, format, error);
}

} // namespace appsync::inmemory
