#include "host/transfer/Transfer.h"

#include "desktop/ArchiveSource.h"
#include "device/root/DeviceFileSystem.h"
#include "files/Syscalls.h"
#include "host/transfer/Bandwidth.h"
#include "host/transfer/TransferQueue.h"

#include <cerrno>
#include <vector>

namespace appsync::host {

namespace {

constexpr std::size_t pieceSize = std::size_t{1} << 20;
const std::string publicStaging = "/var/mobile/Media/PublicStaging/";

ErrorPtr deviceError(int number, const std::string& path) {
    if (number == ENOSPC || number == EDQUOT) {
        return transferError(TransferError::noSpace, "The device is full: there is no room for '" + path +
                                                         "'. Remove something from it and sync again.");
    }
    return transferError(TransferError::deviceFailed,
                         "The device cannot take '" + path + "': " + systemText(number) + ".");
}

Result<void> copyPieces(desktop::ArchiveSource& source, int destination, const std::string& path,
                        const TransferRequest& request) {
    std::vector<char> buffer(request.bandwidth != nullptr ? request.bandwidth->pieceSize(pieceSize) : pieceSize);
    std::uint64_t sent = 0;
    for (;;) {
        if (const auto goesOn = request.mayGoOn(); !goesOn) {
            return goesOn;
        }
        const auto length = source.read(buffer);
        if (!length) {
            return transferError(TransferError::sourceFailed, errorText(length.error()));
        }
        if (*length == 0) {
            return {};
        }
        if (const int failed = writeAll(destination, {buffer.data(), *length})) {
            return deviceError(failed, path);
        }
        sent += *length;
        if (request.bandwidth != nullptr) {
            request.bandwidth->sent(*length);
        }
        request.progress(static_cast<double>(sent) / static_cast<double>(source.size()));
    }
}

} // namespace

std::string receivedFolder() {
    return publicStaging + std::string(receivedFolderName);
}

std::string receivedPath(const std::string& identifier) {
    return std::string(receivedFolderName) + "/" + identifier + ".archive";
}

Result<void> transfer(device::DeviceFileSystem& files, const TransferRequest& request) {
    return copyToDevice(files, request, publicStaging + receivedPath(request.app.identifier));
}

Result<void> copyToDevice(device::DeviceFileSystem& files, const TransferRequest& request, const std::string& path) {
    ErrorPtr error;
    auto source = desktop::ArchiveSource::open(request.app);
    if (!source) {
        return transferError(TransferError::sourceFailed, errorText(source.error()));
    }
    const std::string unfinished = path + ".part";
    if (!files.createDirectory(path.substr(0, path.rfind('/')), true, std::nullopt, &error)) {
        return transferError(TransferError::deviceFailed, errorText(error));
    }
    {
        const auto destination = files.open(unfinished, O_WRONLY | O_CREAT | O_TRUNC);
        if (!destination) {
            return transferError(TransferError::deviceFailed, errorText(destination.error()));
        }
        error = copyPieces(*source, destination->get(), unfinished, request).error();
    }
    if (error == nullptr) {
        files.removeItem(path, nullptr);
        files.moveItem(unfinished, path, &error);
    }
    if (error != nullptr) {
        files.removeItem(unfinished, nullptr);
    }
    return error;
}

} // namespace appsync::host
