#include "RegistryFixture.h"

namespace appsync::device {
namespace {

class UninstalledListTest : public RegistryTest {
  protected:
    void remember(const std::string& app) {
        Database::Transaction transaction(*device->database);
        transaction.run(RegistryTable::addUninstalled, app);
        ASSERT_TRUE(transaction.commit());
    }
    int clear(const Array& identifiers) { return registry().TevrinClearUninstalled(identifiers, nullptr); }
};

TEST_F(UninstalledListTest, IsEmptyAtFirst) {
    ASSERT_TRUE(removedApps());
    EXPECT_TRUE(removedApps()->empty());
}

TEST_F(UninstalledListTest, KeepsEachAppOnceWithItsDate) {
    remember("b");
    remember("a");
    remember("b");
    const auto apps = *removedApps();
    EXPECT_EQ(apps.size(), 2U);
    ASSERT_TRUE(apps.find("a")->date());
    // After 2024 and before 2100, in seconds since 2001.
    EXPECT_GT(apps.find("a")->date()->secondsSinceReference, 23.0 * 365 * 86'400);
    EXPECT_LT(apps.find("a")->date()->secondsSinceReference, 99.0 * 366 * 86'400);
}

TEST_F(UninstalledListTest, ForgetsWhatItIsTold) {
    for (const std::string app : {"a", "b", "c"}) {
        remember(app);
    }
    EXPECT_EQ(clear({"a", "c", "unknown"}), 0);
    EXPECT_EQ(removedApps()->size(), 1U);
    EXPECT_TRUE(removedApps()->contains("b"));
    open();
    EXPECT_EQ(removedApps()->size(), 1U);
}

TEST_F(UninstalledListTest, PassesOverWhatIsNoString) {
    remember("a");
    EXPECT_EQ(clear({5, Array{"a"}, Value()}), 0);
    EXPECT_EQ(removedApps()->size(), 1U);
    EXPECT_EQ(clear({}), 0);
}

TEST_F(UninstalledListTest, KeepsEverythingWhenForgettingFails) {
    remember("a");
    remember("b");
    faults->forget();
    faults->failAt = 0;
    faults->failure = EIO;
    EXPECT_NE(clear({"a", "b"}), 0);
    EXPECT_EQ(removedApps()->size(), 2U);
}

TEST_F(UninstalledListTest, AnswersNothingWhenTheDatabaseCannot) {
    {
        Database::Transaction transaction(*device->database);
        transaction.run("DROP TABLE uninstalled");
        ASSERT_TRUE(transaction.commit());
    }
    EXPECT_EQ(removedApps(), std::nullopt);
}

} // namespace
} // namespace appsync::device
