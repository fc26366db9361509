#include "plugin/planning/Candidate.h"

#include "platform/ApplicationRegistry.h"
#include "plugin/client/Paths.h"

namespace appsync {

namespace {

std::optional<std::string> stringAt(const Dictionary& entry, std::string_view key) {
    const auto value = entry.string(key);
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

} // namespace

Dictionary candidate::fromToDoRecord(std::string_view identifier, const Dictionary& record) {
    const std::string folder = paths::join(paths::workArea, identifier);
    Dictionary entry;
    entry.set("BXBundleIdentifier", identifier);
    if (const auto version = record.string("version")) {
        entry.set("BXBundleVersion", *version);
    }
    entry.set("Path", folder);
    entry.set("Container", folder);
    if (const auto name = record.string("name")) {
        entry.set("NameFromTamblin", *name);
    }
    return entry;
}

Dictionary candidate::fromPlaceholder(PDApplicationProxy& placeholder) {
    const std::uint64_t installType = placeholder.installType();
    Dictionary entry;
    entry.set("BXBundleIdentifier", placeholder.bundleIdentifier());
    if (const auto version = placeholder.bundleVersion(); version && !version->empty()) {
        entry.set("BXBundleVersion", *version);
    }
    if (const auto url = placeholder.bundleURL()) {
        entry.set("Path", url->path());
    }
    if (const auto url = placeholder.bundleContainerURL()) {
        entry.set("Container", url->path());
    }
    entry.set("IsRestore", installType == PDInstallTypeRestore ? 1 : 0);
    entry.set("auto_demoted_app", installType == PDInstallTypeDowngrade ? 1 : 0);
    entry.set("intentional_demoted_app", installType == PDInstallTypeIntentionalDowngrade ? 1 : 0);
    entry.set("system_app", placeholder.applicationType() == "System");
    return entry;
}

Candidate::Candidate(const Dictionary& entry)
    : identifier(entry.string("BXBundleIdentifier").value_or("")), path(stringAt(entry, "Path")),
      container(stringAt(entry, "Container")), version(stringAt(entry, "BXBundleVersion")),
      nameFromTamblin(stringAt(entry, "NameFromTamblin")), isRestore(entry.truth("IsRestore")),
      autoDemoted(entry.truth("auto_demoted_app")), manualDemoted(entry.truth("intentional_demoted_app")),
      systemApp(entry.truth("system_app")) {}

} // namespace appsync
