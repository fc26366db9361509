#include "tests/inmemory/Files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace appsync::inmemory {

namespace {

ErrorPtr posix(int number, std::string_view path) {
    return Error::make(PosixErrorDomain, number, {{ErrorPathKey, path}});
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
    if (!withIntermediateDirectories && _exists(path)) {
        if (error != nullptr) {
            *error = posix(EEXIST, path);
        }
        return false;
    }
    if (!withIntermediateDirectories && _missing(parentOf(path), error)) {
        return false;
    }
    for (std::string folder(path); folder != "/"; folder = parentOf(folder)) {
        _folders.insert(folder);
    }
    if (error != nullptr && complaintOfCreateDirectory != nullptr) {
        *error = complaintOfCreateDirectory;
    }
    return true;
}

bool Files::removeItem(std::string_view path, ErrorPtr* error) noexcept {
    if (_context.fails("files.removeItem", std::string(path), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    if (_missing(path, error)) {
        return false;
    }
    std::erase_if(_files, [&](const auto& file) { return file.first == path || isBelow(file.first, path); });
    std::erase_if(_folders, [&](const auto& folder) { return folder == path || isBelow(folder, path); });
    return true;
}

bool Files::moveItem(std::string_view from, std::string_view to, ErrorPtr* error) noexcept {
    if (_context.fails("files.moveItem", std::string(from) + " to " + std::string(to), error)) {
        return false;
    }
    const std::lock_guard lock(_mutex);
    if (_missing(from, error)) {
        return false;
    }
    const auto moved = [&](const std::string& path) { return std::string(to) + path.substr(from.size()); };
    std::map<std::string, std::string, std::less<>> files;
    for (auto& [path, bytes] : _files) {
        files[path == from || isBelow(path, from) ? moved(path) : path] = std::move(bytes);
    }
    std::set<std::string, std::less<>> folders;
    for (const std::string& path : _folders) {
        folders.insert(path == from || isBelow(path, from) ? moved(path) : path);
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
    const auto file = _files.find(from);
    if (file == _files.end()) {
        _missing(from, error);
        return false;
    }
    _files[std::string(to)] = file->second;
    return true;
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
    const auto file = _files.find(path);
    if (file == _files.end()) {
        if (error != nullptr) {
            *error = posix(ENOENT, path);
        }
        return std::nullopt;
    }
    return Data(file->second);
}

bool Files::writeFileAtomically(std::string_view path, std::string_view bytes, ErrorPtr* error) noexcept {
    if (_context.fails("files.writeFileAtomically", std::string(path), error)) {
        return false;
    }
    put(path, bytes);
    return true;
}

bool Files::createFile(std::string_view path, std::string_view bytes, const FileAttributes& attributes) noexcept {
    if (_context.fails("files.createFile", std::string(path) + attributesText(attributes), nullptr)) {
        return false;
    }
    put(path, bytes);
    return true;
}

std::optional<FileInformation> Files::attributesOfItem(std::string_view path, ErrorPtr* error) noexcept {
    if (_context.fails("files.attributesOfItem", std::string(path), error)) {
        return std::nullopt;
    }
    const std::lock_guard lock(_mutex);
    const auto file = _files.find(path);
    if (file == _files.end()) {
        _missing(path, error);
        return std::nullopt;
    }
    return FileInformation{file->second.size()};
}

int Files::utimes(std::string_view path) noexcept {
    const ErrorPtr fault = _context.call("files.utimes", std::string(path));
    return fault != nullptr ? static_cast<int>(fault->code()) : exists(path) ? 0 : ENOENT;
}

std::string Files::errorText(int errorNumber) noexcept {
    return "errno " + std::to_string(errorNumber);
}

void Files::put(std::string_view path, std::string_view bytes) {
    const std::lock_guard lock(_mutex);
    _files[std::string(path)] = bytes;
    for (std::string folder = parentOf(path); folder != "/"; folder = parentOf(folder)) {
        _folders.insert(folder);
    }
}

void Files::putPlist(std::string_view path, const Value& value) {
    put(path, PropertyListCodec().dataWithPropertyList(value, PropertyListFormat::binary, nullptr).value().bytes());
}

void Files::putFolder(std::string_view path) {
    const std::lock_guard lock(_mutex);
    for (std::string folder(path); folder != "/"; folder = parentOf(folder)) {
        _folders.insert(folder);
    }
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
    return _exists(path);
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

bool Files::_missing(std::string_view path, ErrorPtr* error) const {
    if (_exists(path)) {
        return false;
    }
    if (error != nullptr) {
        *error = posix(ENOENT, path);
    }
    return true;
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
