#include "device/registry/Container.h"

#include "device/root/DeviceFileSystem.h"
#include "device/root/FaultPoint.h"
#include "device/root/PosixError.h"
#include "files/Syscalls.h"

#include <sys/random.h>

#include <array>

namespace appsync::device {

std::string makeUniqueName() {
    std::array<unsigned char, 16> bytes{};
    while (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40); // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    std::string text;
    for (std::size_t place = 0; place < bytes.size(); ++place) {
        if (place == 4 || place == 6 || place == 8 || place == 10) {
            text += '-';
        }
        text += "0123456789ABCDEF"[bytes[place] >> 4];
        text += "0123456789ABCDEF"[bytes[place] & 15];
    }
    return text;
}

Result<Container> Container::make(DeviceFileSystem& files) {
    Container container(files, makeUniqueName());
    ErrorPtr error;
    if (!files.createDirectory(container.path(), false, std::nullopt, &error)) {
        container.keep();
        return error;
    }
    auto folder = files.open(container.path(), O_PATH | O_DIRECTORY | O_NOFOLLOW);
    if (!folder) {
        return folder.error();
    }
    container._folder = std::move(*folder);
    return container;
}

Container::Container(Container&& other) noexcept
    : _files(std::exchange(other._files, nullptr)), _name(std::move(other._name)), _folder(std::move(other._folder)),
      _isInPlace(other._isInPlace) {}

Container::~Container() {
    if (_files) {
        _files->removeItem(path(), nullptr);
    }
}

std::string Container::path() const {
    return std::string(_isInPlace ? containersFolder : stagingFolder) + "/" + _name;
}

Result<void> Container::writeFile(std::string_view name, std::string_view content) {
    const std::string path = this->path() + "/" + std::string(name);
    int failed = beforeChange(_files->faultPoint(), "write", path);
    if (failed == 0) {
        const Descriptor file(::openat(_folder.get(), std::string(name).c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
        failed = file.isOpen() ? writeAll(file.get(), content) : errno;
    }
    return failed == 0 ? ErrorPtr() : makePosixError(failed, "writing", path);
}

Result<void> Container::putInPlace() {
    ErrorPtr error;
    const std::string target = std::string(containersFolder) + "/" + _name;
    if (!_files->moveItem(path(), target, &error)) {
        return error;
    }
    _isInPlace = true;
    return {};
}

} // namespace appsync::device
