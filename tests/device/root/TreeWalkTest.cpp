
#include "device/root/Tree.h"
#include "files/Syscalls.h"
#include "tests/device/root/TemporaryFolder.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <set>

namespace appsync::device {
namespace {

Descriptor opened(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Notes what it sees; a hook may act at each folder.
class Notes final : public TreeVisitor {
  public:
    int visitFile(int /*parent*/, const std::string& name) override {
        seen.insert(name);
        return name == stopAt ? EIO : 0;
    }
    int enterFolder(int /*folder*/, const std::string& name) override {
        deepest = std::max(deepest, ++depth);
        seen.insert(name + "/");
        if (atFolder) {
            atFolder(name);
        }
        return 0;
    }
    int leaveFolder(int /*folder*/) override {
        --depth;
        return 0;
    }
    std::multiset<std::string> seen;
    std::function<void(const std::string&)> atFolder;
    std::string stopAt;
    int depth = 0;
    int deepest = 0;
};

/// Makes folders one in the other, each with a folder and a file of its own beside the next; their number in names.
void makeDeep(const std::string& top, int levels) {
    Descriptor folder = opened(top);
    for (int level = 0; level < levels; ++level) {
        const std::string number = std::to_string(level);
        ASSERT_EQ(::mkdirat(folder.get(), ("a" + number).c_str(), 0755), 0);
        ASSERT_EQ(::mkdirat(folder.get(), ("z" + number).c_str(), 0755), 0);
        ASSERT_TRUE(Descriptor(::openat(folder.get(), ("f" + number).c_str(), O_WRONLY | O_CREAT, 0644)).isOpen());
        folder = Descriptor(::openat(folder.get(), ("a" + number).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
}

TEST(TreeWalk, SeesEverythingOnceAtAnyDepthWithFewDescriptors) {
    const TemporaryFolder folder;
    constexpr int levels = 500;
    makeDeep(folder.path(), levels);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{64, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    Notes notes;
    EXPECT_EQ(walkTree(opened(folder.path()), notes), 0);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(notes.seen.size(), 3U * levels);
    EXPECT_EQ(std::set<std::string>(notes.seen.begin(), notes.seen.end()).size(), 3U * levels);
    EXPECT_EQ(notes.deepest, levels);
    EXPECT_EQ(notes.depth, 0);
    EXPECT_EQ(removeTree(opened(folder.path()).get(), "a0", nullptr, "a0"),
              0); // deeper than the test's own removal goes
}

TEST(TreeWalk, SeesAllOfWideFolders) {
    const TemporaryFolder folder;
    constexpr std::size_t count = 1500;
    for (std::size_t place = 0; place < count; ++place) {
        std::filesystem::create_directory(folder / std::to_string(place));
    }
    makeDeep(folder / "0", 40);
    Notes notes;
    EXPECT_EQ(walkTree(opened(folder.path()), notes), 0);
    EXPECT_EQ(notes.seen.size(), count + 3 * 40);
}

TEST(TreeWalk, DoesNotFollowLinks) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "below");
    std::filesystem::create_directory_symlink("/", folder / "below/link");
    Notes notes;
    EXPECT_EQ(walkTree(opened(folder / "below"), notes), 0);
    EXPECT_EQ(notes.seen, (std::multiset<std::string>{"link"}));
}

TEST(TreeWalk, EndsWhereAFolderOnTheWayWasMovedAway) {
    const TemporaryFolder folder;
    const TemporaryFolder elsewhere;
    writeHostFile(elsewhere / "secret", "");
    std::filesystem::create_directory(folder / "top");
    makeDeep(folder / "top", 60);
    Notes notes;
    notes.atFolder = [&](const std::string& name) {
        if (name == "a59") { // the deepest: those far above it are closed by now
            std::string path = folder / "top";
            for (int level = 0; level < 20; ++level) {
                path += "/a" + std::to_string(level);
            }
            std::filesystem::rename(path, elsewhere / "moved");
        }
    };
    EXPECT_EQ(walkTree(opened(folder / "top"), notes), ESTALE);
    EXPECT_FALSE(notes.seen.contains("secret"));
}

TEST(TreeWalk, EndsWithTheFirstFailure) {
    const TemporaryFolder folder;
    writeHostFile(folder / "bad", "");
    Notes notes;
    notes.stopAt = "bad";
    EXPECT_EQ(walkTree(opened(folder.path()), notes), EIO);
}

TEST(TreeWalk, SizesAreAddedUpAtAnyDepth) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "top");
    makeDeep(folder / "top", 100);
    std::string path = folder / "top";
    for (int level = 0; level < 100; ++level) {
        path += "/a" + std::to_string(level);
    }
    writeHostFile(path + "/file", "12345");
    std::uint64_t bytes = 0;
    EXPECT_EQ(treeSize(opened(folder / "top"), bytes), 0);
    EXPECT_EQ(bytes, 5U);
}

} // namespace
} // namespace appsync::device
