// Device policy, backup service, store client and low-level installation service in memory.
#pragma once

#include "platform/Backup.h"
#include "platform/DevicePolicy.h"
#include "platform/InstallationService.h"
#include "platform/Store.h"
#include "tests/inmemory/Context.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace appsync::inmemory {

class Policy final : public OLProfileConnectionClass {
  public:
    explicit Policy(Context& context) : _context(context) {}
    std::shared_ptr<OLProfileConnection> sharedConnection() noexcept override {
        return std::make_shared<Connection>(*this);
    }

    std::map<std::string, OLBoolValue, std::less<>> settings;

  private:
    struct Connection final : OLProfileConnection {
        explicit Connection(Policy& owner) : policy(owner) {}
        OLBoolValue effectiveBoolValueForSetting(std::string_view setting) noexcept override {
            policy._context.call("policy.effectiveBoolValueForSetting", std::string(setting));
            const auto found = policy.settings.find(setting);
            return found != policy.settings.end() ? found->second : OLBoolValue::unset;
        }
        Policy& policy;
    };
    Context& _context;
};

class BackupService final : public HVManagerClass {
  public:
    explicit BackupService(Context& context) : _context(context) {}
    std::shared_ptr<HVManager> init() noexcept override {
        _context.call("backup.init");
        return std::make_shared<Manager>(*this);
    }

    /// The sizes of the data that waits, by app.
    std::map<std::string, std::uint64_t, std::less<>> withRestoreData;

  private:
    struct Manager final : HVManager {
        explicit Manager(BackupService& owner) : service(owner) {}
        bool restoreDataExistsForApplicationWithBundleID_size(std::string_view bundleID,
                                                              std::uint64_t* size) noexcept override {
            service._context.call("backup.restoreDataExists", std::string(bundleID) + (!size ? ", no size" : ", size"));
            const std::lock_guard lock(service._mutex);
            const auto waiting = service.withRestoreData.find(bundleID);
            if (waiting != service.withRestoreData.end() && size) {
                *size = waiting->second;
            }
            return waiting != service.withRestoreData.end();
        }
        bool cancelApplicationRestoreWithBundleID_error(std::string_view bundleID, ErrorPtr* error) noexcept override {
            if (service._context.fails("backup.cancelApplicationRestore",
                                       std::string(bundleID) + (!error ? ", no error" : ", error"), error)) {
                return false;
            }
            const std::lock_guard lock(service._mutex);
            const auto waiting = service.withRestoreData.find(bundleID);
            if (waiting != service.withRestoreData.end()) {
                service.withRestoreData.erase(waiting);
                return true;
            }
            if (error) {
                *error = Error::make("BackupServiceInMemory", 1, {{errorDescriptionKey, "nothing waits"}});
            }
            return false;
        }
        BackupService& service;
    };
    Context& _context;
    std::mutex _mutex;
};

/// Completes a refresh at once, or when the test does.
class StoreClient final : public MWSoftwareLibraryClass {
  public:
    explicit StoreClient(Context& context) : _context(context) {}
    std::shared_ptr<MWSoftwareLibrary> init() noexcept override {
        _context.call("store.init");
        return std::make_shared<Library>(*this);
    }

    bool completesAtOnce = true;
    /// The completions of refreshes that the test is to call. Looked at after the journal has the refresh.
    std::vector<std::function<void(const ErrorPtr&)>> completions;

  private:
    struct Library final : MWSoftwareLibrary {
        explicit Library(StoreClient& owner) : client(owner) {}
        void refreshReceiptsWithCompletionBlock(std::function<void(const ErrorPtr&)> completion) noexcept override {
            if (client.completesAtOnce) {
                completion(client._context.call("store.refreshReceipts"));
                return;
            }
            client.completions.push_back(std::move(completion));
            client._context.call("store.refreshReceipts");
        }
        StoreClient& client;
    };
    Context& _context;
};

class LowLevelInstaller final : public TevrinInstallationService {
  public:
    explicit LowLevelInstaller(Context& context) : _context(context) {}
    std::optional<Dictionary> TevrinLookupUninstalled(const Dictionary* options) noexcept override {
        _context.call("tevrin.lookupUninstalled", !options ? "no options" : "options");
        const std::lock_guard lock(_mutex);
        return uninstalled;
    }
    int TevrinClearUninstalled(const Array& bundleIdentifiers, const Dictionary* options) noexcept override {
        const ErrorPtr fault = _context.call("tevrin.clearUninstalled", Value(bundleIdentifiers).description() +
                                                                            (!options ? ", no options" : ", options"));
        if (fault) {
            return static_cast<int>(fault->code());
        }
        const std::lock_guard lock(_mutex);
        for (const Value& identifier : bundleIdentifiers) {
            if (uninstalled && identifier.string()) {
                uninstalled->erase(*identifier.string());
            }
        }
        return 0;
    }

    /// Nothing: the service does not answer.
    std::optional<Dictionary> uninstalled = Dictionary{};

  private:
    Context& _context;
    std::mutex _mutex; // around `uninstalled` during calls
};

} // namespace appsync::inmemory
