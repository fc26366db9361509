// Data that waits to be restored, and the crash in the middle of restoring it.
#include "device/services/BackupService.h"
#include "device/root/Paths.h"
#include "device/services/DemotedApps.h"
#include "platform/host/Places.h"
#include "propertylist/Codec.h"
#include "tests/device/root/Faults.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

#include <atomic>

namespace appsync::device {
namespace {

const std::string A = "com.example.a";
const std::string waiting = "/var/mobile/Library/RestoreData";

/// Ends the process before the n-th change after it was armed.
class ArmedFaults final : public FaultPoint {
  public:
    explicit ArmedFaults(int endAt) : _left(endAt) {}
    void arm() { _isArmed = true; }
    int before(std::string_view, std::string_view) noexcept override {
        if (_isArmed && _left-- == 0) {
            ::kill(::getpid(), SIGKILL);
        }
        return 0;
    }

  private:
    std::atomic<bool> _isArmed = false;
    std::atomic<int> _left;
};

class BackupServiceTest : public testing::Test {
  protected:
    [[nodiscard]] static std::unique_ptr<BackupService> open(OpenRoot& device) {
        return std::move(*BackupService::open(*device.database, device.files()));
    }
    void reopen(const std::shared_ptr<FaultPoint>& faults = nullptr) {
        manager.reset();
        backup.reset();
        device.reopen(faults);
        backup = open(device);
        manager = backup->init();
    }
    static void write(OpenRoot& device, const std::string& path, const std::string& text) {
        ASSERT_TRUE(device.files().createDirectory(path.substr(0, path.rfind('/')), true, std::nullopt, nullptr));
        ASSERT_TRUE(device.files().createFile(path, text, {}));
    }
    [[nodiscard]] static std::string read(OpenRoot& device, const std::string& path) {
        const auto bytes = device.files().readFile(path, nullptr);
        return bytes ? std::string(bytes->bytes()) : "(missing)";
    }
    static Result<void> add(OpenRoot& device, BackupService& backup, const std::string& bundleID,
                            const std::string& text) {
        write(device, "/tmp/data/sub/file", text);
        return backup.addRestoreData(bundleID, "/tmp/data");
    }
    Result<void> add(const std::string& bundleID, const std::string& text) {
        return add(device, *backup, bundleID, text);
    }
    [[nodiscard]] static std::string dataFile(const std::string& bundleID) {
        return dataContainerPath(bundleID) + "/sub/file";
    }

    OpenRoot device;
    std::unique_ptr<BackupService> backup = open(device);
    std::shared_ptr<HVManager> manager = backup->init();
};

TEST_F(BackupServiceTest, KnowsForWhichAppsDataWaitsAndHowMuch) {
    ASSERT_TRUE(add(A, "12345"));
    EXPECT_FALSE(device.files().fileExists("/tmp/data"));
    std::uint64_t size = 1;
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size(A, &size));
    EXPECT_EQ(size, 5U);
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size(A, nullptr));
    EXPECT_EQ(read(device, **backup->restoreDataFolder(A) + "/sub/file"), "12345");
    size = 1;
    EXPECT_FALSE(manager->restoreDataExistsForApplicationWithBundleID_size("com.example.b", &size));
    EXPECT_EQ(size, 1U);
    EXPECT_FALSE(*backup->restoreDataFolder("com.example.b"));
}

TEST_F(BackupServiceTest, LaterDataReplacesEarlier) {
    ASSERT_TRUE(add("b", "1"));
    ASSERT_TRUE(add("a", "22"));
    ASSERT_TRUE(add("b", "333"));
    const auto all = backup->restoreData();
    ASSERT_TRUE(all);
    ASSERT_EQ(all->size(), 2U);
    EXPECT_EQ((*all)[0].bundleID, "a");
    EXPECT_EQ((*all)[1].size, 3U);
    EXPECT_EQ(device.files().list(waiting)->size(), 2U);
}

TEST_F(BackupServiceTest, DataThatIsNotThereOrForNoAppIsRefused) {
    EXPECT_FALSE(backup->addRestoreData(A, "/tmp/nothing"));
    write(device, "/tmp/data/file", "x");
    for (const std::string bad : {"", ".", "..", "a/b", "../a"}) {
        EXPECT_TRUE(isError(backup->addRestoreData(bad, "/tmp/data").error(), backupErrorDomain,
                            BackupError::invalidIdentifier))
            << bad;
    }
    EXPECT_TRUE(device.files().fileExists("/tmp/data/file"));
}

