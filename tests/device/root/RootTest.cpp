#include "device/root/Root.h"

#include "Faults.h"
#include "TemporaryFolder.h"
#include "Tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace appsync::device {
namespace {

std::string sentence(const Result<std::unique_ptr<Root>>& result) {
    return errorText(result.error());
}

TEST(Root, CreatesDeviceInFolderThatDoesNotExist) {
    const TemporaryFolder folder;
    const auto root = Root::create(folder / "new/device");
    ASSERT_TRUE(root) << sentence(root);
    EXPECT_EQ((*root)->hostPath(""), folder / "new/device");
    EXPECT_TRUE((*root)->files().fileExists("/var/mobile/Library"));
    EXPECT_TRUE((*root)->files().fileExists(temporaryFolder));
    EXPECT_TRUE(std::filesystem::is_directory(folder / "new/device/var/db"));
    EXPECT_EQ((*root)->databasePath(), folder / "new/device/var/db/device.sqlite");
}

TEST(Root, RefusesToMakeDeviceOfFolderWithOtherFiles) {
    const TemporaryFolder folder;
    writeHostFile(folder / "letter.txt", "dear");
    const auto root = Root::create(folder.path());
    ASSERT_FALSE(root);
    EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::notEmpty));
    EXPECT_EQ(sentence(root), folder.path() + " is not empty and not a device; create the device in an empty folder");
    EXPECT_FALSE(std::filesystem::exists(folder / "device-root"));
}

TEST(Root, CreatingAnExistingDeviceKeepsItsFiles) {
    const TemporaryFolder folder;
    {
        const auto root = Root::create(folder.path());
        ASSERT_TRUE(root);
        ASSERT_TRUE((*root)->files().writeFileAtomically("/var/mobile/Library/a", "kept", nullptr));
    }
    const auto root = Root::create(folder.path());
    ASSERT_TRUE(root) << sentence(root);
    EXPECT_EQ(readHostFile(folder / "var/mobile/Library/a"), "kept");
}

TEST(Root, CreationThatWasCutShortCanBeRepeated) {
    const TemporaryFolder folder;
    for (int step = 0;; ++step) {
        auto faults = std::make_shared<RecordingFaults>();
        faults->failAt = step;
        faults->failure = EIO;
        const auto root = Root::create(folder / "device", {faults});
        if (root) {
            EXPECT_GT(step, 5);
            break;
        }
        EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::failed)) << sentence(root);
        EXPECT_NE(sentence(root).find("Input/output error"), std::string::npos) << sentence(root);
    }
}

TEST(Root, DeviceSurvivesACreationThatEndsAnywhere) {
    const TemporaryFolder folder;
    for (int step = 0;; ++step) {
        const std::string path = folder / ("device" + std::to_string(step));
        const pid_t child = ::fork();
        if (child == 0) {
            const auto root = Root::create(path, {std::make_shared<EndingFaults>(step)});
            ::_exit(root ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        const auto root = Root::create(path);
        ASSERT_TRUE(root) << step << ": " << sentence(root);
        if (WIFEXITED(status)) {
            EXPECT_EQ(WEXITSTATUS(status), 0);
            EXPECT_GT(step, 5);
            break;
        }
        EXPECT_TRUE(EndingFaults::hasEnded(status)) << status;
    }
}

TEST(Root, MountPointWithLostFilesFolderCountsAsEmpty) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "lost+found");
    EXPECT_TRUE(Root::create(folder.path()));
}

TEST(Root, SaysThatThereIsNoSuchFolder) {
    const TemporaryFolder folder;
    const auto root = Root::open(folder / "missing");
    ASSERT_FALSE(root);
    EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::noSuchFolder));
    EXPECT_NE(sentence(root).find(folder / "missing"), std::string::npos);
}

TEST(Root, SaysThatAFolderIsNoDevice) {
    const TemporaryFolder folder;
    const auto root = Root::open(folder.path());
    ASSERT_FALSE(root);
    EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::notADevice));
    EXPECT_EQ(sentence(root), folder.path() +
                                  " is not a device (it has no layout file); name the folder of a device, or "
                                  "create one first");
}

