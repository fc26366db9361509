#include "device/services/StoreClient.h"

#include "device/registry/Registry.h"
#include "device/root/DeviceFileSystem.h"
#include "platform/PropertyListSerialization.h"

#include <cerrno>

namespace appsync::device {

StoreClient::~StoreClient() {
    _underWay.wait();
}

void StoreClient::refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr&)> completion) noexcept {
    _underWay.enter();
    _thread.addOperation([this, completion = std::move(completion)] {
        completion(refreshReceipts().error());
        _underWay.leave();
    });
}

Result<void> StoreClient::refreshReceipts() {
    ErrorPtr firstError;
    if (!_files.createDirectory(receiptFolder, true, std::nullopt, &firstError)) {
        return firstError;
    }
    std::set<std::string> names;
    for (const Application& application : _registry.applications()) {
        if (!application.isInstalled) {
            continue;
        }
        Dictionary receipt{{"bundleIdentifier", application.identifier}};
        if (application.version) {
            receipt.set("bundleVersion", *application.version);
        }
        std::string name = application.identifier + ".plist";
        const auto written = _writeReceipt(std::string(receiptFolder) + "/" + name, receipt);
        firstError = firstError ? firstError : written.error();
        names.insert(std::move(name));
    }
    _removeOtherReceipts(names);
    return firstError;
}

/// Not written durably: a receipt that a loss of power has cut short differs, and is written again.
Result<void> StoreClient::_writeReceipt(const std::string& path, const Dictionary& receipt) {
    ErrorPtr error;
    const auto bytes = _propertyLists.dataWithPropertyList(receipt, PropertyListFormat::binary, &error);
    if (!bytes) {
        return error;
    }
    const auto present = _files.readFile(path, nullptr);
    if ((present && *present == *bytes) || _files.createFile(path, bytes->bytes(), {})) {
        return {};
    }
    return makePosixError(EIO, "write receipt", path);
}

void StoreClient::_removeOtherReceipts(const std::set<std::string>& names) {
    const auto receipts = _files.list(receiptFolder);
    if (!receipts) {
        return;
    }
    for (const std::string& receipt : *receipts) {
        if (!names.contains(receipt)) {
            _files.removeItem(std::string(receiptFolder) + "/" + receipt, nullptr);
        }
    }
}

} // namespace appsync::device
