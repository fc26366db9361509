// The desktop's side: archives, libraries, lists, staging, packing.
#include "archive/AppInArchive.h"
#include "concurrency/AllCores.h"
#include "desktop/AppLibrary.h"
#include "desktop/ArchivePacker.h"
#include "desktop/ArchiveSource.h"
#include "desktop/Staging.h"
#include "desktop/SyncList.h"
#include "propertylist/Codec.h"
#include "tests/inmemory/ClientTest.h"
#include "values/BundleIdentifier.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <functional>

namespace appsync::desktop {
namespace {

namespace fs = std::filesystem;
using Sentences = std::vector<std::string>;

std::string sentence(const ErrorPtr& error) {
    return error ? std::string(error->userInfo().string(errorDescriptionKey).value_or("")) : "";
}

/// A folder of its own for each test, gone afterwards.
class Desktop : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "desktop.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        fs::create_directories(library());
    }
    void TearDown() override { fs::remove_all(folder); }

    fs::path library() const { return folder / "library"; }
    static void write(const fs::path& path, const std::string& bytes) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }
    /// Puts an app's files into a folder, without packing them.
    fs::path putApp(const std::string& name, const Dictionary& info) {
        const fs::path app = folder / "apps" / name / (name + ".app");
        const auto bytes = codec.dataWithPropertyList(info, PropertyListFormat::xml, nullptr);
        write(app / "Info.plist", std::string(bytes->bytes()));
        write(app / "Resources" / "data", name + " data");
        return app.parent_path();
    }
    static Dictionary infoOf(const std::string& identifier, const std::string& version = "1.0") {
        return {{"BXBundleIdentifier", identifier}, {"BXBundleVersion", version}, {"BXBundleDisplayName", "Name"}};
    }
    fs::path packed(const std::string& name, const Dictionary& info) {
        const fs::path archive = library() / (name + ".archive");
        EXPECT_TRUE(pack(putApp(name, info), archive)) << sentence(error);
        return archive;
    }
    /// Whether the app can be packed; if not, `error` has the reason.
    bool pack(const fs::path& app, const fs::path& archive) {
        error = packApp(app.string(), archive.string(), codec).error();
        return !error;
    }
    AppLibrary read() {
        auto read = readAppLibrary(library().string(), codec);
        EXPECT_TRUE(read) << errorText(read.error());
        return read ? std::move(*read) : AppLibrary{};
    }

    fs::path folder;
    PropertyListCodec codec;
    ErrorPtr error;
};

// Packing and reading.

TEST_F(Desktop, PacksAnAppThatCanBeReadAgain) {
    const fs::path app = putApp("One", {{"BXBundleIdentifier", "com.example.one"},
                                        {"BXBundleVersion", "2.0"},
                                        {"BXBundleDisplayName", "The One"},
                                        {"BXBundleIconFile", "Icon.png"}});
    write(app / "One.app" / "Icon.png", "png");
    write(app / "TamblinMetadata.plist", "metadata");
    write(app / "TamblinArtwork", "artwork");
    write(app / "stray", "not packed");
    const std::string archive = (library() / "one").string();
    ASSERT_TRUE(pack(app, archive));
    const auto read = readAppArchive(archive, codec);
    ASSERT_TRUE(read) << errorText(read.error());
    EXPECT_EQ(read->identifier, "com.example.one");
    EXPECT_EQ(read->version, "2.0");
    EXPECT_EQ(read->name, "The One");
    EXPECT_EQ(read->path, archive);
    EXPECT_EQ(read->size, fs::file_size(archive));
    EXPECT_EQ(read->unpackedSize, fs::file_size(app / "One.app" / "Info.plist") + std::string("One data"
                                                                                              "png"
                                                                                              "metadata"
                                                                                              "artwork")
                                                                                      .size());
    const auto description = readAppDescription(*read, codec);
    ASSERT_TRUE(description) << errorText(description.error());
    EXPECT_NE(description->infoPlist.bytes().find("com.example.one"), std::string::npos);
    EXPECT_EQ(description->metadata->bytes(), "metadata");
    EXPECT_EQ(description->artwork->bytes(), "artwork");
    EXPECT_EQ(description->iconName, "Icon.png");
    EXPECT_EQ(description->icon->bytes(), "png");
}