TEST_F(BackupServiceTest, CancellingRemovesTheDataAndASecondTimeIsAnError) {
    ASSERT_TRUE(add(A, "2"));
    ErrorPtr error;
    EXPECT_TRUE(manager->cancelApplicationRestoreWithBundleID_error(A, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(backup->restoreDataSize(A));
    EXPECT_TRUE(device.files().list(waiting)->empty());
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error(A, &error));
    EXPECT_TRUE(isError(error, backupErrorDomain, BackupError::nothingToCancel));
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error(A, nullptr));
}

TEST_F(BackupServiceTest, RestoringReplacesTheAppsData) {
    write(device, dataContainerPath(A) + "/old", "old");
    ASSERT_TRUE(add(A, "new"));
    reopen();
    ASSERT_TRUE(backup->restoreApplicationData(A));
    EXPECT_EQ(read(device, dataFile(A)), "new");
    EXPECT_FALSE(device.files().fileExists(dataContainerPath(A) + "/old"));
    EXPECT_TRUE(device.files().list(waiting)->empty());
    EXPECT_FALSE(backup->restoreDataSize(A));
    EXPECT_TRUE(isError(backup->restoreApplicationData(A).error(), backupErrorDomain, BackupError::nothingToRestore));
}

TEST_F(BackupServiceTest, WhatBelongsToNobodyIsClearedAway) {
    ASSERT_TRUE(add(A, "new"));
    write(device, waiting + "/orphan/file", "x");
    device.files().removeItem(**backup->restoreDataFolder(A), nullptr);
    reopen();
    EXPECT_TRUE(device.files().list(waiting)->empty());
    EXPECT_FALSE(backup->restoreDataSize(A)) << "its folder is gone";
}

TEST_F(BackupServiceTest, AFailureLeavesTheOldDataAndTheWaitingData) {
    write(device, dataFile(A), "old");
    ASSERT_TRUE(add(A, "new"));
    const auto faults = std::make_shared<RecordingFaults>();
    int failures = 0;
    for (int change = 0;; ++change) {
        SCOPED_TRACE(change);
        faults->failAt = -1;
        reopen(faults);
        faults->forget();
        faults->failAt = change;
        faults->failure = ENOSPC;
        const bool isRestored = bool(backup->restoreApplicationData(A));
        faults->failAt = -1;
        if (read(device, dataFile(A)) == "new") {
            break; // from here on only the clearing away can fail
        }
        ASSERT_FALSE(isRestored);
        ++failures;
        EXPECT_EQ(read(device, dataFile(A)), "old");
        EXPECT_TRUE(backup->restoreDataSize(A));
    }
    EXPECT_GE(failures, 2);
    reopen();
    EXPECT_EQ(read(device, dataFile(A)), "new");
}

/// Fails every move to the place of an app's data, the one that takes the first move back included.
class FailingMoves final : public FaultPoint {
  public:
    int before(std::string_view operation, std::string_view path) noexcept override {
        return isArmed && operation == "rename" && path == dataContainerPath(A) ? EIO : 0;
    }
    std::atomic<bool> isArmed = false;
};

TEST_F(BackupServiceTest, OldDataThatCouldNotBeMovedBackOutlastsACancelAndASecondRestore) {
    const std::vector<std::function<Result<void>()>> ends{[&] { return backup->cancelRestore(A); },
                                                          [&] { return add(A, "newest"); }};
    for (const auto& end : ends) {
        const auto faults = std::make_shared<FailingMoves>();
        reopen(faults);
        device.files().removeItem(dataContainerPath(A), nullptr);
        write(device, dataFile(A), "old");
        ASSERT_TRUE(add(A, "new"));
        faults->isArmed = true;
        EXPECT_FALSE(backup->restoreApplicationData(A));
        EXPECT_FALSE(end()) << "the old data cannot be put back yet";
        faults->isArmed = false;
        EXPECT_TRUE(end());
        EXPECT_EQ(read(device, dataFile(A)), "old");
        reopen();
        EXPECT_EQ(read(device, dataFile(A)), "old");
    }
}

TEST_F(BackupServiceTest, ARestoreWhoseOldDataCouldNotBeMovedBackIsEndedAtTheNextStart) {
    const auto faults = std::make_shared<FailingMoves>();
    reopen(faults);
    write(device, dataFile(A), "old");
    ASSERT_TRUE(add(A, "new"));
    faults->isArmed = true;
    EXPECT_FALSE(backup->restoreApplicationData(A));
    EXPECT_FALSE(device.files().fileExists(dataFile(A)));
    reopen(faults);
    EXPECT_TRUE(backup->restoreDataSize(A)) << "it cannot be ended yet";
    reopen();
    EXPECT_EQ(read(device, dataFile(A)), "new");
    EXPECT_TRUE(device.files().list(waiting)->empty());
}

