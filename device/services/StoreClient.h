// The store client: keeps a receipt for every installed app.
#pragma once

#include "concurrency/Group.h"
#include "concurrency/OperationQueue.h"
#include "platform/Store.h"
#include "values/Result.h"

#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace appsync {
class PropertyListSerialization;
}

namespace appsync::device {

class DeviceFileSystem;
class Registry;

/// One file per app, "<bundle identifier>.plist", a binary property list with "bundleIdentifier" and, if the app has
/// one, "bundleVersion".
inline constexpr std::string_view receiptFolder = "/var/mobile/Library/StoreReceipts";

/// Any thread.
class StoreClient final : public MWSoftwareLibraryClass, public MWSoftwareLibrary {
  public:
    /// All three must outlive the client, and the client what `init` returns.
    StoreClient(DeviceFileSystem& files, Registry& registry, PropertyListSerialization& propertyLists)
        : _files(files), _registry(registry), _propertyLists(propertyLists) {}
    /// Waits for the refreshes that have been asked for.
    ~StoreClient() override;

    /// Its refreshes run one after another on the client's thread; on the caller's where the system has none for it.
    [[nodiscard]] std::shared_ptr<MWSoftwareLibrary> init() noexcept override {
        return {std::shared_ptr<void>(), this};
    }
    void refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr& error)> completion) noexcept override;

    /// Writes the receipts that are missing or of another version, and removes those of apps that are gone. One receipt
    /// that cannot be written does not keep the others from it; the first failure is the result.
    [[nodiscard]] Result<void> refreshReceipts();

  private:
    [[nodiscard]] Result<void> _writeReceipt(const std::string& path, const Dictionary& receipt);
    void _removeOtherReceipts(const std::set<std::string>& names);

    DeviceFileSystem& _files;
    Registry& _registry;
    PropertyListSerialization& _propertyLists;
    Group _underWay;
    OperationQueue _thread{1};
};

} // namespace appsync::device