TEST_F(Desktop, PacksTheSameBytesAgain) {
    const fs::path app = putApp("One", infoOf("a"));
    ASSERT_TRUE(pack(app, folder / "first"));
    ASSERT_TRUE(pack(app / "One.app", folder / "second"));
    std::ifstream first(folder / "first", std::ios::binary);
    std::ifstream second(folder / "second", std::ios::binary);
    EXPECT_TRUE(std::equal(std::istreambuf_iterator<char>(first), std::istreambuf_iterator<char>(),
                           std::istreambuf_iterator<char>(second), std::istreambuf_iterator<char>()));
}

TEST_F(Desktop, PacksNothingThatIsNoApp) {
    fs::create_directories(folder / "empty");
    EXPECT_FALSE(pack(folder / "empty", folder / "out"));
    EXPECT_NE(sentence(error).find("is no app"), std::string::npos);
    const fs::path nameless = putApp("Two", {{"BXBundleVersion", "1"}});
    EXPECT_FALSE(pack(nameless, folder / "out"));
    EXPECT_NE(sentence(error).find("BXBundleIdentifier"), std::string::npos);
    EXPECT_FALSE(pack(folder / "missing", folder / "out"));
    EXPECT_NE(sentence(error).find("cannot be packed"), std::string::npos);
    EXPECT_FALSE(pack(putApp("Three", infoOf("c")), folder / "no/such/out"));
    EXPECT_FALSE(fs::exists(folder / "out"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 3); // apps, empty, library
}

TEST_F(Desktop, ReadsALibraryAndNamesWhatItPassesOver) {
    packed("B", infoOf("com.example.b"));
    packed("A", infoOf("com.example.a"));
    packed("Z", infoOf("com.example.a", "9"));
    write(library() / "notes.archive", "no archive");
    write(library() / "notes.txt", "about the apps");
    write(library() / "one", "P");
    write(library() / "zeros.zip", std::string(1000, '\0'));
    write(library() / "zip", "PK, and nothing of one");
    write(library() / ".hidden", "not looked at");
    write(library() / "folder" / "inside", "not looked at");
    const AppLibrary found = read();
    ASSERT_EQ(found.apps.size(), 2u);
    EXPECT_EQ(found.apps[0].identifier, "com.example.a");
    EXPECT_EQ(found.apps[0].version, "1.0");
    EXPECT_EQ(found.apps[1].identifier, "com.example.b");
    ASSERT_EQ(found.problems.size(), 3u);
    EXPECT_NE(found.problems[0].find("Z.archive"), std::string::npos);
    EXPECT_EQ(found.problems[1], "'" + (library() / "notes.txt").string() + "' is no app archive and was passed over.");
    EXPECT_NE(found.problems[2].find("one' is no app archive"), std::string::npos);
    ASSERT_EQ(found.unreadable.size(), 3u);
    EXPECT_EQ(found.unreadable[0].path, library() / "notes.archive");
    EXPECT_NE(found.unreadable[0].reason.find("notes.archive"), std::string::npos);
    EXPECT_EQ(found.unreadable[1].path, library() / "zeros.zip");
    EXPECT_EQ(found.unreadable[2].path, library() / "zip");
    EXPECT_NE(found.find("com.example.b"), nullptr);
    EXPECT_EQ(found.find("com.example.c"), nullptr);
}

TEST_F(Desktop, RefusesALibraryThatIsNoFolder) {
    error = readAppLibrary((folder / "missing").string(), codec).error();
    EXPECT_NE(sentence(error).find("cannot be read"), std::string::npos);
}

TEST_F(Desktop, TakesNoArchiveWhoseIdentifierCouldLeadElsewhere) {
    EXPECT_TRUE(isBundleIdentifier("com.example-x.a_1"));
    for (const char* bad : {"", "../a", "a/../b", "/a", "a/b", ".a", "a b", "a\n", "\xC3\xA9"}) {
        EXPECT_FALSE(isBundleIdentifier(bad)) << bad;
    }
    EXPECT_FALSE(isBundleIdentifier(std::string(300, 'a')));
    EXPECT_FALSE(pack(putApp("Bad", infoOf("a/../b")), library() / "bad"));
}

TEST_F(Desktop, ReadsWhatDescribesADamagedArchive) {
    const fs::path archive = packed("A", infoOf("a"));
    fs::resize_file(archive, fs::file_size(archive) - 40);
    const AppLibrary found = read();
    EXPECT_EQ(found.apps.size() + found.unreadable.size(), 1u);
}

// What a sync does.

class SyncLists : public Desktop {
  protected:
    void SetUp() override {
        Desktop::SetUp();
        packed("A", infoOf("a"));
        packed("B", infoOf("b"));
        packed("C", infoOf("c", "3.0"));
        apps = read();
    }
    /// Makes the list: all apps of the library.
    void installAll() {
        list = {};
        for (const AppArchive& app : apps.apps) {
            list.installs.push_back(&app);
        }
    }
    AppLibrary apps;
    SyncList list;
};

TEST_F(SyncLists, BecomeToDoRecords) {
    list.removals = {"x"};
    list.installs = {apps.find("c")};
    EXPECT_EQ(toDoRecords(list), (Array{Dictionary{{"identifier", "x"}, {"operation", "remove"}},
                                        Dictionary{{"identifier", "c"},
                                                   {"operation", "install"},
                                                   {"version", "3.0"},
                                                   {"name", "Name"},
                                                   {"size", apps.find("c")->size}}}));
}

TEST_F(SyncLists, LayOutIconsInPages) {
    installAll();
    list.removals = {"x"};
    EXPECT_EQ(iconLayout(Array{Value(Array{"y", "x", "b"})}, list), (Array{Value(Array{"y", "b", "a", "c"})}));
    Array many;
    for (int i = 0; i < 24; ++i) {
        many.emplace_back("app" + std::to_string(i));
    }
    const Array pages = iconLayout(Array{Value(many)}, list);
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(pages[0].array()->size(), iconsPerPage);
    EXPECT_EQ(pages[1], Value(Array{"a", "b", "c"}));
    EXPECT_EQ(iconLayout({}, SyncList{}), Array{});
}

TEST_F(SyncLists, LeaveThePagesAndFoldersOfThePersonAsTheyAre) {
    installAll();
    list.removals = {"x", "z"};
    const auto folderOf = [](const char* name, Array pages) {
        return Value(Dictionary{{"displayName", name}, {"iconLists", std::move(pages)}});
    };
    const Array onDevice{Value(Array{"y"}),
                         Value(Array{folderOf("Mine", Array{Value(Array{"x", "b"}), Value(Array{"z"})}),
                                     folderOf("Gone", Array{Value(Array{"x"})})}),
                         Value(Array{"z"})};
    EXPECT_EQ(iconLayout(onDevice, list),
              (Array{Value(Array{"y"}), Value(Array{folderOf("Mine", Array{Value(Array{"b"})}), "a", "c"})}));
}

TEST_F(SyncLists, AreStagedWithTheirApps) {
    installAll();
    inmemory::World world;
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, {}));
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/";
    EXPECT_EQ(world.files.plistAt(staging + "ApplicationsSync.plist"), Value(toDoRecords(list)));
    EXPECT_EQ(world.files.plistAt(staging + "SkellanIconState.plist"), Value(Array{Array{"a", "b", "c"}}));
    EXPECT_TRUE(world.files.plistAt(staging + "b/Info.plist").has_value());
    EXPECT_FALSE(world.files.exists(staging + "b/TamblinMetadata.plist"));
}

