#include "device/root/Container.h"

#include "device/root/DeviceFileSystem.h"
#include "device/root/Paths.h"
#include "device/root/Tree.h"
#include "files/Syscalls.h"

#include <cassert>

namespace appsync::device {

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
        _files->removeItem(path(), nullptr); // what stays is cleared away when the device is next opened
    }
}

std::string Container::path() const {
    return std::string(_isInPlace ? containersFolder : stagingFolder) + "/" + _name;
}

Result<void> Container::writeFile(std::string_view name, const std::optional<Data>& content) {
    assert(!isKept());
    if (!content) {
        return {};
    }
    const std::string path = this->path() + "/" + std::string(name);
    int failed = beforeChange(_files->faultPoint(), "write", path);
    if (failed == 0) {
        const Descriptor file(::openat(_folder.get(), std::string(name).c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
        failed = file.isOpen() ? writeAll(file.get(), content->bytes()) : errno;
    }
    return failed == 0 ? ErrorPtr() : makePosixError(failed, "writing", path);
}

Result<void> Container::putInPlace() {
    assert(!isKept() && !_isInPlace);
    ErrorPtr error;
    _isInPlace = _files->moveItem(path(), std::string(containersFolder) + "/" + _name, &error);
    return error;
}

} // namespace appsync::device
