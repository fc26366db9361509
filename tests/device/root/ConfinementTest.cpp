// No path leads out of the device, whatever stands in it.
#include "device/database/Database.h"
#include "device/root/Root.h"

#include "TemporaryFolder.h"

#include <sys/stat.h>

#include <functional>
#include <vector>

namespace appsync::device {
namespace {

class Confinement : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(folder / "outside");
        writeHostFile(folder / "outside/secret", "secret");
        auto created = Root::create(folder / "device");
        ASSERT_TRUE(created) << errorText(created.error());
        root = std::move(*created);
    }
    DeviceFileSystem& files() { return root->files(); }
    void link(const std::string& name, const std::string& target) {
        std::filesystem::create_symlink(target, folder / ("device/" + name));
    }

    TemporaryFolder folder;
    std::unique_ptr<Root> root;
};

/// Paths that would name the folder outside, if they were taken as this machine's.
const std::vector<std::string> waysOut{
    "/../outside",  "/var/../../outside",    "/tmp/up/outside",      "/tmp/absolute",
    "/tmp/chained", "/tmp/../../../outside", "/tmp/through/outside", "/tmp/././../../outside",
};

class WaysOut : public Confinement, public testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        Confinement::SetUp();
        link("tmp/up", "../..");
        link("tmp/absolute", folder / "outside");
        link("tmp/chained", "absolute");
        link("tmp/through", "/tmp/up");
    }
    void TearDown() override {
        EXPECT_EQ(readHostFile(folder / "outside/secret"), "secret");
        std::size_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder / "outside")) {
            ++count;
        }
        EXPECT_EQ(count, 1U) << "something was made outside of the device";
    }
};

INSTANTIATE_TEST_SUITE_P(Paths, WaysOut, testing::ValuesIn(waysOut));

TEST_P(WaysOut, CannotBeRead) {
    EXPECT_FALSE(files().readFile(GetParam() + "/secret", nullptr));
    EXPECT_FALSE(files().fileExists(GetParam() + "/secret"));
    EXPECT_FALSE(files().attributesOfItem(GetParam() + "/secret", nullptr));
}

TEST_P(WaysOut, CannotBeWritten) {
    EXPECT_FALSE(files().writeFileAtomically(GetParam() + "/secret", "overwritten", nullptr));
    EXPECT_FALSE(files().createFile(GetParam() + "/new", "new", {}));
    EXPECT_FALSE(files().createDirectory(GetParam() + "/folder", false, std::nullopt, nullptr));
    EXPECT_NE(files().utimes(GetParam() + "/secret"), 0);
}

TEST_P(WaysOut, CannotBeRemovedOrMoved) {
    EXPECT_FALSE(files().removeItem(GetParam() + "/secret", nullptr));
    EXPECT_FALSE(files().moveItem(GetParam() + "/secret", "/tmp/stolen", nullptr));
    ASSERT_TRUE(files().createFile("/tmp/own", "own", {}));
    EXPECT_FALSE(files().moveItem("/tmp/own", GetParam() + "/own", nullptr));
    EXPECT_FALSE(files().copyItem(GetParam() + "/secret", "/tmp/stolen", nullptr));
    EXPECT_FALSE(files().copyItem("/tmp/own", GetParam() + "/secret", nullptr));
}

TEST_F(Confinement, ParentOfTheRootIsTheRoot) {
    ASSERT_TRUE(files().createFile("/tmp/inside", "inside", {}));
    EXPECT_EQ(files().readFile("/../../tmp/inside", nullptr), Data("inside"));
    EXPECT_TRUE(files().createDirectory("/../made/deep", true, std::nullopt, nullptr));
    EXPECT_TRUE(std::filesystem::is_directory(folder / "device/made/deep"));
}

TEST_F(Confinement, AbsoluteLinkIsSeenFromInside) {
    link("tmp/link", "/var/mobile/file");
    ASSERT_TRUE(files().createFile("/var/mobile/file", "inside", {}));
    EXPECT_EQ(files().readFile("/tmp/link", nullptr), Data("inside"));
}

TEST_F(Confinement, RemovingALinkKeepsWhatItNames) {
    link("tmp/link", folder / "outside");
    ASSERT_TRUE(files().createDirectory("/tmp/tree/below", true, std::nullopt, nullptr));
    link("tmp/tree/below/link", folder / "outside");
    link("tmp/tree/inner", "/var/mobile");
    ASSERT_TRUE(files().createFile("/var/mobile/file", "stays", {}));
    EXPECT_TRUE(files().removeItem("/tmp/link", nullptr));
    EXPECT_TRUE(files().removeItem("/tmp/tree", nullptr));
    EXPECT_EQ(readHostFile(folder / "outside/secret"), "secret");
    EXPECT_TRUE(files().fileExists("/var/mobile/file"));
}

TEST_F(Confinement, WritingOverALinkReplacesTheLink) {
    link("tmp/link", "/var/mobile/file");
    ASSERT_TRUE(files().createFile("/var/mobile/file", "old", {}));
    ASSERT_TRUE(files().writeFileAtomically("/tmp/link", "new", nullptr));
    EXPECT_EQ(files().readFile("/var/mobile/file", nullptr), Data("old"));
    EXPECT_EQ(files().readFile("/tmp/link", nullptr), Data("new"));
}

TEST_F(Confinement, LinksOfProcessesAreNotFollowed) {
    link("tmp/magic", "/proc/self/root");
    EXPECT_FALSE(files().fileExists("/tmp/magic/etc"));
}

TEST_F(Confinement, LoopOfLinksIsAnError) {
    link("tmp/a", "b");
    link("tmp/b", "a");
    ErrorPtr error;
    EXPECT_FALSE(files().readFile("/tmp/a", &error));
    EXPECT_EQ(error->code(), ELOOP);
}

TEST_F(Confinement, ADatabaseStaysInItsFolderWhateverBecomesOfThePath) {
    std::filesystem::rename(folder / "device", folder / "moved");
    std::filesystem::create_directories(folder / "other/var/db");
    std::filesystem::create_symlink("other", folder / "device");
    {
        const auto database = Database::open(*root);
        ASSERT_TRUE(database) << errorText(database.error());
        Database::Transaction transaction(**database);
        transaction.run("CREATE TABLE t (a)");
        EXPECT_TRUE(transaction.commit());
        EXPECT_TRUE(std::filesystem::exists(folder / "moved/var/db/device.sqlite-wal"));
    }
    EXPECT_TRUE(std::filesystem::exists(folder / "moved/var/db/device.sqlite"));
    EXPECT_TRUE(std::filesystem::is_empty(folder / "other/var/db"));
}

TEST_F(Confinement, ADatabaseFolderThatIsALinkIsNotFollowed) {
    std::filesystem::rename(folder / "device/var/db", folder / "outside/db");
    link("var/db", folder / "outside/db");
    EXPECT_FALSE(Database::open(*root));
    std::filesystem::remove(folder / "device/var/db");
    std::filesystem::rename(folder / "outside/db", folder / "device/var/db");
}

TEST_F(Confinement, WhereSomethingStandsIsFoundInTheRoot) {
    std::filesystem::create_directories(folder / "device/tmp/here");
    link("tmp/there", "/tmp/here");
    const auto path = root->realPath("/tmp/there");
    ASSERT_TRUE(path);
    EXPECT_EQ(*path, folder / "device/tmp/here");
    link("tmp/out", folder / "outside");
    EXPECT_FALSE(root->realPath("/tmp/out/secret"));
}

} // namespace
} // namespace appsync::device