TEST_F(SyncLists, ReplaceWhatWasStagedBefore) {
    installAll();
    inmemory::World world;
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/";
    world.files.put(staging + "old", "x");
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, {}));
    EXPECT_FALSE(world.files.exists(staging + "old"));
}

TEST_F(SyncLists, LeaveNothingStagedWhenTheyCannotBeWritten) {
    installAll();
    for (const char* call : {"files.createDirectory", "files.createFile", "plist.serialise"}) {
        for (int after = 0; after < 2; ++after) {
            inmemory::World world;
            world.faults.fail(call, inmemory::Faults::always, after);
            EXPECT_FALSE(writeStagingArea(world.files, world.propertyLists, list, {}));
            EXPECT_TRUE(std::ranges::none_of(world.files.paths(), [](const std::string& path) {
                return path.find("Staging/ApplicationSync") != std::string::npos;
            }));
        }
    }
}

TEST_F(SyncLists, GoOnWithNoFurtherAppAfterOneThatCannotBeWritten) {
    list.installs.assign(coreCount() + 20, apps.find("a"));
    inmemory::World world;
    world.faults.fail("files.createDirectory", inmemory::Faults::always, 1);
    EXPECT_FALSE(writeStagingArea(world.files, world.propertyLists, list, {}));
    const auto made = std::ranges::count_if(
        world.journal.take(), [](const std::string& line) { return line.starts_with("files.createDirectory"); });
    EXPECT_GT(made, 1);
    EXPECT_LE(made, 1 + static_cast<std::ptrdiff_t>(coreCount())) << "each core tries one app at most";
}

