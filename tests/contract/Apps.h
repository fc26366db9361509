// Apps and placeholders as the rules bring them to the device, through the registry.
#pragma once

#include "platform/ApplicationRegistry.h"
#include "platform/FileSystem.h"
#include "platform/Process.h"
#include "platform/PropertyListSerialization.h"
#include "tests/contract/Rules.h"

#include <algorithm>

namespace appsync::contract {

inline const std::string A = "com.example.a";
inline const std::string B = "com.example.b";
inline const std::string C = "com.example.c";

/// Short ways to the registry.
class Apps {
  public:
    Apps(DeviceUnderTest& device, const Platform& platform) : _device(device), _platform(platform) {}

    [[nodiscard]] PDApplicationWorkspace& workspace() const { return _platform.workspaces.defaultWorkspace(); }
    [[nodiscard]] Answer<PDApplicationProxy> app(const std::string& identifier) const {
        return {_platform.applicationProxies.applicationProxyForIdentifier_placeholder(identifier, false),
                "the proxy of the installed app " + identifier};
    }
    [[nodiscard]] Answer<PDApplicationProxy> appOrPlaceholder(const std::string& identifier) const {
        return {_platform.applicationProxies.applicationProxyForIdentifier_placeholder(identifier, true),
                "the proxy of the app or placeholder " + identifier};
    }

    static Dictionary customer(std::string_view identifier) {
        return {{PDPackageTypeKey, PDPackageTypeCustomer}, {PDBundleIdentifierKey, identifier}};
    }
    bool install(const std::string& identifier, const std::string& version = "1.0", ErrorPtr* error = nullptr) const {
        const FileURL archive = _device.putArchive({identifier, version});
        return workspace().installApplication_withOptions_error(archive, customer(identifier), error);
    }

    /// A placeholder bundle in the temporary folder, as the client makes it.
    [[nodiscard]] FileURL putPlaceholderBundle(const std::string& identifier,
                                               const std::string& version = "0.9") const {
        const std::string folder = _platform.process.temporaryDirectory() + "/bundles/" + identifier + ".app";
        EXPECT_TRUE(_platform.files.createDirectory(folder, true, std::nullopt, nullptr));
        const auto info = _platform.propertyLists.dataWithPropertyList(
            Dictionary{{"BXBundleIdentifier", identifier}, {"BXBundleVersion", version}}, PropertyListFormat::xml,
            nullptr);
        EXPECT_TRUE(info && _platform.files.createFile(folder + "/Info.plist", info->bytes(), {}));
        return folderAt(folder);
    }
    static Dictionary placeholder(std::string_view identifier, std::uint64_t installType) {
        return {{PDPackageTypeKey, PDPackageTypePlaceholder},
                {PDBundleIdentifierKey, identifier},
                {PDInstallTypeKey, installType}};
    }
    bool installPlaceholder(const std::string& identifier, std::uint64_t installType = PDInstallTypeSync) const {
        return workspace().installApplication_withOptions(putPlaceholderBundle(identifier),
                                                          placeholder(identifier, installType));
    }
    /// The progress object of a placeholder's install.
    [[nodiscard]] Answer<FNProgress> progress(const std::string& identifier) const {
        return {
            workspace().installProgressForApplication_withPhase(appOrPlaceholder(identifier), PDInstallPhaseLoading),
            "the progress object of " + identifier};
    }

    /// What an enumeration visits, sorted: the identifier of an app, with "?" that of a placeholder.
    [[nodiscard]] std::vector<std::string> visited(std::uint64_t type) const {
        std::vector<std::string> found;
        workspace().enumerateBundlesOfType_block(type, [&](const PDApplicationProxyPtr& proxy, bool&) {
            found.push_back(proxy->bundleIdentifier() + (proxy->isPlaceholder() ? "?" : ""));
        });
        std::ranges::sort(found);
        return found;
    }

  private:
    DeviceUnderTest& _device;
    const Platform& _platform;
};

} // namespace appsync::contract
