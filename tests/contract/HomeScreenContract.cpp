// The home screen, notifications and icons.
#include "platform/HomeScreen.h"
#include "platform/Icons.h"
#include "platform/Notifications.h"
#include "tests/contract/Apps.h"

#include <atomic>
#include <thread>
#include <utility>

namespace appsync::contract {
namespace {

/// The format of the icon order that the client asks for.
constexpr std::uint32_t orderFormat = 1;

/// The icon order; nothing when there is no answer.
std::optional<Value> iconOrder(const Platform& platform, SKPort port, std::uint32_t format = orderFormat) {
    const char* buffer = "nothing yet";
    std::size_t length = 77;
    platform.homeScreen.SKGetFlattenedIconState(port, format, &buffer, &length);
    if (!buffer) {
        return std::nullopt;
    }
    const std::string bytes(buffer, length);
    platform.homeScreen.SKDeallocate(buffer, length);
    return platform.propertyLists.propertyListWithData(bytes, nullptr);
}

void arrange(const Platform& platform, const Value& layout) {
    const auto bytes = platform.propertyLists.dataWithPropertyList(layout, PropertyListFormat::binary, nullptr);
    ASSERT_TRUE(bytes);
    platform.homeScreen.SKSetIconState(platform.homeScreen.SKSSkellanBlockableServerPort(), bytes->bytes());
}

struct Requested {
    std::shared_ptr<SKSApplicationTerminationAssertion> assertion;
    std::uint8_t answer = 77;
};

Requested requestEnd(const Platform& platform, const std::string& identifier) {
    Requested requested;
    requested.assertion =
        platform.homeScreen.SKSApplicationTerminationAssertionCreateWithError(identifier, 0, &requested.answer);
    return requested;
}

} // namespace

TEST_P(HomeScreenContract, AHomeScreenThatRunsHasAPort) {
    EXPECT_NE(platform().homeScreen.SKSSkellanBlockableServerPort(), 0U);
}

TEST_P(HomeScreenContract, TheOrderOfTheIconsIsThatOfTheLayoutPageByPage) {
    const SKPort port = platform().homeScreen.SKSSkellanBlockableServerPort();
    arrange(platform(), Array{Array{C, A}, Array{B}});
    EXPECT_EQ(iconOrder(platform(), port), Value(Array{C, A, B}));
    arrange(platform(), Array{B, C, A});
    EXPECT_EQ(iconOrder(platform(), port), Value(Array{B, C, A})) << "a list of identifiers is one page";
}

TEST_P(HomeScreenContract, ALayoutThatIsNoneChangesNothing) {
    const SKPort port = platform().homeScreen.SKSSkellanBlockableServerPort();
    arrange(platform(), Array{A, B});
    platform().homeScreen.SKSetIconState(port, "no property list");
    platform().homeScreen.SKSetIconState(port, "");
    arrange(platform(), Dictionary{{"a", "dictionary"}});
    EXPECT_EQ(iconOrder(platform(), port), Value(Array{A, B}));
}

TEST_P(HomeScreenContract, AnUnknownPortOrFormatHasNoOrder) {
    const SKPort port = platform().homeScreen.SKSSkellanBlockableServerPort();
    arrange(platform(), Array{A, B});
    EXPECT_EQ(iconOrder(platform(), port + 1), std::nullopt);
    EXPECT_EQ(iconOrder(platform(), port, orderFormat + 1), std::nullopt);
}

TEST_P(HomeScreenContract, AnAppThatDoesNotRunOrIsNotThereIsNotFound) {
    device().install({A});
    for (const std::string& app : {A, B}) {
        const Requested requested = requestEnd(platform(), app);
        EXPECT_EQ(requested.answer, SKSTerminationAssertionNotFound) << app;
        EXPECT_EQ(requested.assertion, nullptr);
    }
    EXPECT_TRUE(device().start(A, false)) << "nothing holds it back";
}

TEST_P(HomeScreenContract, AnAppThatRunsIsEndedAndCannotBeStartedWhileAnAssertionIsHeld) {
    device().install({A});
    ASSERT_TRUE(device().start(A, false));
    Requested requested = requestEnd(platform(), A);
    EXPECT_EQ(requested.answer, SKSTerminationAssertionGranted);
    ASSERT_NE(requested.assertion, nullptr);
    EXPECT_FALSE(device().isRunning(A));
    EXPECT_FALSE(device().start(A, false));
    requested.assertion = nullptr;
    EXPECT_TRUE(device().start(A, false));
    EXPECT_TRUE(device().isRunning(A));
}

TEST_P(HomeScreenContract, ABusyAppIsDeniedAndGoesOnRunning) {
    device().install({A});
    ASSERT_TRUE(device().start(A, true));
    for (int time = 0; time < 2; ++time) { // asked again, as the client does
        const Requested requested = requestEnd(platform(), A);
        EXPECT_EQ(requested.answer, SKSTerminationAssertionDenied);
        EXPECT_TRUE(device().isRunning(A));
    }
}

TEST_P(HomeScreenContract, AnAssertionHoldsItsOwnAppOnly) {
    device().install({A});
    device().install({B});
    ASSERT_TRUE(device().start(A, false));
    const Requested requested = requestEnd(platform(), A);
    EXPECT_EQ(requested.answer, SKSTerminationAssertionGranted);
    EXPECT_TRUE(device().start(B, false));
}

// The notification service.

TEST_P(NotificationContract, ANameCarriesAState) {
    NotificationService& service = platform().notifications;
    int first = -1;
    int second = -1;
    ASSERT_EQ(service.notify_register_check("com.example.first", &first), 0U);
    ASSERT_EQ(service.notify_register_check("com.example.second", &second), 0U);
    EXPECT_NE(first, second);
    EXPECT_EQ(service.notify_set_state(first, 1), 0U);
    EXPECT_EQ(service.notify_set_state(second, 0xffff'ffff'ffff'ffff), 0U);
    EXPECT_EQ(device().noticeState("com.example.first"), 1U);
    EXPECT_EQ(device().noticeState("com.example.second"), 0xffff'ffff'ffff'ffffU);
    EXPECT_EQ(service.notify_set_state(first, 0), 0U);
    EXPECT_EQ(device().noticeState("com.example.first"), 0U);
}

TEST_P(NotificationContract, PostsCountByName) {
    NotificationService& service = platform().notifications;
    int token = -1;
    ASSERT_EQ(service.notify_register_check("com.example.first", &token), 0U);
    EXPECT_EQ(device().noticePosts("com.example.first"), 0U);
    EXPECT_EQ(service.notify_post("com.example.first"), 0U);
    EXPECT_EQ(service.notify_post("com.example.first"), 0U);
    EXPECT_EQ(service.notify_post("com.example.other"), 0U) << "nobody needs to have registered it";
    EXPECT_EQ(device().noticePosts("com.example.first"), 2U);
}

TEST_P(NotificationContract, ATokenThatWasNeverGivenOutIsRefused) {
    EXPECT_NE(platform().notifications.notify_set_state(-1, 1), 0U);
    EXPECT_NE(platform().notifications.notify_set_state(4'711, 1), 0U);
}

// The notification center.

namespace {

struct Heard {
    Signal signal{"a post"};
    std::atomic<int> calls = 0;
    std::thread::id thread;
    std::string name;
    const void* object = nullptr;
    std::optional<Dictionary> userInfo;
    std::function<void()> during = [] {};
};

void hear(NotificationCenter* /*center*/, void* observer, std::string_view name, const void* object,
          const Dictionary* userInfo) {
    auto& heard = *static_cast<Heard*>(observer);
    ++heard.calls;
    heard.thread = std::this_thread::get_id();
    heard.name = name;
    heard.object = object;
    heard.userInfo = userInfo ? std::optional(*userInfo) : std::nullopt;
    heard.during();
    heard.signal.raise();
}

/// Has an observer hear a name, at most as long as this lives.
class Hearing {
  public:
    Hearing(const Platform& platform, Heard& heard, std::string name, const void* object = nullptr)
        : _center(platform.notificationCenter), _heard(&heard), _name(std::move(name)) {
        _center.addObserver(_heard, &hear, _name, object, NotificationSuspensionBehavior::drop);
    }
    ~Hearing() { end(); }
    Hearing(const Hearing&) = delete;
    Hearing& operator=(const Hearing&) = delete;
    void end() {
        if (Heard* heard = std::exchange(_heard, nullptr)) {
            _center.removeObserver(heard, _name);
        }
    }

  private:
    NotificationCenter& _center;
    Heard* _heard;
    const std::string _name;
};

} // namespace

TEST_P(NotificationContract, AnObserverHearsItsNameWithObjectAndFactsOnAThreadOfTheCenter) {
    Heard heard;
    const Hearing hearing(platform(), heard, "com.example.name");
    device().postNotification("com.example.other", nullptr, {});
    device().postNotification("com.example.name", &heard, {{"key", "value"}});
    ASSERT_TRUE(heard.signal.wait());
    EXPECT_EQ(heard.name, "com.example.name");
    EXPECT_EQ(heard.object, &heard);
    EXPECT_EQ(heard.userInfo, Dictionary({{"key", "value"}}));
    EXPECT_NE(heard.thread, std::this_thread::get_id());
    device().postNotification("com.example.name", nullptr, {});
    ASSERT_TRUE(heard.signal.wait());
    EXPECT_EQ(heard.calls, 2);
}

TEST_P(NotificationContract, AnObserverOfOneSenderHearsThatOneOnly) {
    const int sender = 0;
    const int other = 0;
    Heard ofOne;
    Heard ofAll;
    Hearing one(platform(), ofOne, "com.example.name", &sender);
    Hearing all(platform(), ofAll, "com.example.name");
    for (const void* object : {static_cast<const void*>(&other), static_cast<const void*>(&sender)}) {
        device().postNotification("com.example.name", object, {});
        ASSERT_TRUE(ofAll.signal.wait());
    }
    ASSERT_TRUE(ofOne.signal.wait());
    one.end();
    all.end();
    EXPECT_EQ(ofOne.calls, 1);
    EXPECT_EQ(ofOne.object, &sender);
    EXPECT_EQ(ofAll.calls, 2);
}

TEST_P(NotificationContract, RemovingAnObserverWaitsForARunningCallAndNoneFollows) {
    Signal inside("a post");
    Signal proceed("the removal of the observer");
    Signal left("the end of the call");
    std::atomic<bool> hasLeft = false;
    Heard heard;
    Heard witness;
    heard.during = [&] {
        inside.raise();
        EXPECT_TRUE(proceed.wait());
        hasLeft = true;
        left.raise();
    };
    Hearing hearing(platform(), heard, "com.example.name");
    device().postNotification("com.example.name", nullptr, {});
    ASSERT_TRUE(inside.wait());
    std::thread helper([&] { proceed.raise(); });
    hearing.end();
    EXPECT_TRUE(hasLeft);
    helper.join();
    EXPECT_TRUE(left.wait());
    const Hearing other(platform(), witness, "com.example.name");
    device().postNotification("com.example.name", nullptr, {});
    EXPECT_TRUE(witness.signal.wait());
    EXPECT_EQ(heard.calls, 1);
}

TEST_P(NotificationContract, RemovingIsByName) {
    Heard heard;
    const Hearing kept(platform(), heard, "com.example.kept");
    Hearing dropped(platform(), heard, "com.example.dropped");
    dropped.end();
    platform().notificationCenter.removeObserver(&heard, "com.example.unknown");
    device().postNotification("com.example.kept", nullptr, {});
    EXPECT_TRUE(heard.signal.wait());
}

// Icons.

TEST_P(IconContract, ABundleIsAFolderAndAnInfoFileThatCannotBeReadCountsAsEmpty) {
    FileSystem& files = platform().files;
    EXPECT_EQ(platform().bundles.bundleWithURL(folderAt("/tmp/missing.app")), nullptr);
    ASSERT_TRUE(files.createFile("/tmp/file.app", "file", {}));
    EXPECT_EQ(platform().bundles.bundleWithURL(folderAt("/tmp/file.app")), nullptr);
    ASSERT_TRUE(files.createDirectory("/tmp/A.app", true, std::nullopt, nullptr));
    const auto without = platform().bundles.bundleWithURL(folderAt("/tmp/A.app"));
    ASSERT_NE(without, nullptr);
    EXPECT_EQ(without->objectForInfoDictionaryKey("BXBundleIdentifier"), std::nullopt);
    ASSERT_TRUE(files.createFile("/tmp/A.app/Info.plist", "no property list", {}));
    const auto damaged = platform().bundles.bundleWithURL(folderAt("/tmp/A.app"));
    ASSERT_NE(damaged, nullptr);
    EXPECT_EQ(damaged->objectForInfoDictionaryKey("BXBundleIdentifier"), std::nullopt);
}

TEST_P(IconContract, ABundleKnowsTheValuesOfItsInfoFile) {
    const Apps apps(device(), platform());
    const auto bundle = platform().bundles.bundleWithURL(apps.putPlaceholderBundle(A, "3.2"));
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("BXBundleIdentifier"), Value(A));
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("BXBundleVersion"), Value("3.2"));
    EXPECT_EQ(bundle->objectForInfoDictionaryKey("Unknown"), std::nullopt);
}

TEST_P(IconContract, OnlyKnownTypesOfImageFilesAreMade) {
    EXPECT_NE(platform().imageDestinations.destinationWithType_count("public.png", 1), nullptr);
    EXPECT_EQ(platform().imageDestinations.destinationWithType_count("com.example.unknown", 1), nullptr);
    EXPECT_EQ(platform().imageDestinations.destinationWithType_count("", 1), nullptr);
}

TEST_P(IconContract, AFileWithoutItsImageIsNotMade) {
    const auto destination = platform().imageDestinations.destinationWithType_count("public.png", 1);
    ASSERT_NE(destination, nullptr);
    EXPECT_EQ(destination->finalize(), std::nullopt);
}

TEST_P(IconContract, TheIconOfAnAppBecomesAFile) {
    device().install({A});
    const Apps apps(device(), platform());
    const auto bundle = platform().bundles.bundleWithURL(*given(apps.app(A)->bundleURL(), "the folder of the app"));
    ASSERT_NE(bundle, nullptr);
    const auto image = platform().iconRenderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(bundle);
    ASSERT_NE(image, nullptr);
    const auto destination = platform().imageDestinations.destinationWithType_count("public.png", 1);
    ASSERT_NE(destination, nullptr);
    destination->addImage(image);
    const auto bytes = destination->finalize();
    ASSERT_TRUE(bytes);
    EXPECT_FALSE(bytes->empty());
    APPSYNC_NEEDS(drawsIcons);
    EXPECT_TRUE(bytes->bytes().starts_with("\x89PNG\r\n\x1a\n"));
}

TEST_P(IconContract, AnAppWithoutAUsableIconHasNone) {
    APPSYNC_NEEDS(drawsIcons);
    const Apps apps(device(), platform());
    const auto without = platform().bundles.bundleWithURL(apps.putPlaceholderBundle(A));
    EXPECT_EQ(platform().iconRenderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(without), nullptr);
    EXPECT_EQ(platform().iconRenderer.YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(nullptr), nullptr);
}

} // namespace appsync::contract
