#include "host/apps/AppCheck.h"

#include "archive/AppInArchive.h"
#include "device/drawing/CairoImage.h"
#include "device/root/DeviceFileSystem.h"
#include "device/screen/AppBundles.h"
#include "host/OpenDevice.h"
#include "platform/PropertyListSerialization.h"
#include "text/Printable.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace appsync::host {

namespace {

/// Looks at the folder with what the device looks at an app with: for that it is the root of the file system.
class AppCheck {
  public:
    AppCheck(const std::string& app, PropertyListSerialization& propertyLists)
        : _app(app), _propertyLists(propertyLists),
          _files(Descriptor(::open(app.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), nullptr),
          _bundle(std::make_shared<device::AppBundle>(_files, propertyLists, "")) {}

    std::vector<std::string> run() {
        if (_isReadable()) {
            _checkVersion();
            _checkExecutable();
            _checkIcon();
        }
        return std::move(_problems);
    }

  private:
    [[nodiscard]] bool _isReadable() {
        const auto bytes = _files.readFile(_pathOf(infoFileName), nullptr);
        const auto list = bytes ? _propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
        return list && list->dictionary();
    }

    void _checkVersion() {
        constexpr std::size_t maxCharacters = 100;
        const auto version = _text("BXBundleVersion", "it tells one version of the app from the next, such as 1.0");
        if (version && (version->empty() || version->find(' ') != std::string::npos ||
                        printable(*version, maxCharacters) != *version)) {
            _add("BXBundleVersion \"" + printable(*version) + "\" is no version: it must have 1 to " +
                 std::to_string(maxCharacters) + " printable characters and no blank");
        }
    }

    void _checkExecutable() {
        const auto named = _text("BXBundleExecutable", "without it the app cannot be launched");
        const auto name = _bundle->executableName();
        if (named && !name) {
            _add("BXBundleExecutable \"" + printable(*named) + "\" names no file in the folder");
        }
        if (!name) {
            return;
        }
        struct stat found {};
        const auto file = _files.open(_pathOf(*name), O_PATH | O_CLOEXEC);
        const bool isThere = file && ::fstat(file->get(), &found) == 0;
        const std::string names = "BXBundleExecutable names \"" + printable(*name) + "\", which is ";
        if (!isThere) {
            _add(names + "missing");
        } else if (!S_ISREG(found.st_mode)) {
            _add(names + "no file");
        } else if ((found.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
            _add(names + "not executable; make it so with `chmod +x " + shellWord(_app + "/" + *name) + "`");
        }
    }

    /// An app without an icon is shown, too.
    void _checkIcon() {
        const auto name = _bundle->objectForInfoDictionaryKey("BXBundleIconFile");
        device::DeviceIconRenderer renderer(_files);
        if (!name || renderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(_bundle)) {
            return;
        }
        const std::string file(name->string().value_or(""));
        const bool isMissing = !file.empty() && !_files.fileExists(_pathOf(file));
        _add("BXBundleIconFile \"" + printable(file) + "\" " +
             (isMissing ? "is missing"
                        : "cannot be drawn: it must be a PNG in the folder, of at most " +
                              std::to_string(device::maxPictureSide) + " pixels a side and " +
                              std::to_string(device::maxIconFileSize >> 20) + " MB"));
    }

    /// The text of a key that every app has; nullopt when it is none.
    [[nodiscard]] std::optional<std::string> _text(const std::string& key, const std::string& purpose) {
        const auto value = _bundle->objectForInfoDictionaryKey(key);
        const auto text = value ? value->string() : std::nullopt;
        if (!text) {
            _add(key + (value ? " is no text" : " is missing") + "; " + purpose);
        }
        return text ? std::optional<std::string>(*text) : std::nullopt;
    }

    [[nodiscard]] static std::string _pathOf(std::string_view name) { return "/" + std::string(name); }
    void _add(const std::string& problem) {
        _problems.push_back("'" + _app + "/" + std::string(infoFileName) + "': " + problem + ".");
    }

    const std::string& _app;
    PropertyListSerialization& _propertyLists;
    device::DeviceFileSystem _files;
    const std::shared_ptr<device::AppBundle> _bundle;
    std::vector<std::string> _problems;
};

} // namespace

std::vector<std::string> findAppProblems(const std::string& app, PropertyListSerialization& propertyLists) {
    return AppCheck(app, propertyLists).run();
}

} // namespace appsync::host
