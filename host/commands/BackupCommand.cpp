// `qrd backup`: what a desktop keeps of a device, to bring it back on another one.
#include "archive/AppInArchive.h"
#include "device/Device.h"
#include "device/archive/Extraction.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/root/Tree.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "files/Syscalls.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/backup/BackupFolder.h"
#include "host/backup/CopyTree.h"
#include "host/backup/UnfinishedFolder.h"
#include "host/control/Interrupt.h"
#include "host/plugin/ClientOnDevice.h"
#include "host/plugin/PlugIn.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "host/view/Table.h"
#include "platform/PropertyListSerialization.h"
#include "values/BundleIdentifier.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <iostream>

namespace appsync::host {

namespace {

struct FailedApp {
    device::Application app;
    std::string reason;
};

class BackupWriter {
  public:
    BackupWriter(device::Device& device, int folder, std::string path)
        : _device(device), _folder(folder), _path(std::move(path)) {}

    /// Writes every app that can be read; `failed` has the others.
    Result<void> write() {
        const std::string data(backupDataName);
        if (::mkdirat(_folder, data.c_str(), 0755) != 0) {
            return writeError(_path + "/" + data, errno);
        }
        _data = Descriptor(::openat(_folder, data.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        Dictionary info;
        for (const device::Application& app : _device.registry().applications()) {
            if (Interrupt::requested()) {
                return {};
            }
            if (!_belongsToPerson(app)) {
                continue;
            }
            if (const auto written = _writeApp(app, info); !written) {
                _failed.push_back({app, reasonOf(written.error())});
            } else {
                ++_count;
            }
        }
        for (const auto& [name, list] : {std::pair<std::string_view, Value>{restoreInfoName, std::move(info)},
                                         {demotedAppsName, _device.demotedApps().lists().propertyList()},
                                         {iconStateName, _device.homeScreen().layout().propertyList()}}) {
            if (const auto written = _put(name, list); !written) {
                return written;
            }
        }
        return {};
    }
    [[nodiscard]] const std::vector<FailedApp>& failed() const noexcept { return _failed; }
    [[nodiscard]] std::size_t count() const noexcept { return _count; }

  private:
    /// Not what a sync has only begun to bring, unless it brings a demoted app back.
    [[nodiscard]] bool _belongsToPerson(const device::Application& app) const {
        const bool isKept = app.installType == PDInstallTypeRestore || app.isDemoted() ||
                            _device.demotedApps().installTypeOf(app.identifier);
        return !app.isSystem && (app.isInstalled || isKept);
    }

    Result<void> _writeApp(const device::Application& app, Dictionary& info) {
        if (!isBundleIdentifier(app.identifier)) {
            return hostError("It is no bundle identifier.");
        }
        auto entry = _entryOf(app);
        if (!entry) {
            return entry.error();
        }
        if (auto copied = _copyData(app); !copied) {
            (void)device::removeTree(_data.get(), app.identifier, nullptr, app.identifier); // a part of it helps nobody
            return copied;
        }
        info.set(app.identifier, std::move(*entry));
        return {};
    }

    Result<Dictionary> _entryOf(const device::Application& app) {
        const std::string container = app.containerPath + "/";
        auto metadata = _metadataOf(app);
        if (!metadata) {
            return metadata.error();
        }
        Dictionary entry{{"TamblinMetadata", std::move(*metadata)}};
        auto sinf = _device.files().readIfThere(container + std::string(device::sinfFileName));
        if (!sinf) {
            return sinf.error();
        }
        if (*sinf) {
            entry.set("ApplicationSINF", std::move(**sinf));
        }
        for (const std::string& path : {app.iconPath.value_or(""), container + std::string(device::artworkFileName)}) {
            auto icon = path.empty() ? std::nullopt : _device.files().readFile(path, nullptr); // no app fails for it
            if (icon && isPNG(icon->bytes())) {
                entry.set("PlaceholderIcon", std::move(*icon));
                break;
            }
        }
        return entry;
    }

    /// The app's store metadata with the name and version under which the device knows it, where it has none.
    Result<Data> _metadataOf(const device::Application& app) {
        const auto bytes = _device.files().readIfThere(app.containerPath + "/" + std::string(device::metadataFileName));
        if (!bytes) {
            return bytes.error();
        }
        const auto list =
            *bytes ? _device.propertyLists().propertyListWithData((*bytes)->bytes(), nullptr) : std::nullopt;
        Dictionary metadata = list && list->dictionary() ? *list->dictionary() : Dictionary{};
        if (!metadata.contains("title")) {
            metadata.set("title", app.name);
        }
        if (!metadata.contains("bundleVersion") && app.version) {
            metadata.set("bundleVersion", *app.version);
        }
        return _device.propertyLists()
            .dataWithPropertyList(std::move(metadata), PropertyListFormat::binary, nullptr)
            .value_or(Data());
    }

    Result<void> _copyData(const device::Application& app) {
        const auto waiting = _device.backup().restoreDataFolder(app.identifier);
        if (!waiting) {
            return waiting.error();
        }
        const std::string source = waiting->value_or(app.dataContainerPath);
        auto from = _device.files().open(source, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (!from) {
            return isError(from.error(), posixErrorDomain, ENOENT) ? Result<void>() : from.error();
        }
        const std::string target = _path + "/" + std::string(backupDataName) + "/" + app.identifier;
        const char* name = app.identifier.c_str();
        if (::mkdirat(_data.get(), name, 0755) != 0) {
            return writeError(target, errno);
        }
        Descriptor to(::openat(_data.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!to.isOpen()) {
            return writeError(target, errno);
        }
        return copyTree(std::move(*from), std::move(to), source, Interrupt::requested);
    }

    Result<void> _put(std::string_view name, const Value& list) {
        ErrorPtr error;
        const auto bytes = _device.propertyLists().dataWithPropertyList(list, PropertyListFormat::binary, &error);
        if (!bytes) {
            return error;
        }
        const Descriptor file(
            ::openat(_folder, std::string(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (const int failed = file.isOpen() ? writeAll(file.get(), bytes->bytes()) : errno) {
            return writeError(_path + "/" + std::string(name), failed);
        }
        return {};
    }

    device::Device& _device;
    const int _folder;       // what is made, open
    const std::string _path; // where it will stand, for messages
    Descriptor _data;
    std::size_t _count = 0;
    std::vector<FailedApp> _failed;
};

void show(const BackupWriter& writer, const std::string& output) {
    const std::size_t all = writer.count() + writer.failed().size();
    if (!writer.failed().empty()) {
        Table table({"App", "Version", "Result", "Reason"});
        for (const FailedApp& failed : writer.failed()) {
            table.add({failed.app.name, failed.app.version.value_or("-"), "failed", failed.reason});
        }
        table.print(std::cout);
    }
    printLine(std::cout, "backed up " + (writer.failed().empty() ? "" : std::to_string(writer.count()) + " of ") +
                             appCountText(all) + " to " + output);
}

Result<void> prepare(device::Device& device, const std::string& plugInPath) {
    const auto plugIn = ClientOnDevice::start(device, plugInPath);
    if (!plugIn) {
        return plugIn.error();
    }
    (*plugIn)->client().prepareForBackup();
    return {};
}

} // namespace

ExitCode backup(const BackupArguments& arguments) {
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::symlink_status(arguments.output, ignored))) {
        return fail("'" + arguments.output + "' exists already; name a folder that does not exist yet.",
                    ExitCode::wrongUse);
    }
    const auto opened = openDevice(arguments.device, "a backup");
    if (!opened) {
        return fail(opened.error());
    }
    device::Device& device = **opened;
    device.coordinator().waitUntilIdle();
    if (const auto prepared = prepare(device, arguments.plugin); !prepared) {
        return fail(reasonOf(prepared.error()));
    }
    const Interrupt interrupt;
    const auto folder = UnfinishedFolder::begin(arguments.output);
    if (!folder) {
        return fail(reasonOf(folder.error()));
    }
    BackupWriter writer(device, (*folder)->folder(), arguments.output);
    auto written = writer.write();
    if (Interrupt::requested()) {
        return fail("interrupted; there is no backup", Interrupt::exitCode());
    }
    if (written) {
        written = (*folder)->keep();
    }
    if (!written) {
        return fail(reasonOf(written.error()));
    }
    show(writer, arguments.output);
    return writer.failed().empty() ? ExitCode::done : ExitCode::someAppFailed;
}

} // namespace appsync::host
