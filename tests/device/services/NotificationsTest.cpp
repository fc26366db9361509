#include "device/services/Notifications.h"

#include "concurrency/Semaphore.h"
#include "tests/concurrency/NoMoreThreads.h"

#include <gtest/gtest.h>

#include <atomic>

namespace appsync::device {
namespace {

TEST(NotificationNames, AStateSetThroughATokenIsTheNamesState) {
    NotificationNames names;
    int token = 0;
    ASSERT_EQ(names.notify_register_check("com.example.a", &token), notificationStatusOK);
    EXPECT_EQ(names.state("com.example.a"), 0U);
    EXPECT_EQ(names.notify_set_state(token, 7), notificationStatusOK);
    EXPECT_EQ(names.state("com.example.a"), 7U);
    EXPECT_EQ(names.state("com.example.b"), 0U);
}

TEST(NotificationNames, RegisteringANameAgainGivesItsTokenAndKeepsItsState) {
    NotificationNames names;
    int first = 0;
    int other = 0;
    int again = 0;
    names.notify_register_check("a", &first);
    names.notify_set_state(first, 5);
    names.notify_register_check("b", &other);
    names.notify_register_check("a", &again);
    EXPECT_EQ(first, again);
    EXPECT_NE(first, other);
    EXPECT_EQ(names.state("a"), 5U);
}

TEST(NotificationNames, RefusesWhatIsNoNameAndNoToken) {
    NotificationNames names;
    int token = 0;
    EXPECT_EQ(names.notify_register_check("", &token), notificationStatusInvalidName);
    EXPECT_EQ(names.notify_register_check(std::string_view("a\0b", 3), &token), notificationStatusInvalidName);
    EXPECT_EQ(names.notify_register_check("a", nullptr), notificationStatusInvalidName);
    EXPECT_EQ(names.notify_post(""), notificationStatusInvalidName);
    for (const int wrong : {-1, 0, 1, 1000}) {
        EXPECT_EQ(names.notify_set_state(wrong, 1), notificationStatusInvalidToken) << wrong;
    }
}

TEST(NotificationNames, PostsAreCountedByName) {
    NotificationNames names;
    names.notify_post("a");
    names.notify_post("b");
    names.notify_post("a");
    EXPECT_EQ(names.postCount("a"), 2U);
    EXPECT_EQ(names.postCount("b"), 1U);
    EXPECT_EQ(names.postCount("never"), 0U);
}

struct Observer {
    std::vector<std::string> heard;
    std::thread::id thread;
    const void* object = nullptr;
    std::optional<Dictionary> userInfo;
    Semaphore* inside = nullptr;
    Semaphore* proceed = nullptr;
    std::string removesItselfFrom;
    std::atomic<bool> left = false;
};

void note(NotificationCenter* center, void* context, std::string_view name, const void* object,
          const Dictionary* userInfo) {
    auto& observer = *static_cast<Observer*>(context);
    observer.heard.emplace_back(name);
    observer.thread = std::this_thread::get_id();
    observer.object = object;
    observer.userInfo = userInfo ? std::optional(*userInfo) : std::nullopt;
    if (!observer.removesItselfFrom.empty()) {
        center->removeObserver(context, observer.removesItselfFrom);
    }
    if (observer.inside) {
        observer.inside->signal();
        observer.proceed->wait();
    }
    observer.left = true;
}

constexpr auto Drop = NotificationSuspensionBehavior::drop;
using Names = std::vector<std::string>;

TEST(DeviceNotificationCenter, DeliversInOrderOnItsOwnThread) {
    DeviceNotificationCenter center;
    Observer observer;
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.addObserver(&observer, note, "b", nullptr, Drop);
    center.post("a");
    center.post("b", &observer, Dictionary{{"k", "v"}});
    center.post("c");
    center.waitUntilDelivered();
    EXPECT_EQ(observer.heard, (Names{"a", "b"}));
    EXPECT_NE(observer.thread, std::this_thread::get_id());
    EXPECT_EQ(observer.object, &observer);
    EXPECT_EQ(observer.userInfo, (Dictionary{{"k", "v"}}));
}

TEST(DeviceNotificationCenter, AnObserverOfOneSenderDoesNotHearOthers) {
    DeviceNotificationCenter center;
    Observer observer;
    const int sender = 0;
    const int other = 0;
    center.addObserver(&observer, note, "a", &sender, Drop);
    center.post("a");
    center.post("a", &other);
    center.post("a", &sender);
    center.waitUntilDelivered();
    EXPECT_EQ(observer.heard, Names{"a"});
}

TEST(DeviceNotificationCenter, AnObserverAddedTwiceIsCalledOnce) {
    DeviceNotificationCenter center;
    Observer observer;
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.post("a");
    center.waitUntilDelivered();
    EXPECT_EQ(observer.heard.size(), 1U);
}

TEST(DeviceNotificationCenter, RemovingEndsTheCallsForThatNameOnly) {
    DeviceNotificationCenter center;
    Observer observer;
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.addObserver(&observer, note, "b", nullptr, Drop);
    center.removeObserver(&observer, "a");
    center.post("a");
    center.post("b");
    center.waitUntilDelivered();
    EXPECT_EQ(observer.heard, Names{"b"});
}

TEST(DeviceNotificationCenter, RemovingWaitsForARunningCall) {
    DeviceNotificationCenter center;
    Semaphore inside;
    Semaphore proceed;
    Observer observer;
    observer.inside = &inside;
    observer.proceed = &proceed;
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.post("a");
    inside.wait();
    std::thread helper([&] { proceed.signal(); });
    center.removeObserver(&observer, "a");
    EXPECT_TRUE(observer.left);
    helper.join();
}

TEST(DeviceNotificationCenter, APostThatIsNotDeliveredYetDoesNotReachARemovedObserver) {
    DeviceNotificationCenter center;
    Semaphore inside;
    Semaphore proceed;
    Observer busy;
    busy.inside = &inside;
    busy.proceed = &proceed;
    Observer removed;
    center.addObserver(&busy, note, "a", nullptr, Drop);
    center.addObserver(&removed, note, "a", nullptr, Drop);
    center.post("a");
    inside.wait();
    center.removeObserver(&removed, "a");
    proceed.signal();
    center.waitUntilDelivered();
    EXPECT_TRUE(removed.heard.empty());
}

TEST(DeviceNotificationCenter, AnObserverMayRemoveItselfInItsCall) {
    DeviceNotificationCenter center;
    Observer observer;
    observer.removesItselfFrom = "a";
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.post("a");
    center.post("a");
    center.waitUntilDelivered();
    EXPECT_EQ(observer.heard.size(), 1U);
}

TEST(DeviceNotificationCenter, DeliversAtOnceWhereTheSystemHasNoThreadForIt) {
    const NoMoreThreads noMore;
    DeviceNotificationCenter center;
    Observer observer;
    center.addObserver(&observer, note, "a", nullptr, Drop);
    center.post("a");
    EXPECT_EQ(observer.heard, Names{"a"});
}

} // namespace
} // namespace appsync::device
