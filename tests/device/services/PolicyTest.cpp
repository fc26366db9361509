#include "device/services/DevicePolicy.h"
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
    EXPECT_EQ(open()->effectiveBoolValueForSetting("s"), OLBoolValue::unset);
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
    EXPECT_EQ(open()->effectiveBoolValueForSetting("s"), OLBoolValue::unset);
}

} // namespace
} // namespace appsync::device
