#include "host/transfer/Transfer.h"

#include "desktop/ArchiveSource.h"
#include "device/root/DeviceFileSystem.h"
#include "files/Syscalls.h"
#include "host/transfer/Bandwidth.h"
#include "host/transfer/TransferQueue.h"
#include "platform/host/Places.h"
#include "timeline/Timeline.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <vector>

namespace appsync::host {

namespace {

constexpr std::size_t pieceSize = std::size_t{1} << 20;
const std::string publicStaging = std::string(paths::publicStaging) + "/";

ErrorPtr deviceError(int number, const std::string& path) {
    if (number == ENOSPC || number == EDQUOT) {
        return transferError(TransferError::noSpace, "The device is full: there is no room for '" + path +
                                                         "'. Remove something from it and sync again.");
    }
    return transferError(TransferError::deviceFailed,
                         "The device cannot take '" + path + "': " + systemText(number) + ".");
}

/// Appends to the destination what of the source has not arrived yet.
Result<void> copyPieces(desktop::ArchiveSource& source, int destination, const std::string& path,
                        const TransferRequest& request, Timeline* timeline) {
    const off_t arrived = ::lseek(destination, 0, SEEK_END);
    if (arrived < 0) {
        return deviceError(errno, path);
    }
    auto sent = static_cast<std::uint64_t>(arrived);
    if (const auto skipped = source.skip(sent); !skipped) {
        return transferError(TransferError::sourceFailed, errorText(skipped.error()));
    }
    const std::size_t piece = request.bandwidth ? request.bandwidth->pieceSize(pieceSize) : pieceSize;
    std::vector<char> buffer(std::min<std::uint64_t>(piece, source.size() + 1)); // one more: the end shows at once
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
        Timeline::add(timeline, Counter::bytesSent, *length);
        if (request.bandwidth) {
            request.bandwidth->sent(*length);
        }
        request.progress(static_cast<double>(sent) / static_cast<double>(source.size()));
    }
}

/// What has arrived becomes durable before it gets the name that a later transfer believes.
void keepBegun(device::DeviceFileSystem& files, int destination, const std::string& path, const std::string& begun) {
    Timeline::add(files.timeline(), Counter::syncs);
    if (::fsync(destination) != 0 || !files.moveItem(path, begun, nullptr)) {
        files.removeItem(path, nullptr); // the transfer begins anew
    }
}

} // namespace

std::string receivedFolder() {
    return publicStaging + std::string(receivedFolderName);
}

std::string receivedPath(const std::string& identifier) {
    return std::string(receivedFolderName) + "/" + identifier + ".archive";
}

std::string begunName(const desktop::AppArchive& app) {
    std::array<char, 128> state{};
    std::snprintf(state.data(), state.size(), "%" PRIx64 "-%" PRIx64 "-%" PRIx64 "-%" PRIx64 ".%" PRIx64,
                  app.stamp.device, app.stamp.inode, app.stamp.size, static_cast<std::uint64_t>(app.stamp.seconds),
                  static_cast<std::uint64_t>(app.stamp.nanoseconds));
    return app.identifier + "." + state.data() + ".begun";
}

Result<void> transfer(device::DeviceFileSystem& files, const TransferRequest& request) {
    return copyToDevice(files, request, publicStaging + receivedPath(request.app.identifier));
}

Result<void> copyToDevice(device::DeviceFileSystem& files, const TransferRequest& request, const std::string& path) {
    const Span span(files.timeline(), "transfer", request.app.identifier);
    ErrorPtr error;
    auto source = desktop::ArchiveSource::open(request.app);
    if (!source) {
        return transferError(TransferError::sourceFailed, errorText(source.error()));
    }
    const std::string folder = path.substr(0, path.rfind('/'));
    const std::string unfinished = path + ".part";
    const std::string begun = folder + "/" + begunName(request.app);
    if (!files.createDirectory(folder, true, std::nullopt, &error)) {
        return transferError(TransferError::deviceFailed, errorText(error));
    }
    const bool goesOn = files.moveItem(begun, unfinished, nullptr);
    {
        const auto destination = files.open(unfinished, O_WRONLY | O_CREAT | (goesOn ? 0 : O_TRUNC));
        if (!destination) {
            return transferError(TransferError::deviceFailed, errorText(destination.error()));
        }
        error = copyPieces(*source, destination->get(), unfinished, request, files.timeline()).error();
        if (isError(error, hostTransferErrorDomain, TransferError::interrupted)) {
            keepBegun(files, destination->get(), unfinished, begun);
            return error;
        }
    }
    if (!error) {
        files.removeItem(path, nullptr);
        files.moveItem(unfinished, path, &error);
    }
    if (error) {
        files.removeItem(unfinished, nullptr);
    }
    return error;
}

} // namespace appsync::host
