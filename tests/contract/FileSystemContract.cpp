// Files: what each operation does, refuses and says; no path leads out of the device.
#include "platform/FileSystem.h"
#include "tests/contract/Rules.h"

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

namespace appsync::contract {
namespace {

class Files {
  public:
    explicit Files(const Platform& platform) : _files(platform.files) {}
    FileSystem* operator->() const { return &_files; }
    void folder(std::string_view path) const {
        EXPECT_TRUE(_files.createDirectory(path, true, std::nullopt, nullptr)) << path;
    }
    void file(std::string_view path, std::string_view bytes) const {
        folder(path.substr(0, path.rfind('/')));
        EXPECT_TRUE(_files.createFile(path, bytes, {})) << path;
    }
    std::string content(std::string_view path) const {
        const auto data = _files.readFile(path, nullptr);
        return data ? std::string(data->bytes()) : "(nothing)";
    }

  private:
    FileSystem& _files;
};

/// Refused with this number of the POSIX domain, and the path is named.
void expectPosix(const ErrorPtr& error, std::int64_t number, const std::string& path) {
    ASSERT_NE(error, nullptr) << path;
    EXPECT_EQ(error->domain(), posixErrorDomain);
    EXPECT_EQ(error->code(), number) << textOf(error);
    EXPECT_EQ(error->userInfo().string(errorPathKey), path);
}

} // namespace

TEST_P(FileSystemContract, AFolderIsMadeWithItsParentsWhenThatIsAskedFor) {
    const Files files(platform());
    EXPECT_TRUE(files->createDirectory("/tmp/a/b/c", true, std::nullopt, nullptr));
    EXPECT_TRUE(files->fileExists("/tmp/a/b"));
    EXPECT_TRUE(files->fileExists("/tmp/a/b/c"));
    ErrorPtr error;
    EXPECT_TRUE(files->createDirectory("/tmp/a/b", true, std::nullopt, &error)) << "one that is there is no error";
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(files->fileExists("/tmp/a/b/c"));
}

TEST_P(FileSystemContract, AFolderWithoutItsParentsIsMadeOnlyInAFolderAndOnlyOnce) {
    const Files files(platform());
    ErrorPtr error;
    EXPECT_FALSE(files->createDirectory("/tmp/a/b", false, std::nullopt, &error));
    expectPosix(error, ENOENT, "/tmp/a/b");
    EXPECT_FALSE(files->fileExists("/tmp/a"));
    EXPECT_TRUE(files->createDirectory("/tmp/a", false, std::nullopt, nullptr));
    EXPECT_FALSE(files->createDirectory("/tmp/a", false, std::nullopt, &error));
    expectPosix(error, EEXIST, "/tmp/a");
}

TEST_P(FileSystemContract, AFolderIsNotMadeWhereAFileStands) {
    const Files files(platform());
    files.file("/tmp/file", "file");
    ErrorPtr error;
    EXPECT_FALSE(files->createDirectory("/tmp/file", true, std::nullopt, &error));
    expectPosix(error, EEXIST, "/tmp/file");
    EXPECT_FALSE(files->createDirectory("/tmp/file/below", true, std::nullopt, &error));
    expectPosix(error, ENOTDIR, "/tmp/file/below");
    EXPECT_EQ(files.content("/tmp/file"), "file");
}

TEST_P(FileSystemContract, AttributesThatTheDeviceDoesNotKnowAreNoObstacle) {
    const Files files(platform());
    const FileAttributes attributes{"nobody-of-this-name", "nogroup-of-this-name"};
    EXPECT_TRUE(files->createDirectory("/tmp/a", false, attributes, nullptr));
    EXPECT_TRUE(files->createFile("/tmp/a/file", "bytes", attributes));
    EXPECT_EQ(files.content("/tmp/a/file"), "bytes");
}

TEST_P(FileSystemContract, RemovingAFolderTakesEverythingInIt) {
    const Files files(platform());
    files.file("/tmp/a/b/file", "1");
    files.file("/tmp/ab", "2");
    EXPECT_TRUE(files->removeItem("/tmp/a", nullptr));
    EXPECT_FALSE(files->fileExists("/tmp/a/b/file"));
    EXPECT_FALSE(files->fileExists("/tmp/a"));
    EXPECT_EQ(files.content("/tmp/ab"), "2");
    ErrorPtr error;
    EXPECT_FALSE(files->removeItem("/tmp/a", &error)) << "that nothing is there is an error";
    expectPosix(error, ENOENT, "/tmp/a");
}

TEST_P(FileSystemContract, AMoveTakesAFolderWithEverythingInIt) {
    const Files files(platform());
    files.file("/tmp/a/b/file", "1");
    files.file("/tmp/ab", "2");
    EXPECT_TRUE(files->moveItem("/tmp/a", "/tmp/moved", nullptr));
    EXPECT_EQ(files.content("/tmp/moved/b/file"), "1");
    EXPECT_FALSE(files->fileExists("/tmp/a"));
    EXPECT_EQ(files.content("/tmp/ab"), "2");
}

TEST_P(FileSystemContract, AMoveGoesOnlyToWhereNothingIsYet) {
    const Files files(platform());
    files.file("/tmp/from", "from");
    files.file("/tmp/to", "to");
    files.folder("/tmp/folder");
    for (const std::string target : {"/tmp/to", "/tmp/folder"}) {
        ErrorPtr error;
        EXPECT_FALSE(files->moveItem("/tmp/from", target, &error));
        expectPosix(error, EEXIST, target);
    }
    EXPECT_EQ(files.content("/tmp/from"), "from");
    EXPECT_EQ(files.content("/tmp/to"), "to");
}

TEST_P(FileSystemContract, AMoveNeedsSomethingToMoveAndAFolderToMoveItTo) {
    const Files files(platform());
    files.file("/tmp/from", "from");
    EXPECT_FALSE(files->moveItem("/tmp/missing", "/tmp/to", nullptr));
    EXPECT_FALSE(files->fileExists("/tmp/to"));
    ErrorPtr error;
    EXPECT_FALSE(files->moveItem("/tmp/from", "/tmp/missing/to", &error));
    expectPosix(error, ENOENT, "/tmp/missing/to");
    EXPECT_EQ(files.content("/tmp/from"), "from");
}

TEST_P(FileSystemContract, ACopyReplacesAFileAndLeavesItsSource) {
    const Files files(platform());
    files.file("/tmp/from", "from");
    files.file("/tmp/to", "to");
    EXPECT_TRUE(files->copyItem("/tmp/from", "/tmp/to", nullptr));
    EXPECT_TRUE(files->copyItem("/tmp/from", "/tmp/new", nullptr));
    EXPECT_EQ(files.content("/tmp/to"), "from");
    EXPECT_EQ(files.content("/tmp/new"), "from");
    EXPECT_EQ(files.content("/tmp/from"), "from");
}

TEST_P(FileSystemContract, OnlyAFileCanBeCopied) {
    const Files files(platform());
    files.folder("/tmp/folder");
    files.file("/tmp/file", "file");
    ErrorPtr error;
    EXPECT_FALSE(files->copyItem("/tmp/missing", "/tmp/file", &error));
    expectPosix(error, ENOENT, "/tmp/missing");
    EXPECT_FALSE(files->copyItem("/tmp/folder", "/tmp/to", &error));
    expectPosix(error, EISDIR, "/tmp/folder");
    EXPECT_FALSE(files->copyItem("/tmp/file", "/tmp/missing/to", &error));
    expectPosix(error, ENOENT, "/tmp/missing/to");
    EXPECT_EQ(files.content("/tmp/file"), "file");
    EXPECT_FALSE(files->fileExists("/tmp/to"));
}

TEST_P(FileSystemContract, OnlyAFileCanBeRead) {
    const Files files(platform());
    files.folder("/tmp/folder");
    ErrorPtr error;
    EXPECT_EQ(files->readFile("/tmp/missing", &error), std::nullopt);
    expectPosix(error, ENOENT, "/tmp/missing");
    EXPECT_EQ(files->readFile("/tmp/folder", &error), std::nullopt);
    expectPosix(error, EISDIR, "/tmp/folder");
}

TEST_P(FileSystemContract, AReadGivesTheWholeContentAsItIsNow) {
    const Files files(platform());
    std::string bytes(300'000, 'x');
    bytes[7] = '\0';
    files.file("/tmp/file", bytes);
    EXPECT_EQ(files.content("/tmp/file"), bytes);
    files.file("/tmp/file", "");
    EXPECT_EQ(files.content("/tmp/file"), "");
    EXPECT_TRUE(files->writeFileAtomically("/tmp/file", "new", nullptr));
    EXPECT_EQ(files.content("/tmp/file"), "new");
}

TEST_P(FileSystemContract, AFileIsWrittenOnlyIntoAFolderThatIsThere) {
    const Files files(platform());
    ErrorPtr error;
    EXPECT_FALSE(files->writeFileAtomically("/tmp/missing/file", "bytes", &error));
    expectPosix(error, ENOENT, "/tmp/missing/file");
    EXPECT_FALSE(files->createFile("/tmp/missing/file", "bytes", {}));
    EXPECT_FALSE(files->fileExists("/tmp/missing"));
}

TEST_P(FileSystemContract, AFileDoesNotTakeTheWayOfAFolder) {
    const Files files(platform());
    files.file("/tmp/folder/file", "file");
    ErrorPtr error;
    EXPECT_FALSE(files->writeFileAtomically("/tmp/folder", "bytes", &error));
    expectPosix(error, EISDIR, "/tmp/folder");
    EXPECT_FALSE(files->createFile("/tmp/folder", "bytes", {}));
    EXPECT_EQ(files.content("/tmp/folder/file"), "file");
}

TEST_P(FileSystemContract, AtEveryMomentTheOldContentOrTheNewOneStandsThereWhole) {
    const Files files(platform());
    const std::string contents[] = {std::string(100'000, 'a'), std::string(50'000, 'b')};
    files.file("/tmp/file", contents[0]);
    std::atomic<bool> isDone = false;
    std::vector<std::thread> writers;
    for (const std::string& content : contents) {
        writers.emplace_back([&] {
            for (int i = 0; i < 40; ++i) {
                EXPECT_TRUE(files->writeFileAtomically("/tmp/file", content, nullptr));
            }
        });
    }
    std::thread reader([&] {
        while (!isDone) {
            const std::string seen = files.content("/tmp/file");
            EXPECT_TRUE(seen == contents[0] || seen == contents[1]) << seen.size() << " bytes";
        }
    });
    for (std::thread& writer : writers) {
        writer.join();
    }
    isDone = true;
    reader.join();
}

TEST_P(FileSystemContract, WhatWasWrittenAtomicallyIsThereForTheNextProcess) {
    APPSYNC_NEEDS(outlivesItsProcess);
    EXPECT_TRUE(platform().files.writeFileAtomically("/var/mobile/Library/kept", "kept", nullptr));
    restart();
    EXPECT_EQ(Files(platform()).content("/var/mobile/Library/kept"), "kept");
}

TEST_P(FileSystemContract, SizesAreBytes) {
    const Files files(platform());
    files.file("/tmp/file", "12345");
    files.folder("/tmp/folder");
    const auto information = files->attributesOfItem("/tmp/file", nullptr);
    ASSERT_TRUE(information);
    EXPECT_EQ(information->size, 5U);
    EXPECT_TRUE(files->attributesOfItem("/tmp/folder", nullptr)) << "a folder has attributes too";
    ErrorPtr error;
    EXPECT_FALSE(files->attributesOfItem("/tmp/missing", &error));
    expectPosix(error, ENOENT, "/tmp/missing");
}

TEST_P(FileSystemContract, TimesCanBeSetOfWhatIsThere) {
    const Files files(platform());
    files.file("/tmp/folder/file", "12345");
    EXPECT_EQ(files->utimes("/tmp/folder/file"), 0);
    EXPECT_EQ(files->utimes("/tmp/folder"), 0);
    EXPECT_EQ(files->utimes("/tmp/missing"), ENOENT);
    EXPECT_EQ(files.content("/tmp/folder/file"), "12345");
}

TEST_P(FileSystemContract, ErrorNumbersHaveTextsOfTheirOwn) {
    EXPECT_NE(platform().files.errorText(ENOENT), "");
    EXPECT_NE(platform().files.errorText(ENOENT), platform().files.errorText(EACCES));
    EXPECT_NE(platform().files.errorText(-17), "") << "even if nobody knows the number";
}

TEST_P(FileSystemContract, APathIsAbsoluteAndHasNoZeroByte) {
    const Files files(platform());
    for (const std::string& path : {std::string("file"), std::string(), std::string("/tmp/a\0b", 8)}) {
        ErrorPtr error;
        EXPECT_FALSE(files->writeFileAtomically(path, "bytes", &error)) << path;
        EXPECT_NE(error, nullptr) << path;
        EXPECT_FALSE(files->createFile(path, "bytes", {})) << path;
        EXPECT_FALSE(files->createDirectory(path, true, std::nullopt, nullptr)) << path;
        EXPECT_FALSE(files->fileExists(path)) << path;
        EXPECT_FALSE(files->readFile(path, nullptr)) << path;
    }
    EXPECT_FALSE(files->fileExists("/tmp/a"));
}

TEST_P(FileSystemContract, AboveTheTopOfTheDeviceIsTheTop) {
    const Files files(platform());
    files.file("/tmp/inside", "inside");
    EXPECT_EQ(files.content("/../../tmp/inside"), "inside");
    EXPECT_EQ(files.content("/tmp/./x/../inside"), "(nothing)") << "there is no folder to come back from";
    EXPECT_EQ(files.content("/tmp/../tmp/inside"), "inside");
    EXPECT_TRUE(files->createDirectory("/../made/deep", true, std::nullopt, nullptr));
    EXPECT_TRUE(files->writeFileAtomically("/made/../../made/deep/file", "bytes", nullptr));
    EXPECT_EQ(files.content("/made/deep/file"), "bytes");
    EXPECT_TRUE(files->removeItem("/tmp/../../made", nullptr));
    EXPECT_FALSE(files->fileExists("/made"));
    EXPECT_TRUE(device().isOutsideUntouched());
}

TEST_P(FileSystemContract, NoLinkLeadsOutOfTheDevice) {
    APPSYNC_NEEDS(hasLinks);
    const Files files(platform());
    files.file("/tmp/own", "own");
    device().putWayOut("/tmp/out");
    device().putLink("/tmp/chained", "out");
    device().putLink("/tmp/up", "../../..");
    for (const std::string way : {"/tmp/out", "/tmp/chained", "/tmp/up/outside"}) {
        const std::string secret = way + "/secret";
        EXPECT_FALSE(files->fileExists(secret));
        EXPECT_FALSE(files->readFile(secret, nullptr));
        EXPECT_FALSE(files->attributesOfItem(secret, nullptr));
        EXPECT_NE(files->utimes(secret), 0);
        EXPECT_FALSE(files->writeFileAtomically(secret, "bytes", nullptr));
        EXPECT_FALSE(files->createFile(way + "/new", "bytes", {}));
        EXPECT_FALSE(files->createDirectory(way + "/new", false, std::nullopt, nullptr));
        EXPECT_FALSE(files->moveItem(secret, "/tmp/stolen", nullptr));
        EXPECT_FALSE(files->copyItem(secret, "/tmp/stolen", nullptr));
        EXPECT_FALSE(files->moveItem("/tmp/own", way + "/own", nullptr));
        EXPECT_FALSE(files->copyItem("/tmp/own", secret, nullptr));
        EXPECT_FALSE(files->removeItem(secret, nullptr));
    }
    EXPECT_TRUE(files->removeItem("/tmp/out", nullptr)) << "a link can be removed";
    EXPECT_TRUE(device().isOutsideUntouched());
}

TEST_P(FileSystemContract, RemovingAndReplacingALinkLeaveWhatItNames) {
    APPSYNC_NEEDS(hasLinks);
    const Files files(platform());
    files.file("/var/mobile/kept/file", "kept");
    files.folder("/tmp/tree");
    device().putLink("/tmp/tree/link", "/var/mobile/kept");
    device().putWayOut("/tmp/tree/out");
    device().putLink("/tmp/link", "/var/mobile/kept/file");
    EXPECT_EQ(files.content("/tmp/tree/link/file"), "kept") << "an absolute link is the device's";
    EXPECT_TRUE(files->removeItem("/tmp/tree", nullptr));
    EXPECT_TRUE(files->writeFileAtomically("/tmp/link", "new", nullptr));
    EXPECT_EQ(files.content("/tmp/link"), "new");
    EXPECT_EQ(files.content("/var/mobile/kept/file"), "kept");
    EXPECT_TRUE(device().isOutsideUntouched());
}

} // namespace appsync::contract