TEST_F(SyncLists, StageTheIconThatTheAppNamesAndNoOther) {
    const fs::path app = putApp("Icons", {{"BXBundleIdentifier", "icons"}, {"BXBundleIconFile", "Icon.png"}});
    for (const char* name : {"Icon.png", "Other.png"}) {
        write(app / "Icons.app" / name, name);
    }
    ASSERT_TRUE(pack(app, library() / "icons")) << errorText(error);
    apps = read();
    list.installs = {apps.find("icons")};
    inmemory::World world;
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, {}));
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/icons/";
    EXPECT_TRUE(world.files.exists(staging + "Icon.png"));
    EXPECT_FALSE(world.files.exists(staging + "Other.png"));
}

TEST_F(SyncLists, NameNoIconThatIsNotAPictureOfTheApp) {
    for (const char* name :
         {"Info.plist", "../TamblinArtwork", "Resources/Icon.png", "missing.png", "folder.png", ".."}) {
        const fs::path app = putApp("Odd", {{"BXBundleIdentifier", "odd"}, {"BXBundleIconFile", name}});
        fs::create_directories(app / "Odd.app" / "folder.png");
        write(app / "Odd.app" / "Resources" / "Icon.png", "picture");
        ASSERT_TRUE(pack(app, library() / "odd")) << errorText(error);
        const auto odd = readAppArchive((library() / "odd").string(), codec);
        ASSERT_TRUE(odd);
        const auto description = readAppDescription(*odd, codec);
        ASSERT_TRUE(description);
        EXPECT_EQ(description->iconName, std::nullopt) << name;
        EXPECT_EQ(description->icon, std::nullopt) << name;
    }
}

TEST_F(SyncLists, FailOnlyTheAppsWhoseArchiveHasChangedBeforeTheyAreStaged) {
    installAll();
    packed("A", infoOf("a", "2.0")); // takes the place of the one that was read
    fs::remove(library() / "B.archive");
    inmemory::World world;
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, Array{Value(Array{"x"})}));
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/";
    EXPECT_EQ(world.files.plistAt(staging + "SkellanIconState.plist"), Value(Array{Array{"x", "c"}}));
    EXPECT_EQ(world.files.plistAt(staging + "ApplicationsSync.plist")->array()->size(), 1U);
    EXPECT_TRUE(world.files.exists(staging + "c/Info.plist"));
    ASSERT_EQ(list.failed.size(), 2U);
    EXPECT_EQ(list.failed[0].app->identifier, "a");
    EXPECT_NE(list.failed[0].reason.find("A.archive' has changed since the library was read"), std::string::npos);
    EXPECT_NE(list.failed[1].reason.find("B.archive' cannot be read: No such file"), std::string::npos);
}

TEST_F(SyncLists, FailTheAppsOfWhichTheDeviceWouldRefuseAnEntry) {
    std::ifstream file(library() / "A.archive", std::ios::binary);
    std::string archive{std::istreambuf_iterator<char>(file), {}};
    archive[archive.rfind("PK\3\4") + 30] = 'X'; // the last entry's name, but for the directory
    write(library() / "A.archive", archive);
    apps = read();
    installAll();
    inmemory::World world;
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, {}));
    EXPECT_EQ(world.files.plistAt("/var/mobile/Media/PublicStaging/ApplicationSync/ApplicationsSync.plist"),
              Value(toDoRecords(list)));
    EXPECT_EQ(list.installs.size(), 2U);
    ASSERT_EQ(list.failed.size(), 1U);
    EXPECT_NE(list.failed[0].reason.find("\"A.app/Resources/data\" is not what the archive's directory says. Take it "
                                         "out of the library or replace it."),
              std::string::npos)
        << list.failed[0].reason;
}

// What the library says of an app.

