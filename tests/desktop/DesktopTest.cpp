// The desktop's side: archives, libraries, lists, staging, packing.
#include "desktop/AppLibrary.h"
#include "desktop/ArchivePacker.h"
#include "desktop/ArchiveSource.h"
#include "desktop/Staging.h"
#include "desktop/SyncList.h"
#include "propertylist/Codec.h"
#include "tests/inmemory/ClientTest.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

namespace appsync::desktop {
namespace {

namespace fs = std::filesystem;
using Sentences = std::vector<std::string>;

std::string sentence(const ErrorPtr& error) {
    return error != nullptr ? std::string(error->userInfo().string(ErrorDescriptionKey).value_or("")) : "";
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
        EXPECT_TRUE(packApp(putApp(name, info).string(), archive.string(), codec, &error)) << sentence(error);
        return archive;
    }
    AppLibrary read() {
        auto read = readAppLibrary(library().string(), codec, &error);
        EXPECT_TRUE(read.has_value());
        return read.value_or(AppLibrary{});
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
    ASSERT_TRUE(packApp(app.string(), archive, codec, &error));
    const auto read = readAppArchive(archive, codec, &error);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->identifier, "com.example.one");
    EXPECT_EQ(read->version, "2.0");
    EXPECT_EQ(read->name, "The One");
    EXPECT_EQ(read->path, archive);
    EXPECT_EQ(read->size, fs::file_size(archive));
    EXPECT_EQ(read->metadata->bytes(), "metadata");
    EXPECT_EQ(read->artwork->bytes(), "artwork");
    EXPECT_EQ(read->iconName, "Icon.png");
    EXPECT_EQ(read->icon->bytes(), "png");
}

TEST_F(Desktop, PacksTheSameBytesAgain) {
    const fs::path app = putApp("One", infoOf("a"));
    ASSERT_TRUE(packApp(app.string(), (folder / "first").string(), codec, &error));
    ASSERT_TRUE(packApp((app / "One.app").string(), (folder / "second").string(), codec, &error));
    std::ifstream first(folder / "first", std::ios::binary);
    std::ifstream second(folder / "second", std::ios::binary);
    EXPECT_TRUE(std::equal(std::istreambuf_iterator<char>(first), std::istreambuf_iterator<char>(),
                           std::istreambuf_iterator<char>(second), std::istreambuf_iterator<char>()));
}

TEST_F(Desktop, PacksNothingThatIsNoApp) {
    fs::create_directories(folder / "empty");
    EXPECT_FALSE(packApp((folder / "empty").string(), (folder / "out").string(), codec, &error));
    EXPECT_NE(sentence(error).find("is no app"), std::string::npos);
    const fs::path nameless = putApp("Two", {{"BXBundleVersion", "1"}});
    EXPECT_FALSE(packApp(nameless.string(), (folder / "out").string(), codec, &error));
    EXPECT_NE(sentence(error).find("BXBundleIdentifier"), std::string::npos);
    EXPECT_FALSE(packApp((folder / "missing").string(), (folder / "out").string(), codec, &error));
    EXPECT_NE(sentence(error).find("cannot be packed"), std::string::npos);
    EXPECT_FALSE(packApp(putApp("Three", infoOf("c")).string(), (folder / "no/such/out").string(), codec, &error));
    EXPECT_FALSE(fs::exists(folder / "out"));
    EXPECT_FALSE(fs::exists(folder / "out.unfinished"));
}

TEST_F(Desktop, ReadsALibraryAndNamesWhatItPassesOver) {
    packed("B", infoOf("com.example.b"));
    packed("A", infoOf("com.example.a"));
    packed("Z", infoOf("com.example.a", "9"));
    write(library() / "notes.txt", "no archive");
    write(library() / "zeros", std::string(1000, '\0'));
    write(library() / ".hidden", "not looked at");
    write(library() / "folder" / "inside", "not looked at");
    const AppLibrary found = read();
    ASSERT_EQ(found.apps.size(), 2u);
    EXPECT_EQ(found.apps[0].identifier, "com.example.a");
    EXPECT_EQ(found.apps[0].version, "1.0");
    EXPECT_EQ(found.apps[1].identifier, "com.example.b");
    ASSERT_EQ(found.problems.size(), 3u);
    EXPECT_NE(found.problems[0].find("Z.archive"), std::string::npos);
    EXPECT_NE(found.problems[1].find("notes.txt"), std::string::npos);
    EXPECT_NE(found.problems[2].find("zeros"), std::string::npos);
    EXPECT_NE(found.find("com.example.b"), nullptr);
    EXPECT_EQ(found.find("com.example.c"), nullptr);
}

TEST_F(Desktop, RefusesALibraryThatIsNoFolder) {
    EXPECT_FALSE(readAppLibrary((folder / "missing").string(), codec, &error).has_value());
    EXPECT_NE(sentence(error).find("cannot be read"), std::string::npos);
}

TEST_F(Desktop, TakesNoArchiveWhoseIdentifierCouldLeadElsewhere) {
    EXPECT_TRUE(isUsableIdentifier("com.example-x.a_1"));
    for (const char* bad : {"", "../a", "a/../b", "/a", "a/b", ".a", "a b", "a\n", "\xC3\xA9"}) {
        EXPECT_FALSE(isUsableIdentifier(bad)) << bad;
    }
    EXPECT_FALSE(isUsableIdentifier(std::string(300, 'a')));
    EXPECT_FALSE(packApp(putApp("Bad", infoOf("a/../b")).string(), (library() / "bad").string(), codec, &error));
}

TEST_F(Desktop, ReadsWhatDescribesADamagedArchive) {
    const fs::path archive = packed("A", infoOf("a"));
    fs::resize_file(archive, fs::file_size(archive) - 40);
    const AppLibrary found = read();
    EXPECT_EQ(found.apps.size() + found.problems.size(), 1u);
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
    Sentences installs(const std::vector<InstalledApp>& installed, const SyncWishes& wishes) {
        list = makeSyncList(apps, installed, wishes);
        Sentences identifiers;
        for (const AppArchive* app : list.installs) {
            identifiers.push_back(app->identifier);
        }
        return identifiers;
    }
    AppLibrary apps;
    SyncList list;
};

TEST_F(SyncLists, InstallWhatTheDeviceLacksOrHasInAnotherVersion) {
    EXPECT_EQ(installs({{"a", "1.0"}, {"c", "2.0"}, {"other", "1"}}, {}), (Sentences{"b", "c"}));
    EXPECT_EQ(installs({{"a", "1.0"}, {"b", "1.0"}, {"c", "3.0"}}, {}), Sentences{});
    EXPECT_EQ(installs({{"a", std::nullopt}, {"b", "1.0"}, {"c", "3.0"}}, {}), Sentences{"a"});
    EXPECT_TRUE(list.problems.empty());
}

TEST_F(SyncLists, InstallOnlyWhatWasAskedFor) {
    EXPECT_EQ(installs({{"b", "1.0"}}, {{"b", "missing"}, {}}), Sentences{"b"});
    ASSERT_EQ(list.problems.size(), 1u);
    EXPECT_NE(list.problems[0].find("'missing' cannot be installed"), std::string::npos);
}

TEST_F(SyncLists, RemoveRatherThanInstall) {
    EXPECT_EQ(installs({{"a", "0.9"}}, {{"a"}, {"a", "a", "missing"}}), Sentences{});
    EXPECT_EQ(list.removals, Sentences{"a"});
    ASSERT_EQ(list.problems.size(), 2u);
    EXPECT_NE(list.problems[0].find("'missing' cannot be removed"), std::string::npos);
    EXPECT_NE(list.problems[1].find("is to be installed and removed"), std::string::npos);
}

TEST_F(SyncLists, BecomeToDoRecords) {
    installs({{"x", "1"}, {"a", "1.0"}, {"b", "1.0"}}, {{}, {"x"}});
    EXPECT_EQ(toDoRecords(list), (Array{Dictionary{{"identifier", "x"}, {"operation", "remove"}},
                                        Dictionary{{"identifier", "c"},
                                                   {"operation", "install"},
                                                   {"version", "3.0"},
                                                   {"name", "Name"},
                                                   {"size", apps.find("c")->size}}}));
}

TEST_F(SyncLists, LayOutIconsInPages) {
    installs({{"x", "1"}}, {{}, {"x"}});
    EXPECT_EQ(iconLayout({"y", "x", "b"}, list), (Array{Array{"y", "b", "a", "c"}}));
    std::vector<std::string> many;
    for (int i = 0; i < 24; ++i) {
        many.push_back("app" + std::to_string(i));
    }
    const Array pages = iconLayout(many, list);
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(pages[0].array()->size(), IconsPerPage);
    EXPECT_EQ(pages[1], Value(Array{"a", "b", "c"}));
    EXPECT_EQ(iconLayout({}, SyncList{}), Array{});
}

TEST_F(SyncLists, AreStagedWithTheirApps) {
    installs({}, {});
    inmemory::World world;
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, iconLayout({}, list), &error));
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/";
    EXPECT_EQ(world.files.plistAt(staging + "ApplicationsSync.plist"), Value(toDoRecords(list)));
    EXPECT_EQ(world.files.plistAt(staging + "SkellanIconState.plist"), Value(Array{Array{"a", "b", "c"}}));
    EXPECT_TRUE(world.files.plistAt(staging + "b/Info.plist").has_value());
    EXPECT_FALSE(world.files.exists(staging + "b/TamblinMetadata.plist"));
}

