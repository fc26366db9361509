#include "device/root/DeviceFileSystem.h"

#include "device/root/Root.h"

#include "Faults.h"
#include "TemporaryFolder.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace appsync::device {
namespace {

class Files : public testing::Test {
  protected:
    void SetUp() override {
        auto created = Root::create(folder.path(), {faults});
        ASSERT_TRUE(created) << errorText(created.error());
        root = std::move(*created);
        faults->forget();
    }
    DeviceFileSystem& files() { return root->files(); }
    std::string host(const std::string& path) { return root->hostPath(path); }

    TemporaryFolder folder;
    std::shared_ptr<RecordingFaults> faults = std::make_shared<RecordingFaults>();
    std::unique_ptr<Root> root;
    ErrorPtr error;
};

TEST_F(Files, CreatesFolderInAnExistingOne) {
    EXPECT_TRUE(files().createDirectory("/tmp/a", false, std::nullopt, &error));
    EXPECT_TRUE(std::filesystem::is_directory(host("/tmp/a")));
    EXPECT_EQ(error, nullptr);
}

TEST_F(Files, FolderWithoutIntermediatesMustBeNewAndItsParentThere) {
    EXPECT_FALSE(files().createDirectory("/tmp", false, std::nullopt, &error));
    EXPECT_EQ(error->code(), EEXIST);
    EXPECT_FALSE(files().createDirectory("/tmp/x/y", false, std::nullopt, &error));
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_FALSE(files().fileExists("/tmp/x"));
}

TEST_F(Files, FolderWithIntermediatesMakesItsParents) {
    EXPECT_TRUE(files().createDirectory("/tmp/a//b/c/", true, std::nullopt, &error)) << errorText(error);
    EXPECT_TRUE(files().createDirectory("/tmp/a/b/c", true, std::nullopt, &error));
    EXPECT_TRUE(std::filesystem::is_directory(host("/tmp/a/b/c")));
    EXPECT_TRUE(files().createDirectory("/", true, std::nullopt, &error));
}

TEST_F(Files, FolderCannotReplaceAFile) {
    ASSERT_TRUE(files().createFile("/tmp/file", "x", {}));
    EXPECT_FALSE(files().createDirectory("/tmp/file", true, std::nullopt, &error));
    EXPECT_EQ(error->code(), EEXIST);
    EXPECT_FALSE(files().createDirectory("/tmp/file/below", true, std::nullopt, &error));
    EXPECT_EQ(error->code(), ENOTDIR);
}

TEST_F(Files, AccountThatTheMachineLacksIsIgnored) {
    const FileAttributes attributes{"no-such-account", "no-such-group"};
    EXPECT_TRUE(files().createDirectory("/tmp/owned", false, attributes, &error));
    EXPECT_TRUE(files().createFile("/tmp/owned/file", "x", attributes));
    struct stat status {};
    ASSERT_EQ(::stat(host("/tmp/owned/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, ::geteuid());
}

TEST_F(Files, AccountThatTheMachineHasOwnsWhatIsMade) {
    const passwd* account = ::getpwnam("daemon");
    if (::geteuid() != 0 || !account) {
        GTEST_SKIP() << "only the superuser gives files away";
    }
    ASSERT_TRUE(files().createDirectory("/tmp/owned", false, FileAttributes{"daemon", "daemon"}, &error));
    ASSERT_TRUE(files().createFile("/tmp/owned/file", "x", FileAttributes{"daemon", std::nullopt}));
    struct stat ofFolder {};
    struct stat ofFile {};
    ASSERT_EQ(::stat(host("/tmp/owned").c_str(), &ofFolder), 0);
    ASSERT_EQ(::stat(host("/tmp/owned/file").c_str(), &ofFile), 0);
    EXPECT_EQ(ofFolder.st_uid, account->pw_uid);
    EXPECT_EQ(ofFile.st_uid, account->pw_uid);
    EXPECT_EQ(ofFile.st_gid, ::getegid());
}

TEST_F(Files, RemovesFolderWithEverythingInIt) {
    ASSERT_TRUE(files().createDirectory("/tmp/a/b/c", true, std::nullopt, nullptr));
    ASSERT_TRUE(files().createFile("/tmp/a/b/file", "x", {}));
    ASSERT_TRUE(files().createFile("/tmp/a/b/c/file", "x", {}));
    EXPECT_TRUE(files().removeItem("/tmp/a", &error)) << errorText(error);
    EXPECT_FALSE(files().fileExists("/tmp/a"));
}

TEST_F(Files, RemovesFolderNestedBeyondAnyDescriptorLimit) {
    Descriptor here = std::move(*files().open("/tmp", O_PATH | O_DIRECTORY));
    for (int level = 0; level < 1'200; ++level) {
        ASSERT_EQ(::mkdirat(here.get(), "nested", 0755), 0);
        here = Descriptor(::openat(here.get(), "nested", O_PATH | O_DIRECTORY));
        ASSERT_TRUE(here.isOpen());
    }
    EXPECT_TRUE(files().removeItem("/tmp/nested", &error)) << errorText(error);
    EXPECT_EQ(files().list("/tmp")->size(), 0U);
}

TEST_F(Files, RemovesFolderThatMayNotBeWritten) {
    ASSERT_TRUE(files().createDirectory("/tmp/a/b", true, std::nullopt, nullptr));
    ASSERT_TRUE(files().createFile("/tmp/a/b/file", "x", {}));
    std::filesystem::permissions(host("/tmp/a/b"), std::filesystem::perms(0555));
    EXPECT_TRUE(files().removeItem("/tmp/a", &error)) << errorText(error);
}

TEST_F(Files, RemovingNothingIsAnError) {
    EXPECT_FALSE(files().removeItem("/tmp/missing", &error));
    EXPECT_EQ(error->domain(), posixErrorDomain);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_EQ(errorText(error), "removing /tmp/missing: No such file or directory");
    EXPECT_EQ(error->userInfo().string(errorPathKey), "/tmp/missing");
}

TEST_F(Files, PathsWithoutANameOfTheirOwnCannotBeRemoved) {
    for (const std::string path : {"/", "//", "/tmp/..", "/tmp/.", "/tmp/../"}) {
        EXPECT_FALSE(files().removeItem(path, &error)) << path;
        EXPECT_EQ(error->code(), EINVAL) << path;
    }
    EXPECT_TRUE(files().fileExists("/tmp"));
}

TEST_F(Files, PathsMustBeAbsoluteAndWithoutZeroBytes) {
    for (const std::string& path : {std::string(), std::string("tmp"), std::string("/tmp/a\0b", 8)}) {
        EXPECT_FALSE(files().createFile(path, "x", {}));
        EXPECT_FALSE(files().readFile(path, &error));
        EXPECT_EQ(error->code(), EINVAL);
        EXPECT_FALSE(files().fileExists(path));
    }
}

TEST_F(Files, MovesToAPlaceWhereNothingIs) {
    ASSERT_TRUE(files().createDirectory("/tmp/a", false, std::nullopt, nullptr));
    ASSERT_TRUE(files().createFile("/tmp/a/file", "x", {}));
    EXPECT_TRUE(files().moveItem("/tmp/a", "/var/mobile/b", &error));
    EXPECT_EQ(files().readFile("/var/mobile/b/file", nullptr), Data("x"));
    EXPECT_FALSE(files().fileExists("/tmp/a"));
}

TEST_F(Files, MovingReplacesNothing) {
    ASSERT_TRUE(files().createFile("/tmp/a", "a", {}));
    ASSERT_TRUE(files().createFile("/tmp/b", "b", {}));
    EXPECT_FALSE(files().moveItem("/tmp/a", "/tmp/b", &error));
    EXPECT_EQ(error->code(), EEXIST);
    EXPECT_EQ(errorText(error), "moving /tmp/a to /tmp/b: File exists");
    EXPECT_EQ(files().readFile("/tmp/b", nullptr), Data("b"));
    EXPECT_EQ(files().readFile("/tmp/a", nullptr), Data("a"));
}

TEST_F(Files, CopyReplacesAFileAndLeavesItsSource) {
    const std::string content(300'000, 'c');
    ASSERT_TRUE(files().createFile("/tmp/a", content, {}));
    ASSERT_TRUE(files().createFile("/tmp/b", "before", {}));
    EXPECT_TRUE(files().copyItem("/tmp/a", "/tmp/b", &error)) << errorText(error);
    EXPECT_EQ(files().readFile("/tmp/b", nullptr), Data(content));
    EXPECT_EQ(files().readFile("/tmp/a", nullptr), Data(content));
}

TEST_F(Files, CopyOfAFolderOrNothingFailsAndLeavesTheDestination) {
    ASSERT_TRUE(files().createFile("/tmp/b", "before", {}));
    EXPECT_FALSE(files().copyItem("/var", "/tmp/b", &error));
    EXPECT_EQ(error->code(), EISDIR);
    EXPECT_FALSE(files().copyItem("/tmp/missing", "/tmp/b", &error));
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_EQ(files().readFile("/tmp/b", nullptr), Data("before"));
}

TEST_F(Files, ReadsWhatWasWritten) {
    const std::string content("bytes \0 and more", 16);
    EXPECT_TRUE(files().writeFileAtomically("/var/mobile/file", content, &error));
    EXPECT_EQ(files().readFile("/var/mobile/file", &error), Data(content));
    EXPECT_EQ(files().attributesOfItem("/var/mobile/file", &error)->size, 16U);
    EXPECT_TRUE(files().writeFileAtomically("/var/mobile/file", "", &error));
    EXPECT_EQ(files().readFile("/var/mobile/file", &error), Data());
}

TEST_F(Files, ReadingAFolderFails) {
    EXPECT_FALSE(files().readFile("/tmp", &error));
    EXPECT_EQ(error->code(), EISDIR);
}

TEST_F(Files, ReadingAPipeFailsInsteadOfWaiting) {
    ASSERT_EQ(::mkfifo(host("/tmp/pipe").c_str(), 0644), 0);
    EXPECT_FALSE(files().readFile("/tmp/pipe", &error));
    EXPECT_EQ(error->code(), ENXIO);
    EXPECT_FALSE(files().copyItem("/tmp/pipe", "/tmp/copy", &error));
}

TEST_F(Files, FileThatIsTooLargeForMemoryIsNotRead) {
    const Descriptor file = std::move(*files().open("/tmp/huge", O_CREAT | O_WRONLY));
    ASSERT_EQ(::ftruncate(file.get(), off_t{1} << 40), 0); // a hole
    EXPECT_FALSE(files().readFile("/tmp/huge", &error));
    EXPECT_EQ(error->code(), EFBIG);
    EXPECT_EQ(files().attributesOfItem("/tmp/huge", &error)->size, std::uint64_t{1} << 40);
}

TEST_F(Files, WritingIntoAMissingFolderNamesThePath) {
    EXPECT_FALSE(files().writeFileAtomically("/var/missing/file", "x", &error));
    EXPECT_EQ(errorText(error), "writing /var/missing/file: No such file or directory");
}

TEST_F(Files, FullDiskSaysWhatToDo) {
    faults->failAt = 1;
    faults->failure = ENOSPC;
    EXPECT_FALSE(files().writeFileAtomically("/tmp/file", "x", &error));
    EXPECT_EQ(errorText(error),
              "writing /tmp/file: No space left on device; free some space on the device's disk and try again");
}

TEST_F(Files, WritingOverAFolderFails) {
    EXPECT_FALSE(files().writeFileAtomically("/var/mobile", "x", &error));
    EXPECT_EQ(error->code(), EISDIR);
    EXPECT_EQ(files().list("/var")->size(), 3U) << "the temporary file must be gone";
}

TEST_F(Files, UtimesSetsBothTimesToNow) {
    ASSERT_TRUE(files().createFile("/tmp/file", "x", {}));
    const timespec old[2] = {{1'000, 0}, {1'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, host("/tmp/file").c_str(), old, 0), 0);
    EXPECT_EQ(files().utimes("/tmp/file"), 0);
    struct stat status {};
    ASSERT_EQ(::stat(host("/tmp/file").c_str(), &status), 0);
    EXPECT_NE(status.st_mtim.tv_sec, 1'000);
    EXPECT_NE(status.st_atim.tv_sec, 1'000);
    EXPECT_EQ(files().utimes("/tmp/missing"), ENOENT);
    EXPECT_EQ(files().errorText(ENOENT), "No such file or directory");
    EXPECT_EQ(files().errorText(12'345), "error 12345");
}

TEST_F(Files, ListsNamesInOrder) {
    for (const std::string name : {"b", "a", "c"}) {
        ASSERT_TRUE(files().createFile("/tmp/" + name, "", {}));
    }
    EXPECT_EQ(*files().list("/tmp"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_FALSE(files().list("/missing"));
}

TEST_F(Files, NullErrorIsAllowedEverywhere) {
    EXPECT_FALSE(files().createDirectory("/a/b", false, std::nullopt, nullptr));
    EXPECT_FALSE(files().removeItem("/a", nullptr));
    EXPECT_FALSE(files().moveItem("/a", "/b", nullptr));
    EXPECT_FALSE(files().copyItem("/a", "/b", nullptr));
    EXPECT_FALSE(files().readFile("/a", nullptr));
    EXPECT_FALSE(files().writeFileAtomically("/a/b", "", nullptr));
    EXPECT_FALSE(files().attributesOfItem("/a", nullptr));
}

TEST_F(Files, ReadersSeeTheOldOrTheNewContentWhole) {
    const std::string first(100'000, '1');
    const std::string second(150'000, '2');
    ASSERT_TRUE(files().writeFileAtomically("/tmp/file", first, nullptr));
    std::thread writer([&] {
        for (int round = 0; round < 100; ++round) {
            EXPECT_TRUE(files().writeFileAtomically("/tmp/file", round % 2 == 0 ? second : first, nullptr));
        }
    });
    for (int round = 0; round < 300; ++round) {
        const auto content = files().readFile("/tmp/file", nullptr);
        ASSERT_TRUE(content);
        EXPECT_TRUE(content->bytes() == first || content->bytes() == second);
    }
    writer.join();
}

TEST_F(Files, ThreadsMakeTheSameFoldersTogether) {
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            for (int round = 0; round < 50; ++round) {
                const std::string path = "/tmp/shared/" + std::to_string(round) + "/deep";
                EXPECT_TRUE(files().createDirectory(path, true, std::nullopt, nullptr));
                EXPECT_TRUE(files().createFile(path + "/" + std::to_string(number), "x", {}));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(files().list("/tmp/shared/49/deep")->size(), 4U);
}

} // namespace
} // namespace appsync::device
