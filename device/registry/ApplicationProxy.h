// One record of the registry as the platform's services present it.
#pragma once

#include "device/registry/RegistryTable.h"
#include "platform/ApplicationRegistry.h"

namespace appsync::device {

class ApplicationProxy final : public PDApplicationProxy {
  public:
    /// The table must outlive the proxy. `prefix` stands before the application identifier.
    ApplicationProxy(RegistryRecordPtr record, const RegistryTable& table, std::string_view prefix)
        : _record(std::move(record)), _table(table), _prefix(prefix) {}

    [[nodiscard]] std::string applicationIdentifier() noexcept override { return _prefix + _record->identifier; }
    [[nodiscard]] std::string bundleIdentifier() noexcept override { return _record->identifier; }
    [[nodiscard]] std::optional<std::string> bundleVersion() noexcept override { return _record->version; }
    [[nodiscard]] std::optional<FileURL> bundleURL() noexcept override;
    [[nodiscard]] std::optional<FileURL> bundleContainerURL() noexcept override;
    [[nodiscard]] std::uint64_t installType() noexcept override { return _record->installType; }
    [[nodiscard]] std::string applicationType() noexcept override { return _record->isSystem ? "System" : "User"; }
    [[nodiscard]] bool isInstalled() noexcept override { return !_record->isPlaceholder; }
    [[nodiscard]] bool isPlaceholder() noexcept override { return _record->isPlaceholder; }
    [[nodiscard]] PDApplicationState appState() noexcept override { return {isPlaceholder(), isInstalled()}; }
    [[nodiscard]] FNProgressPtr installProgressSync() noexcept override;
    [[nodiscard]] PDDiskUsage diskUsage() noexcept override { return {_record->bytes}; }
    [[nodiscard]] bool hasMIDBasedSINF() noexcept override { return _record->hasDeviceSinf; }
    [[nodiscard]] std::string description() noexcept override;

  private:
    const RegistryRecordPtr _record;
    const RegistryTable& _table;
    const std::string _prefix;
};

} // namespace appsync::device