TEST_F(BackupServiceTest, WhatCannotBeReadIsNotTakenForNothing) {
    ASSERT_TRUE(add(A, "1"));
    {
        Database::Transaction transaction(*device.database);
        transaction.run("ALTER TABLE restoreData RENAME TO elsewhere");
        ASSERT_TRUE(transaction.commit());
    }
    EXPECT_FALSE(backup->restoreDataFolder(A));
    EXPECT_TRUE(isError(backup->restoreApplicationData(A).error(), databaseErrorDomain, DatabaseError::failed));
    EXPECT_TRUE(isError(backup->cancelRestore(A).error(), databaseErrorDomain, DatabaseError::failed));
}

TEST_F(BackupServiceTest, ACrashAnywhereLeavesTheOldDataOrTheNewAndNothingElse) {
    bool isOver = false;
    int old = 0;
    for (int change = 0; !isOver; ++change) {
        SCOPED_TRACE(change);
        OpenRoot root;
        {
            const auto service = open(root);
            write(root, dataFile(A), "old");
            ASSERT_TRUE(add(root, *service, A, "new"));
        }
        root.database.reset();
        root.root.reset();
        const pid_t child = ::fork();
        if (child == 0) {
            const auto faults = std::make_shared<ArmedFaults>(change);
            root.open(faults);
            const auto service = open(root);
            faults->arm();
            ::_exit(service->restoreApplicationData(A) ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        isOver = WIFEXITED(status);
        ASSERT_TRUE(isOver || EndingFaults::hasEnded(status));
        EXPECT_TRUE(!isOver || WEXITSTATUS(status) == 0);
        root.open();
        const auto service = open(root);
        const bool isWaiting = service->restoreDataSize(A).has_value();
        EXPECT_EQ(read(root, dataFile(A)), isWaiting ? "old" : "new");
        EXPECT_EQ(root.files().list(waiting)->size(), isWaiting ? 1U : 0U);
        EXPECT_EQ(root.files().list(dataContainersFolder)->size(), 1U);
        old += isWaiting ? 1 : 0;
    }
    EXPECT_GE(old, 1);
}

class DemotedAppsTest : public testing::Test {
  protected:
    OpenRoot device;
    PropertyListCodec codec;
};

TEST_F(DemotedAppsTest, AnAppIsOnOneListAndTheFileOutlastsTheProcess) {
    {
        const auto opened = DemotedApps::open(device.files(), codec);
        ASSERT_TRUE(opened);
        DemotedApps& demoted = **opened;
        EXPECT_TRUE(demoted.change([&](DemotionLists& lists) { lists.put("a", false); }));
        EXPECT_TRUE(demoted.change([&](DemotionLists& lists) { lists.put("b", true); }));
        EXPECT_TRUE(demoted.change([&](DemotionLists& lists) { lists.put("a", true); }));
        EXPECT_TRUE(demoted.change([&](DemotionLists& lists) { lists.take("b"); }));
        EXPECT_TRUE(demoted.change([&](DemotionLists& lists) { lists.take("c"); }));
    }
    device.reopen();
    const auto opened = DemotedApps::open(device.files(), codec);
    ASSERT_TRUE(opened);
    const DemotionLists lists = (*opened)->lists();
    EXPECT_EQ(lists.automatic, std::set<std::string>{"a"});
    EXPECT_EQ(lists.intentional, std::set<std::string>());
}

TEST_F(DemotedAppsTest, ADamagedFileCountsAsEmpty) {
    ASSERT_TRUE(device.files().createDirectory("/var/mobile/Library/Preferences", true, std::nullopt, nullptr));
    ASSERT_TRUE(device.files().createFile(paths::demotedApps, "damaged", {}));
    const auto opened = DemotedApps::open(device.files(), codec);
    ASSERT_TRUE(opened);
    DemotedApps& demoted = **opened;
    EXPECT_EQ(demoted.lists().propertyList(),
              (Dictionary{{"AutomaticDowngrades", Array{}}, {"IntentionalDowngrades", Array{}}}));
    EXPECT_FALSE(DemotionLists::fromPropertyList(Value("text")));
    const auto odd = DemotionLists::fromPropertyList(
        Value(Dictionary{{"AutomaticDowngrades", Array{1, "a"}}, {"IntentionalDowngrades", "b"}}));
    EXPECT_EQ(odd->automatic, std::set<std::string>{"a"});
    EXPECT_TRUE(odd->intentional.empty());
}

} // namespace
} // namespace appsync::device
