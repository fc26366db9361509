// Any bytes as each list of a backup folder: they are read or told, and what is taken is usable.
#include "archive/AppInArchive.h"
#include "fuzz/Fuzz.h"
#include "host/backup/BackupFolder.h"
#include "propertylist/Codec.h"

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using appsync::fuzz::expect;
using namespace appsync::host;

namespace {

/// A folder of this process, gone with it.
class Folder {
  public:
    Folder() {
        std::string pattern = (fs::temp_directory_path() / "backup-fuzz-XXXXXX").string();
        expect(::mkdtemp(pattern.data()) != nullptr, "a folder can be made");
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const Folder folder;
    for (const std::string_view name : {RestoreInfoName, DemotedAppsName, IconStateName}) {
        std::ofstream(folder.path() / name, std::ios::binary) << appsync::fuzz::text(bytes, size);
    }
    appsync::ErrorPtr error;
    const BackupFolder backup(folder.path().string(), &error);
    expect(backup.isOpen() && error == nullptr, "the folder can be opened");
    appsync::PropertyListCodec lists;
    const auto content = backup.read(lists, &error);
    expect(content.has_value() == (error == nullptr), "it is read, or it is told why not");
    if (!content) {
        return 0;
    }
    for (const BackupApp& app : content->apps) {
        const bool isUsable = appsync::isUsableIdentifier(app.identifier);
        expect(isUsable || !app.problem.empty(), "an identifier that names a path is refused");
        expect(!app.name.empty() || app.identifier.empty(), "an app has a name");
        expect(!app.problem.empty() || app.entry.dictionary() != nullptr, "what is restored is a dictionary");
    }
    expect(content->demoted || !content->problems.empty(), "a list that is not used is told");
    return 0;
}