TEST_F(Desktop, KeepsLittleOfAnAppInMemory) {
    Dictionary info = infoOf("a");
    info.set("BXBundleDisplayName", std::string(999, 'n') + "\u00fc and more");
    info.set("BXBundleVersion", std::string(100'000, '1'));
    packed("A", info);
    EXPECT_EQ(read().apps.at(0).version, std::string(1'000, '1'));
    EXPECT_EQ(read().apps.at(0).name, std::string(999, 'n'));
}

TEST_F(Desktop, NamesWhatIsNoFileAndDoesNotWaitForIt) {
    ASSERT_EQ(::mkfifo((library() / "fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", library() / "zeros");
    const AppLibrary found = read();
    ASSERT_EQ(found.unreadable.size(), 2U);
    EXPECT_NE(found.unreadable[0].reason.find("fifo' cannot be read: it is no regular file"), std::string::npos);
    EXPECT_NE(found.unreadable[1].reason.find("zeros' cannot be read: it is no regular file"), std::string::npos);
}

TEST_F(Desktop, PacksNoLinkThatLeavesTheApp) {
    const fs::path app = putApp("Links", infoOf("links"));
    fs::create_symlink("Resources/data", app / "Links.app" / "inside");
    EXPECT_TRUE(pack(app, folder / "out")) << errorText(error);
    for (const char* target : {"..", "../..", "missing", "/etc/passwd", "../Links.app/Info.plist", "link"}) {
        fs::create_symlink(target, app / "Links.app" / "link");
        EXPECT_FALSE(pack(app, folder / "out")) << target;
        EXPECT_NE(sentence(error).find("its entry \"Links.app/link\" is a symbolic link"), std::string::npos);
        fs::remove(app / "Links.app" / "link");
    }
}

TEST_F(Desktop, PacksNothingTheDeviceHasNoKindFor) {
    const fs::path app = putApp("Odd", infoOf("odd"));
    ASSERT_EQ(::mkfifo((app / "Odd.app" / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(pack(app, folder / "out"));
    EXPECT_NE(sentence(error).find("\"Odd.app/fifo\" is neither a file, a folder nor a symbolic link"),
              std::string::npos);
    fs::remove(app / "Odd.app" / "fifo");
    write(app / "Odd.app" / "a\nb", "x");
    EXPECT_FALSE(pack(app, folder / "out"));
    EXPECT_NE(sentence(error).find("\"Odd.app/a b\" has a control character"), std::string::npos);
    EXPECT_FALSE(fs::exists(folder / "out"));
}

TEST_F(Desktop, MayBeGivenALinkToTheAppsFolder) {
    putApp("One", infoOf("one"));
    fs::create_directory_symlink(folder / "apps" / "One" / "One.app", folder / "Link.app");
    ASSERT_TRUE(pack(folder / "Link.app", folder / "out")) << errorText(error);
    EXPECT_TRUE(readAppArchive((folder / "out").string(), codec));
}

// Pieces.

class Pieces : public Desktop {
  protected:
    void SetUp() override {
        Desktop::SetUp();
        path = library() / "A.archive";
        packAgain();
    }
    void packAgain() { app = *readAppArchive(packed("A", infoOf("a")).string(), codec); }
    /// What is handed over, in pieces of a hundred bytes; `after` the first of them.
    std::string sent(const std::function<void()>& after = {}) {
        auto source = ArchiveSource::open(app);
        std::string all;
        for (bool isFirst = true; source; isFirst = false) {
            std::array<char, 100> buffer{};
            const auto length = source->read(buffer);
            if (!length || *length == 0) {
                reason = length ? "" : errorText(length.error());
                return all;
            }
            all.append(buffer.data(), *length);
            if (isFirst && after) {
                after();
            }
        }
        reason = errorText(source.error());
        return all;
    }
    fs::path path;
    AppArchive app;
    std::string reason;
};

TEST_F(Pieces, AreTheWholeArchive) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(sent(), std::string(std::istreambuf_iterator<char>(file), {}));
    EXPECT_EQ(reason, "");
}

TEST_F(Pieces, AreNotThoseOfAnArchiveThatWasNotRead) {
    packed("A", infoOf("a", "2.0"));
    EXPECT_EQ(sent(), "");
    EXPECT_NE(reason.find("A.archive' has changed since the library was read"), std::string::npos) << reason;
    fs::remove(path);
    EXPECT_EQ(sent(), "");
    EXPECT_NE(reason.find("A.archive' cannot be read: No such file or directory"), std::string::npos) << reason;
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(sent(), "");
    EXPECT_NE(reason.find("A.archive' cannot be read: it is no regular file"), std::string::npos) << reason;
}

TEST_F(Pieces, EndWhenTheArchiveChangesMeanwhile) {
    const auto size = fs::file_size(path);
    const auto overwrite = [&] {
        std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << "PK";
        fs::last_write_time(path, fs::file_time_type::clock::now() + std::chrono::hours(1)); // as if it had come later
    };
    const std::vector<std::function<void()>> changes{[&] { fs::resize_file(path, size - 150); },
                                                     [&] { fs::resize_file(path, size + 1); }, overwrite};
    for (const auto& change : changes) {
        sent(change);
        EXPECT_NE(reason.find("A.archive' has changed while it was sent. Sync again."), std::string::npos) << reason;
        fs::remove(path);
        packAgain();
    }
}

} // namespace
} // namespace appsync::desktop
