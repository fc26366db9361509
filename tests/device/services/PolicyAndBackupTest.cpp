#include "device/services/BackupService.h"
#include "device/services/DevicePolicy.h"
#include "device/services/DeviceProcess.h"
#include "tests/device/root/Faults.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

namespace appsync::device {
namespace {

class DevicePolicyTest : public testing::Test {
  protected:
    [[nodiscard]] std::unique_ptr<DevicePolicy> open() { return std::move(*DevicePolicy::open(*device.database)); }
    OpenRoot device;
};

TEST_F(DevicePolicyTest, ASettingThatNobodyHasSetIsUnset) {
    EXPECT_EQ(open()->sharedConnection()->effectiveBoolValueForSetting(OLFeatureAppInstallationAllowed),
              OLBoolValue::unset);
}

TEST_F(DevicePolicyTest, ASettingIsAnsweredByTheConnectionAndKept) {
    {
        const auto policy = open();
        const auto connection = policy->sharedConnection();
        EXPECT_TRUE(policy->set(OLFeatureAppInstallationAllowed, OLBoolValue::explicitlyNo));
        EXPECT_TRUE(policy->set(OLFeatureAppRemovalAllowed, OLBoolValue::explicitlyYes));
        EXPECT_EQ(connection->effectiveBoolValueForSetting(OLFeatureAppInstallationAllowed), OLBoolValue::explicitlyNo);
    }
    device.reopen();
    const auto policy = open();
    EXPECT_EQ(policy->value(OLFeatureAppInstallationAllowed), OLBoolValue::explicitlyNo);
    EXPECT_EQ(policy->value(OLFeatureAppRemovalAllowed), OLBoolValue::explicitlyYes);
}

TEST_F(DevicePolicyTest, ASettingCanBeUnsetAgain) {
    {
        const auto policy = open();
        EXPECT_TRUE(policy->set("s", OLBoolValue::explicitlyNo));
        EXPECT_TRUE(policy->set("s", OLBoolValue::unset));
        EXPECT_EQ(policy->value("s"), OLBoolValue::unset);
    }
    device.reopen();
    EXPECT_EQ(open()->value("s"), OLBoolValue::unset);
}

TEST_F(DevicePolicyTest, ASettingThatCannotBeWrittenStaysAsItWas) {
    const auto faults = std::make_shared<RecordingFaults>();
    device.reopen(faults);
    const auto policy = open();
    faults->forget();
    faults->failAt = 0;
    faults->failure = ENOSPC;
    EXPECT_FALSE(policy->set("s", OLBoolValue::explicitlyNo));
    EXPECT_EQ(policy->value("s"), OLBoolValue::unset);
}

TEST_F(DevicePolicyTest, ADamagedRowCountsAsUnset) {
    (void)open();
    {
        Database::Transaction transaction(*device.database);
        transaction.run("INSERT INTO policy VALUES ('s', 99)");
        ASSERT_TRUE(transaction.commit());
    }
    EXPECT_EQ(open()->value("s"), OLBoolValue::unset);
}

class BackupServiceTest : public testing::Test {
  protected:
    OpenRoot device;
    std::unique_ptr<BackupService> backup = std::move(*BackupService::open(*device.database));
    std::shared_ptr<HVManager> manager = backup->init();
};

TEST_F(BackupServiceTest, KnowsForWhichAppsDataWaits) {
    ASSERT_TRUE(backup->addRestoreData({"com.example.a", 5'000'000'000}));
    std::uint64_t size = 1;
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size("com.example.a", &size));
    EXPECT_EQ(size, 5'000'000'000U);
    EXPECT_TRUE(manager->restoreDataExistsForApplicationWithBundleID_size("com.example.a", nullptr));
    size = 1;
    EXPECT_FALSE(manager->restoreDataExistsForApplicationWithBundleID_size("com.example.b", &size));
    EXPECT_EQ(size, 1U);
}

TEST_F(BackupServiceTest, ALaterNoteReplacesAnEarlierOne) {
    ASSERT_TRUE(backup->addRestoreData({"b", 1}));
    ASSERT_TRUE(backup->addRestoreData({"a", 2}));
    ASSERT_TRUE(backup->addRestoreData({"b", 3}));
    const auto all = backup->restoreData();
    ASSERT_TRUE(all);
    ASSERT_EQ(all->size(), 2U);
    EXPECT_EQ((*all)[0].bundleID, "a");
    EXPECT_EQ((*all)[1].size, 3U);
}

TEST_F(BackupServiceTest, CancellingRemovesTheDataAndASecondTimeIsAnError) {
    ASSERT_TRUE(backup->addRestoreData({"a", 2}));
    ErrorPtr error;
    EXPECT_TRUE(manager->cancelApplicationRestoreWithBundleID_error("a", &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_FALSE(backup->restoreDataSize("a"));
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error("a", &error));
    EXPECT_TRUE(isError(error, BackupErrorDomain, BackupError::nothingToCancel));
    EXPECT_FALSE(manager->cancelApplicationRestoreWithBundleID_error("a", nullptr));
}

TEST(DeviceProcess, IsTheSyncHostWithTheDevicesTemporaryDirectory) {
    DeviceProcess process;
    EXPECT_EQ(process.mainBundleIdentifier(), "com.zuvex.qrd");
    EXPECT_EQ(process.temporaryDirectory(), "/tmp");
}

} // namespace
} // namespace appsync::device
