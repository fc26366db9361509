#include "host/apps/NewApp.h"

#include "archive/AppInArchive.h"
#include "device/archive/BundleWriter.h"
#include "device/root/Tree.h"
#include "files/Syscalls.h"
#include "host/plugin/PlugIn.h"
#include "platform/PropertyListSerialization.h"
#include "values/BundleIdentifier.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace appsync::host {

namespace {

constexpr const char* greetingPath = "Resources/greeting.txt";

std::string identifierOf(const std::string& name) {
    std::string identifier = "org.example." + name;
    std::ranges::transform(identifier, identifier.begin(),
                           [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
    return identifier;
}

std::string programOf(const std::string& name) {
    return "#!/bin/sh\n"
           "# " +
           name +
           ": the device runs this when the app is launched. HOME is the app's data folder.\n"
           "cp \"${0%/*}/" +
           greetingPath +
           "\" \"$HOME\"\n"
           "exec tail -f /dev/null # until the device ends it\n";
}

Result<void> writeFile(device::BundleWriter& writer, const std::string& path, const std::string& bytes,
                       bool isExecutable) {
    const auto file = writer.makeFile(path, isExecutable, bytes.size());
    return file ? writer.write(*file, bytes, path) : file.error();
}

Result<void> writeApp(int folder, const std::string& name, PropertyListSerialization& propertyLists) {
    const Dictionary info{{"BXBundleIdentifier", identifierOf(name)},
                          {"BXBundleVersion", "1.0"},
                          {"BXBundleExecutable", name},
                          {"BXBundleDisplayName", name}};
    ErrorPtr error;
    const auto list = propertyLists.dataWithPropertyList(info, PropertyListFormat::xml, &error);
    if (!list) {
        return error;
    }
    device::BundleWriter writer(folder, nullptr);
    auto written = writeFile(writer, std::string(infoFileName), std::string(list->bytes()), false);
    if (written) {
        written = writeFile(writer, name, programOf(name), true);
    }
    return written ? writeFile(writer, greetingPath, "Hello from " + name + ".\n", false) : written;
}

ErrorPtr cannotBeMade(const std::string& path, const std::string& reason) {
    return hostError("'" + path + "' cannot be made: " + reason + ".", path);
}

} // namespace

bool isAppName(const std::string& name) {
    return isBundleIdentifier(name) && isBundleIdentifier(identifierOf(name));
}

Result<std::string> makeNewApp(const std::string& folder, const std::string& name,
                               PropertyListSerialization& propertyLists) {
    const std::string app = name + std::string(bundleExtension);
    const std::string path = folder.empty() ? app : folder + (folder.ends_with('/') ? "" : "/") + app;
    const Descriptor parent(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.isOpen()) {
        return cannotBeMade(path, "'" + folder + "': " + systemText(errno));
    }
    if (::mkdirat(parent.get(), app.c_str(), 0777) != 0) {
        return cannotBeMade(path, errno == EEXIST ? "it is there already; name another app" : systemText(errno));
    }
    const Descriptor made(::openat(parent.get(), app.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const auto written =
        made.isOpen() ? writeApp(made.get(), name, propertyLists) : Result<void>(cannotBeMade(path, systemText(errno)));
    if (!written) {
        (void)device::removeTree(parent.get(), app, nullptr, path); // what stays is seen: its name is said
        return cannotBeMade(path, errorText(written.error()));
    }
    return path;
}

} // namespace appsync::host
