#include "device/services/StoreClient.h"

#include "concurrency/Semaphore.h"
#include "device/registry/Registry.h"
#include "propertylist/Codec.h"
#include "tests/concurrency/NoMoreThreads.h"
#include "tests/device/archive/ArchiveBuilder.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace appsync::device {
namespace {

const std::string storeA = "com.example.a";
const std::string storeB = "com.example.b";

class StoreClientTest : public testing::Test {
  protected:
    void install(const std::string& bundleID, const std::string& version) {
        const std::string path = "/var/mobile/" + bundleID + ".zip";
        ASSERT_TRUE(device.files().createFile(path, ArchiveBuilder().app("App", bundleID, version).bytes(), {}));
        ArchiveRequest request;
        request.archivePath = path;
        request.identifier = bundleID;
        ASSERT_TRUE(registry->installArchive(request));
    }
    [[nodiscard]] static std::string receiptPath(const std::string& bundleID) {
        return std::string(receiptFolder) + "/" + bundleID + ".plist";
    }
    [[nodiscard]] Value receiptOf(const std::string& bundleID) {
        const auto bytes = device.files().readFile(receiptPath(bundleID), nullptr);
        return bytes ? propertyLists.propertyListWithData(bytes->bytes(), nullptr).value_or(Value()) : Value();
    }

    OpenRoot device;
    PropertyListCodec propertyLists;
    std::unique_ptr<Registry> registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    StoreClient store{device.files(), *registry, propertyLists};
};

TEST_F(StoreClientTest, EveryInstalledAppGetsAReceipt) {
    install(storeA, "1.0");
    install(storeB, "2.0");
    PlaceholderRequest placeholder;
    placeholder.identifier = "com.example.waiting";
    ASSERT_TRUE(registry->installPlaceholder(placeholder));
    ASSERT_TRUE(store.refreshReceipts());
    EXPECT_EQ(receiptOf(storeA), Value(Dictionary{{"bundleIdentifier", storeA}, {"bundleVersion", "1.0"}}));
    EXPECT_EQ(receiptOf(storeB), Value(Dictionary{{"bundleIdentifier", storeB}, {"bundleVersion", "2.0"}}));
    EXPECT_EQ(device.files().list(receiptFolder)->size(), 2U);
}

TEST_F(StoreClientTest, ReceiptsFollowUpdatesAndRemovals) {
    install(storeA, "1.0");
    install(storeB, "1.0");
    ASSERT_TRUE(store.refreshReceipts());
    install(storeA, "1.1");
    ASSERT_TRUE(registry->uninstall(storeB, RemovalReason::sync, RemovalScope::everything));
    ASSERT_TRUE(store.refreshReceipts());
    EXPECT_EQ(receiptOf(storeA).dictionary()->string("bundleVersion"), "1.1");
    EXPECT_EQ(*device.files().list(receiptFolder), std::vector<std::string>{storeA + ".plist"});
}

TEST_F(StoreClientTest, AReceiptThatWasCutShortIsWrittenAgain) {
    install(storeA, "1.0");
    ASSERT_TRUE(store.refreshReceipts());
    ASSERT_TRUE(device.files().createFile(receiptPath(storeA), "bplist", {}));
    ASSERT_TRUE(store.refreshReceipts());
    EXPECT_EQ(receiptOf(storeA).dictionary()->string("bundleIdentifier"), storeA);
}

TEST_F(StoreClientTest, OneReceiptThatCannotBeWrittenDoesNotKeepTheOthersFromIt) {
    install(storeA, "1.0");
    install(storeB, "1.0");
    ASSERT_TRUE(device.files().createDirectory(receiptPath(storeA), true, std::nullopt, nullptr));
    const auto refreshed = store.refreshReceipts();
    ASSERT_FALSE(refreshed);
    EXPECT_NE(errorText(refreshed.error()).find(storeA), std::string::npos);
    EXPECT_EQ(receiptOf(storeB).dictionary()->string("bundleIdentifier"), storeB);
}

TEST_F(StoreClientTest, ALibraryRefreshesOnTheClientsThreadAlsoWhenItIsDropped) {
    install(storeA, "1.0");
    Semaphore completed;
    std::thread::id thread;
    ErrorPtr outcome = Error::make("x", 1);
    store.init()->refreshReceiptsWithCompletionBlock([&](const ErrorPtr& error) {
        outcome = error;
        thread = std::this_thread::get_id();
        completed.signal();
    });
    completed.wait();
    EXPECT_EQ(outcome, nullptr);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_TRUE(device.files().fileExists(receiptPath(storeA)));
}

TEST_F(StoreClientTest, ALibraryRefreshesAtOnceWhereTheSystemHasNoThreadForIt) {
    install(storeA, "1.0");
    const NoMoreThreads noMore;
    bool isCompleted = false;
    store.init()->refreshReceiptsWithCompletionBlock([&](const ErrorPtr& error) { isCompleted = !error; });
    EXPECT_TRUE(isCompleted);
}

TEST_F(StoreClientTest, TheEndWaitsForEveryCompletion) {
    std::atomic<int> completions = 0;
    {
        StoreClient own(device.files(), *registry, propertyLists);
        for (int i = 0; i < 5; ++i) {
            own.init()->refreshReceiptsWithCompletionBlock([&](const ErrorPtr&) { ++completions; });
        }
    }
    EXPECT_EQ(completions, 5);
}

TEST_F(StoreClientTest, AFailedRefreshCompletesWithItsReason) {
    ASSERT_TRUE(device.files().createFile("/var/mobile/Library", "a file", {}) ||
                device.files().createFile(std::string(receiptFolder), "a file", {}));
    Semaphore completed;
    ErrorPtr outcome;
    store.init()->refreshReceiptsWithCompletionBlock([&](const ErrorPtr& error) {
        outcome = error;
        completed.signal();
    });
    completed.wait();
    EXPECT_TRUE(outcome);
}

} // namespace
} // namespace appsync::device
