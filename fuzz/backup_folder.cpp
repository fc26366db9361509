// Any bytes as each list of a backup folder: they are read or told, and what is taken is usable.
#include "archive/AppInArchive.h"
#include "fuzz/Fuzz.h"
#include "host/backup/BackupFolder.h"
#include "propertylist/Codec.h"
#include "values/BundleIdentifier.h"

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using appsync::fuzz::expect;
using appsync::fuzz::require;
using namespace appsync::host;

namespace {

/// A folder of this process, gone with it.
class Folder {
  public:
    Folder() {
        std::string pattern = (fs::temp_directory_path() / "backup-fuzz-XXXXXX").string();
        require(::mkdtemp(pattern.data()) != nullptr, "a folder");
        _path = pattern;
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    [[nodiscard]] const fs::path& path() const { return _path; }

  private:
    fs::path _path;
};

/// A backup with these bytes as lists.
void write(const fs::path& folder, std::string_view apps, std::string_view others) {
    std::ofstream(folder / restoreInfoName, std::ios::binary) << apps;
    std::ofstream(folder / demotedAppsName, std::ios::binary) << others;
    std::ofstream(folder / iconStateName, std::ios::binary) << others;
}

void expectUsable(const BackupContent& content) {
    for (const BackupApp& app : content.apps) {
        const bool isUsable = appsync::isBundleIdentifier(app.identifier);
        expect(isUsable || !app.problem.empty(), "an identifier that names a path is refused");
        expect(!app.name.empty() || app.identifier.empty(), "an app has a name");
        expect(!app.problem.empty() || app.entry.dictionary(), "what is restored is a dictionary");
    }
    const std::size_t unused = (content.demoted ? 0U : 1U) + (content.iconState ? 0U : 1U);
    expect(content.problems.size() == unused, "a list that is not used is told");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Folder folder;
    const std::string_view input = appsync::fuzz::text(bytes, size);
    constexpr std::string_view noApps = "<plist version=\"1.0\"><dict/></plist>";
    for (const std::string_view apps : {input, noApps}) {
        write(folder.path(), apps, input);
        const auto backup = BackupFolder::open(folder.path().string());
        require(bool(backup), "the folder can be opened");
        appsync::PropertyListCodec lists;
        const auto content = backup->read(lists);
        if (content) {
            expectUsable(*content);
        }
    }
    return 0;
}