TEST(Root, DamagedLayoutFileIsNoDevice) {
    const TemporaryFolder folder;
    for (const std::string content : {"", "application", "application device root, layout x\n", "\n1"}) {
        writeHostFile(folder / "device-root", content);
        const auto root = Root::open(folder.path());
        ASSERT_FALSE(root) << content;
        EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::notADevice)) << content;
    }
}

TEST(Root, RefusesLayoutOfALaterProgram) {
    const TemporaryFolder folder;
    writeHostFile(folder / "device-root", "application device root, layout 2\n");
    const auto root = Root::open(folder.path());
    ASSERT_FALSE(root);
    EXPECT_TRUE(isError(root.error(), rootErrorDomain, RootError::newerLayout));
    EXPECT_NE(sentence(root).find("layout 2"), std::string::npos);
    EXPECT_NE(sentence(root).find("use the program that made the device"), std::string::npos);
}

TEST(Root, SecondOpenerHearsWhoHasTheDevice) {
    const TemporaryFolder folder;
    const auto first = Root::create(folder.path(), nullptr, "a sync");
    ASSERT_TRUE(first);
    const auto second = Root::open(folder.path());
    ASSERT_FALSE(second);
    EXPECT_TRUE(isError(second.error(), rootErrorDomain, RootError::inUse));
    EXPECT_EQ(sentence(second), "the device " + folder.path() + " is in use by a sync (process " +
                                    std::to_string(::getpid()) +
                                    "); only one process at a time can change it: end that one, or wait for it");
}

TEST(Root, TellsWhoHasTheDeviceAndSinceWhen) {
    const TemporaryFolder folder;
    const auto before = std::chrono::system_clock::now() - std::chrono::seconds(1);
    {
        const auto root = Root::create(folder.path(), nullptr, "a restore");
        const auto owner = Root::owner(folder.path());
        ASSERT_TRUE(owner);
        EXPECT_EQ(owner->purpose, "a restore");
        EXPECT_EQ(owner->process, ::getpid());
        EXPECT_GT(owner->since, before);
        EXPECT_LE(owner->since, std::chrono::system_clock::now());
        EXPECT_TRUE(Root::owner(folder.path())) << "asking takes nothing";
    }
    EXPECT_FALSE(Root::owner(folder.path())) << "what the last owner has left means nothing";
    EXPECT_FALSE(Root::owner(folder / "none"));
}

