#include "plugin/placeholders/PlaceholderBundle.h"

#include "platform/ApplicationRegistry.h"
#include "platform/Platform.h"
#include "platform/TransactionLog.h"
#include "plugin/client/Paths.h"
#include "plugin/client/PropertyListFile.h"
#include "plugin/log/Log.h"

namespace appsync::placeholderBundle {

bool writeInfo(const Platform& platform, std::string_view bundlePath, const Dictionary& info) {
    Dictionary present;
    present.reserve(info.size());
    for (const auto& [key, value] : info) {
        if (!value.isNull()) {
            present.set(key, value);
        }
    }
    return writePropertyList(platform, present, PropertyListFormat::xml, paths::join(bundlePath, "Info.plist"));
}

bool install(const Platform& platform, const PlugInLog& log, std::string_view bundlePath, const Dictionary& info,
             const Dictionary& options) {
    const auto url = FileURL::fileURLWithPath(bundlePath, true);
    const bool installed = url && platform.workspaces.defaultWorkspace().installApplication_withOptions(*url, options);
    if (installed) {
        log.message("Installed Placeholder app from path %{public}@: %{public}@ [%{public}@ %{public}@] [isWendral: "
                    "%{public}@]",
                    bundlePath, info.find("BXBundleDisplayName"), info.find("BXBundleIdentifier"),
                    info.find("BXBundleVersion"), info.find("UIWendralApp"));
    } else {
        log.error("Placeholder app install failed from path %{public}@: %{public}@ [%{public}@ %{public}@] "
                  "[isWendral: %{public}@]",
                  bundlePath, info.find("BXBundleDisplayName"), info.find("BXBundleIdentifier"),
                  info.find("BXBundleVersion"), info.find("UIWendralApp"));
    }
    return installed;
}

void logAppRestore(const Platform& platform, bool success, std::string_view bundleIdentifier,
                   std::string_view description) {
    platform.transactionLog.logScenario_step_success_forBundleID_description(
        "Tamblin App Restore", TransactionStep::none, success, bundleIdentifier, description);
}

} // namespace appsync::placeholderBundle