TEST_F(SyncLists, ReplaceWhatWasStagedBefore) {
    installs({}, {});
    inmemory::World world;
    const std::string staging = "/var/mobile/Media/PublicStaging/ApplicationSync/";
    world.files.put(staging + "old", "x");
    ASSERT_TRUE(writeStagingArea(world.files, world.propertyLists, list, {}, &error));
    EXPECT_FALSE(world.files.exists(staging + "old"));
}

TEST_F(SyncLists, LeaveNothingStagedWhenTheyCannotBeWritten) {
    installs({}, {});
    for (const char* call : {"files.createDirectory", "files.createFile", "plist.serialise"}) {
        for (int after = 0; after < 2; ++after) {
            inmemory::World world;
            world.faults.fail(call, inmemory::Faults::always, after);
            error = nullptr;
            EXPECT_FALSE(writeStagingArea(world.files, world.propertyLists, list, {}, &error));
            EXPECT_NE(error, nullptr);
            EXPECT_TRUE(std::ranges::none_of(world.files.paths(), [](const std::string& path) {
                return path.find("Staging/ApplicationSync") != std::string::npos;
            }));
        }
    }
}

// Pieces.

TEST_F(Desktop, HandsAnArchiveOverInPieces) {
    write(folder / "file", "abcdefgh");
    auto source = ArchiveSource::open((folder / "file").string(), &error);
    ASSERT_TRUE(source.has_value());
    EXPECT_EQ(source->size(), 8u);
    std::array<char, 5> buffer{};
    EXPECT_EQ(source->read(buffer, &error), 5u);
    EXPECT_EQ(std::string(buffer.data(), 5), "abcde");
    EXPECT_EQ(source->read(buffer, &error), 3u);
    EXPECT_EQ(source->read(buffer, &error), 0u);
}

TEST_F(Desktop, SaysWhenAnArchiveCannotBeOpenedOrGetsShorter) {
    EXPECT_FALSE(ArchiveSource::open((folder / "missing").string(), &error).has_value());
    EXPECT_NE(sentence(error).find("missing' cannot be read"), std::string::npos);
    write(folder / "file", "abcdefgh");
    auto source = ArchiveSource::open((folder / "file").string(), &error);
    fs::resize_file(folder / "file", 3);
    std::array<char, 5> buffer{};
    EXPECT_EQ(source->read(buffer, &error), 3u);
    EXPECT_EQ(source->read(buffer, &error), std::nullopt);
    EXPECT_NE(sentence(error).find("shorter"), std::string::npos);
}

} // namespace
} // namespace appsync::desktop