TEST(Root, TakesNoStrangersWordForTheOwner) {
    const TemporaryFolder folder;
    const auto root = Root::create(folder.path());
    for (const std::string text : {"", "\n", "process", "process x since 1: a\n", "process 1 since : a\n",
                                   "process 1 since 1: a", "process 99999999999999999999 since 1: a\n"}) {
        writeHostFile(folder / "device-lock", text);
        const auto owner = Root::owner(folder.path());
        ASSERT_TRUE(owner) << text;
        EXPECT_EQ(owner->purpose, "") << text;
    }
    writeHostFile(folder / "device-lock", "process 1 since 1: " + std::string(100'000, 'x') + "\n");
    EXPECT_EQ(Root::owner(folder.path())->purpose, "");
}

TEST(Root, LookingTakesNoLockAndChangesNothing) {
    const TemporaryFolder folder;
    (void)Root::create(folder.path());
    writeHostFile(folder / "tmp/.00ff-1.device-tmp", "half");
    std::filesystem::remove_all(folder / "var/mobile/Media");
    const auto owner = Root::create(folder / "other");
    const Tree before(folder.path());
    const auto first = Root::look(folder.path());
    const auto second = Root::look(folder / "other");
    ASSERT_TRUE(first && second);
    EXPECT_FALSE(Root::owner(folder.path()));
    EXPECT_EQ(Tree(folder.path()), before);
    EXPECT_FALSE(Root::look(folder / "none"));
    EXPECT_TRUE(isError(Root::look(folder / "tmp").error(), rootErrorDomain, RootError::notADevice));
}

TEST(Root, WhoLooksIsRefusedEveryChange) {
    const TemporaryFolder folder;
    ASSERT_TRUE((*Root::create(folder.path()))->files().writeFileAtomically("/tmp/a", "a", nullptr));
    const Tree before(folder.path());
    const auto root = Root::look(folder.path());
    DeviceFileSystem& files = (*root)->files();
    ErrorPtr error;
    const auto isRefused = [&](bool done) {
        return !done && isError(std::exchange(error, {}), posixErrorDomain, EROFS);
    };
    EXPECT_EQ(files.readFile("/tmp/a", nullptr), Data("a"));
    EXPECT_TRUE(isRefused(files.createDirectory("/tmp/b", true, std::nullopt, &error)));
    EXPECT_TRUE(isRefused(files.removeItem("/tmp/a", &error)));
    EXPECT_TRUE(isRefused(files.removeItem("/var/mobile", &error)));
    EXPECT_TRUE(isRefused(files.moveItem("/tmp/a", "/tmp/b", &error)));
    EXPECT_TRUE(isRefused(files.copyItem("/tmp/a", "/tmp/b", &error)));
    EXPECT_TRUE(isRefused(files.writeFileAtomically("/tmp/a", "b", &error)));
    EXPECT_FALSE(files.createFile("/tmp/b", "b", {}));
    EXPECT_EQ(files.utimes("/tmp/a"), EROFS);
    for (const int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
        error = files.open("/tmp/a", flags).error();
        EXPECT_TRUE(isRefused(false)) << flags;
    }
    EXPECT_FALSE(files.sync());
    files.removeLeftovers("/tmp");
    EXPECT_EQ(Tree(folder.path()), before);
}

TEST(Root, ClosingGivesTheDeviceFree) {
    const TemporaryFolder folder;
    ASSERT_TRUE(Root::create(folder.path()));
    EXPECT_TRUE(Root::open(folder.path()));
}

TEST(Root, SymbolicLinkToADeviceIsTheDevice) {
    const TemporaryFolder folder;
    ASSERT_TRUE(Root::create(folder / "device"));
    std::filesystem::create_symlink("device", folder / "link");
    const auto root = Root::open(folder / "link");
    ASSERT_TRUE(root);
    EXPECT_EQ((*root)->hostPath(""), folder / "device");
}

TEST(Root, SaysThatADeviceIsNotWritable) {
    const TemporaryFolder folder;
    ASSERT_TRUE(Root::create(folder.path()));
    // As an account that may look but not write; the answer comes back through the exit status.
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    std::filesystem::permissions(folder / "device-lock", std::filesystem::perms(0444));
    const pid_t child = ::fork();
    if (child == 0) {
        constexpr uid_t nobody = 65534;
        if (::getuid() == 0 && ::setuid(nobody) != 0) {
            ::_exit(2);
        }
        const auto root = Root::open(folder.path());
        ::_exit(!root && isError(root.error(), rootErrorDomain, RootError::notWritable) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Root, OpeningRemovesWhatInterruptedWritesLeft) {
    const TemporaryFolder folder;
    ASSERT_TRUE(Root::create(folder.path()));
    std::filesystem::create_directories(folder / "var/mobile/Library/ApplicationSync/Icons");
    std::filesystem::create_directories(folder / "tmp/Apps/org.example.app.app");
    const std::string leftover = folder / "var/mobile/Library/ApplicationSync/Icons/.00ff-1.device-tmp";
    const std::string iconCopy = folder / "tmp/Apps/org.example.app.app/.00ff-2.device-tmp";
    const std::string file = folder / "var/mobile/Library/ApplicationSync/RestoreState.plist";
    writeHostFile(leftover, "half");
    writeHostFile(iconCopy, "half");
    writeHostFile(file, "whole");
    ASSERT_TRUE(Root::open(folder.path()));
    EXPECT_FALSE(std::filesystem::exists(leftover));
    EXPECT_FALSE(std::filesystem::exists(iconCopy));
    EXPECT_EQ(readHostFile(file), "whole");
}

} // namespace
} // namespace appsync::device
