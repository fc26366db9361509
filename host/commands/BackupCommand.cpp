// `qrd backup`: what a desktop keeps of a device, to bring it back on another one.
#include "device/Device.h"
#include "device/archive/Extraction.h"
#include "device/coordinator/InstallCoordinator.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "host/Commands.h"
#include "host/OpenDevice.h"
#include "host/backup/BackupFolder.h"
#include "host/backup/CopyTree.h"
#include "host/plugin/ClientOnDevice.h"
#include "host/view/Print.h"
#include "host/view/SyncReport.h"
#include "platform/PropertyListSerialization.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace appsync::host {

namespace {

namespace fs = std::filesystem;

ErrorPtr writeError(const std::string& path, int number) {
    return hostError("'" + path + "' cannot be written: " + std::strerror(number) + ".", path);
}

/// A folder under another name until it is whole; removed again unless it is kept.
class UnfinishedFolder {
  public:
    explicit UnfinishedFolder(const std::string& final) : _final(fs::path(final).lexically_normal()) {
        if (!_final.has_filename()) {
            _final = _final.parent_path(); // it was written with a slash at its end
        }
        std::string pattern =
            (_final.parent_path() / ("." + _final.filename().string() + ".unfinished-XXXXXX")).string();
        if (::mkdtemp(pattern.data()) != nullptr) {
            _path = pattern;
        } else {
            _error = errno;
        }
    }
    ~UnfinishedFolder() {
        if (!_path.empty()) {
            std::error_code ignored;
            fs::remove_all(_path, ignored);
        }
    }
    UnfinishedFolder(const UnfinishedFolder&) = delete;
    UnfinishedFolder& operator=(const UnfinishedFolder&) = delete;

    [[nodiscard]] const std::string& path() const noexcept { return _path; }
    [[nodiscard]] ErrorPtr error() const { return _path.empty() ? writeError(_final.string(), _error) : nullptr; }
    [[nodiscard]] ErrorPtr keep() {
        const device::Descriptor folder(::open(_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!folder.isOpen() || ::syncfs(folder.get()) != 0 ||
            ::renameat2(AT_FDCWD, _path.c_str(), AT_FDCWD, _final.c_str(), RENAME_NOREPLACE) != 0) {
            return writeError(_final.string(), errno);
        }
        _path.clear();
        return nullptr;
    }

  private:
    fs::path _final;
    std::string _path; // empty when there is none
    int _error = 0;
};

class BackupWriter {
  public:
    BackupWriter(device::Device& device, const std::string& folder) : _device(device), _folder(folder) {}

    ErrorPtr write() {
        const std::string data = _folder + "/" + std::string(BackupDataName);
        if (::mkdir(data.c_str(), 0755) != 0) {
            return writeError(data, errno);
        }
        Dictionary info;
        for (const device::Application& app : _device.registry().applications()) {
            if (!_belongsToPerson(app)) {
                continue;
            }
            info.set(app.identifier, _entryOf(app));
            ++_count;
            if (ErrorPtr error = _copyData(app, data + "/" + app.identifier)) {
                return error;
            }
        }
        for (const auto& [name, list] : {std::pair<std::string_view, Value>{RestoreInfoName, std::move(info)},
                                         {DemotedAppsName, _device.demotedApps().lists().propertyList()},
                                         {IconStateName, _device.homeScreen().layout().propertyList()}}) {
            if (ErrorPtr error = _put(name, list)) {
                return error;
            }
        }
        return nullptr;
    }
    [[nodiscard]] std::size_t count() const noexcept { return _count; }

  private:
    static bool _belongsToPerson(const device::Application& app) {
        const bool isKept = app.installType == PDInstallTypeRestore || app.installType == PDInstallTypeDowngrade ||
                            app.installType == PDInstallTypeIntentionalDowngrade;
        return !app.isSystem && (app.isInstalled || isKept);
    }

    Dictionary _entryOf(const device::Application& app) {
        const std::string container = app.containerPath + "/";
        Dictionary entry{{"TamblinMetadata", _metadataOf(app)}};
        if (auto sinf = _device.files().readFile(container + std::string(device::sinfFileName), nullptr)) {
            entry.set("ApplicationSINF", std::move(*sinf));
        }
        for (const std::string& path : {app.iconPath.value_or(""), container + std::string(device::artworkFileName)}) {
            auto icon = path.empty() ? std::nullopt : _device.files().readFile(path, nullptr);
            if (icon && isPNG(icon->bytes())) {
                entry.set("PlaceholderIcon", std::move(*icon));
                break;
            }
        }
        return entry;
    }

    /// The app's store metadata with the name and version under which the device knows it, where it has none.
    Data _metadataOf(const device::Application& app) {
        const auto bytes =
            _device.files().readFile(app.containerPath + "/" + std::string(device::metadataFileName), nullptr);
        auto list = bytes ? _device.propertyLists().propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
        Dictionary metadata = list && list->dictionary() != nullptr ? *list->dictionary() : Dictionary{};
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

    ErrorPtr _copyData(const device::Application& app, const std::string& target) {
        const std::string source = _device.backup().restoreDataFolder(app.identifier).value_or(app.dataContainerPath);
        auto from = _device.files().open(source, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        if (!from) {
            return device::isError(from.error(), PosixErrorDomain, ENOENT) ? nullptr : from.error();
        }
        if (::mkdir(target.c_str(), 0755) != 0) {
            return writeError(target, errno);
        }
        device::Descriptor to(::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        return to.isOpen() ? copyTree(std::move(*from), std::move(to), source) : writeError(target, errno);
    }

    ErrorPtr _put(std::string_view name, const Value& list) {
        const std::string path = _folder + "/" + std::string(name);
        ErrorPtr error;
        const auto bytes = _device.propertyLists().dataWithPropertyList(list, PropertyListFormat::binary, &error);
        if (!bytes) {
            return error;
        }
        std::ofstream file(path, std::ios::binary);
        file.write(bytes->bytes().data(), static_cast<std::streamsize>(bytes->bytes().size()));
        file.close();
        return file ? nullptr : writeError(path, errno);
    }

    device::Device& _device;
    const std::string _folder;
    std::size_t _count = 0;
};

ErrorPtr prepare(device::Device& device, const std::string& plugInPath) {
    ErrorPtr error;
    const auto plugIn = ClientOnDevice::start(device, plugInPath, &error);
    if (plugIn != nullptr) {
        plugIn->client().prepareForBackup();
    }
    return error;
}

} // namespace

ExitCode backup(const BackupArguments& arguments) {
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(arguments.output, ignored))) {
        return fail("'" + arguments.output + "' exists already; name a folder that does not exist yet.",
                    ExitCode::wrongUse);
    }
    ExitCode code = ExitCode::failed;
    const auto device = openDevice(arguments.device, &code);
    if (device == nullptr) {
        return code;
    }
    device->coordinator().waitUntilIdle();
    if (const ErrorPtr error = prepare(*device, arguments.plugin)) {
        return fail(reasonOf(error));
    }
    UnfinishedFolder folder(arguments.output);
    if (const ErrorPtr error = folder.error()) {
        return fail(reasonOf(error));
    }
    BackupWriter writer(*device, folder.path());
    if (const ErrorPtr error = writer.write()) {
        return fail(reasonOf(error));
    }
    if (const ErrorPtr error = folder.keep()) {
        return fail(reasonOf(error));
    }
    printLine(std::cout, "backed up " + std::to_string(writer.count()) + (writer.count() == 1 ? " app" : " apps") +
                             " to " + arguments.output);
    return ExitCode::done;
}

} // namespace appsync::host
