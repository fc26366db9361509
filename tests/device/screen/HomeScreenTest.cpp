#include "device/drawing/CairoImage.h"
#include "device/registry/Registry.h"
#include "device/screen/AppBundles.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/screen/RunningApps.h"
#include "device/services/Notifications.h"
#include "platform/host/Log.h"
#include "propertylist/Codec.h"
#include "tests/device/archive/ArchiveBuilder.h"
#include "tests/device/drawing/Pixels.h"
#include "tests/device/root/Faults.h"
#include "tests/device/screen/Lists.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

namespace appsync::device {
namespace {

class Messages final : public HostLog {
  public:
    bool isEnabled(QRLogCategory, LogLevel) noexcept override { return isOn; }
    void write(QRLogCategory category, LogLevel level, std::string_view, std::string_view text) noexcept override {
        EXPECT_EQ(category, QRLogCategoryFramework);
        EXPECT_EQ(level, LogLevel::error);
        texts.emplace_back(text);
    }
    bool isOn = true;
    std::vector<std::string> texts;
};

/// One app that can be ended, one that cannot.
class SomeRunningApps final : public RunningApps {
  public:
    Answer endAndHold(std::string_view identifier) noexcept override {
        if (identifier == "runs") {
            ++holds;
            return Answer::ended;
        }
        return identifier == "busy" ? Answer::busy : Answer::notRunning;
    }
    void letGo(std::string_view identifier) noexcept override { holds -= identifier == "runs" ? 1 : 0; }
    int holds = 0;
};

class HomeScreenTest : public testing::Test {
  protected:
    HomeScreenTest() { open(); }

    void open() {
        screen.reset();
        screen = std::move(
            *DeviceHomeScreen::open({*device.database, *registry, propertyLists, notifications, icons, apps, log}));
    }
    void install(const std::string& bundleID, const std::string& iconBytes = {}) {
        ArchiveBuilder builder;
        if (iconBytes.empty()) {
            builder.app("App", bundleID);
        } else {
            builder.file("App.app/Icon.png", iconBytes)
                .list("App.app/Info.plist", Dictionary{{"BXBundleIdentifier", bundleID},
                                                       {"BXBundleDisplayName", "Named"},
                                                       {"BXBundleIconFile", "Icon.png"}});
        }
        ArchiveRequest request;
        request.archivePath = "/var/mobile/" + bundleID + ".zip";
        request.identifier = bundleID;
        ASSERT_TRUE(device.files().createFile(request.archivePath, builder.bytes(), {}));
        ASSERT_TRUE(registry->installArchive(request));
    }
    void addPlaceholder(const std::string& bundleID) {
        PlaceholderRequest request;
        request.identifier = bundleID;
        ASSERT_TRUE(registry->installPlaceholder(request));
    }
    [[nodiscard]] std::string bytesOf(const Value& value) {
        return std::string(propertyLists.dataWithPropertyList(value, PropertyListFormat::binary, nullptr)->bytes());
    }
    void setLayout(const Value& layout) { screen->SKSetIconState(port(), bytesOf(layout)); }
    [[nodiscard]] SKPort port() { return screen->SKSSkellanBlockableServerPort(); }
    [[nodiscard]] std::optional<IdentifierList> order(std::uint32_t format = DeviceHomeScreen::binaryFormat) {
        const char* buffer = reinterpret_cast<const char*>(this);
        std::size_t length = 99;
        screen->SKGetFlattenedIconState(port(), format, &buffer, &length);
        if (!buffer) {
            EXPECT_EQ(length, 0U);
            return std::nullopt;
        }
        const auto root = propertyLists.propertyListWithData({buffer, length}, nullptr);
        screen->SKDeallocate(buffer, length);
        IdentifierList identifiers;
        for (const Value& identifier : *root->array()) {
            identifiers.emplace_back(*identifier.string());
        }
        return identifiers;
    }

    OpenRoot device;
    PropertyListCodec propertyLists;
    std::unique_ptr<Registry> registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    NotificationNames notifications;
    DeviceIconRenderer icons{device.files()};
    SomeRunningApps apps;
    Messages log;
    std::unique_ptr<DeviceHomeScreen> screen;
};

TEST_F(HomeScreenTest, AppsWithoutALayoutStandInTheOrderInWhichTheyCame) {
    install("com.example.b");
    addPlaceholder("com.example.a");
    EXPECT_EQ(order(), (IdentifierList{"com.example.b", "com.example.a"}));
}

TEST_F(HomeScreenTest, ALayoutPutsAppsInOrderAndKeepsThoseThatAreNotThereYet) {
    install("com.example.b");
    install("com.example.a");
    setLayout(list(list("com.example.later", "com.example.a")));
    EXPECT_TRUE(log.texts.empty());
    EXPECT_EQ(order(), (IdentifierList{"com.example.later", "com.example.a", "com.example.b"}));
    install("com.example.later");
    EXPECT_EQ(order(), (IdentifierList{"com.example.later", "com.example.a", "com.example.b"}));
}

TEST_F(HomeScreenTest, ALayoutInXMLIsALayout) {
    const auto xml = propertyLists.dataWithPropertyList(list("x"), PropertyListFormat::xml, nullptr);
    screen->SKSetIconState(port(), xml->bytes());
    EXPECT_EQ(order(), IdentifierList{"x"});
}

TEST_F(HomeScreenTest, TheLayoutIsKept) {
    const Value layout = list(list("a", Dictionary{{"displayName", "F"}, {"iconLists", list(list("b"))}}));
    setLayout(layout);
    const IconLayout before = screen->layout();
    screen.reset();
    registry.reset();
    device.reopen();
    registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    open();
    EXPECT_EQ(screen->layout(), before);
    EXPECT_EQ(screen->layout().propertyList(), layout);
}

TEST_F(HomeScreenTest, WhatIsNoLayoutIsLoggedAndChangesNothing) {
    setLayout(list("a"));
    setLayout(list(list(5)));
    screen->SKSetIconState(port(), "no property list");
    screen->SKSetIconState(port(), "");
    screen->SKSetIconState(0, bytesOf(list("b")));
    EXPECT_EQ(order(), IdentifierList{"a"});
    ASSERT_EQ(log.texts.size(), 4U);
    EXPECT_EQ(log.texts[0], "the icon layout of the desktop was not applied: entry 1 of page 1 is neither a bundle "
                            "identifier nor a folder");
    EXPECT_TRUE(log.texts[1].starts_with("the icon layout of the desktop was not applied: it is no property list: "));
    EXPECT_EQ(log.texts[3], "the icon layout of the desktop was not applied: it was sent to port 0");
}

TEST_F(HomeScreenTest, NothingIsLoggedWhenNobodyWantsIt) {
    log.isOn = false;
    setLayout(5);
    EXPECT_TRUE(log.texts.empty());
}

TEST_F(HomeScreenTest, ALayoutThatCannotBeWrittenIsNotApplied) {
    const auto faults = std::make_shared<RecordingFaults>();
    screen.reset();
    registry.reset();
    device.reopen(faults);
    registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    open();
    faults->forget();
    faults->failAt = 0;
    faults->failure = ENOSPC;
    setLayout(list("a"));
    EXPECT_EQ(order(), IdentifierList{});
    EXPECT_EQ(log.texts.size(), 1U);
}

TEST_F(HomeScreenTest, ADamagedLayoutCountsAsNone) {
    setLayout(list("a"));
    {
        Database::Transaction transaction(*device.database);
        transaction.run("UPDATE homeScreen SET value = 'x'");
        ASSERT_TRUE(transaction.commit());
    }
    open();
    EXPECT_EQ(order(), IdentifierList{});
}

TEST_F(HomeScreenTest, AnswersOneFormatOnOnePort) {
    EXPECT_FALSE(order(0));
    EXPECT_FALSE(order(2));
    const char* buffer = "x";
    std::size_t length = 1;
    screen->SKGetFlattenedIconState(port() + 1, DeviceHomeScreen::binaryFormat, &buffer, &length);
    EXPECT_EQ(buffer, nullptr);
    screen->SKDeallocate(nullptr, 0);
}

TEST_F(HomeScreenTest, AnAppThatDoesNotRunIsNotFound) {
    std::uint8_t code = 77;
    EXPECT_EQ(screen->SKSApplicationTerminationAssertionCreateWithError("rests", 0, &code), nullptr);
    EXPECT_EQ(code, SKSTerminationAssertionNotFound);
}

TEST_F(HomeScreenTest, AnAssertionHoldsTheAppUntilItIsDropped) {
    std::uint8_t code = 77;
    auto held = screen->SKSApplicationTerminationAssertionCreateWithError("runs", 0, &code);
    EXPECT_EQ(code, SKSTerminationAssertionGranted);
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(apps.holds, 1);
    held.reset();
    EXPECT_EQ(apps.holds, 0);
    EXPECT_EQ(screen->SKSApplicationTerminationAssertionCreateWithError("busy", 0, &code), nullptr);
    EXPECT_EQ(code, SKSTerminationAssertionDenied);
    EXPECT_EQ(screen->SKSApplicationTerminationAssertionCreateWithError("runs", 0, nullptr) != nullptr, true);
    EXPECT_EQ(apps.holds, 0);
}

TEST_F(HomeScreenTest, KnowsFromTheNoticeWhetherASyncIsUnderWay) {
    EXPECT_FALSE(screen->isSyncing());
    int token = 0;
    notifications.notify_register_check(syncNoticeName, &token);
    notifications.notify_set_state(token, 1);
    EXPECT_TRUE(screen->isSyncing());
    EXPECT_TRUE(screen->contents().isSyncing);
    notifications.notify_set_state(token, 0);
    EXPECT_FALSE(screen->isSyncing());
}

TEST_F(HomeScreenTest, ContentsShowAppsPlaceholdersUpdatesAndFolders) {
    install("com.example.app", makePNG(40, 40, 1, 0, 0));
    install("com.example.update");
    addPlaceholder("com.example.update");
    addPlaceholder("com.example.waiting");
    const auto progress = registry->progress("com.example.waiting");
    progress->setTotalUnitCount(1000);
    progress->setCompletedUnitCount(250);
    setLayout(list(list("com.example.waiting", "gone",
                        Dictionary{{"displayName", "Folder"}, {"iconLists", list(list("com.example.update"))}})));
    const ScreenContents contents = screen->contents();
    ASSERT_EQ(contents.pages.size(), 1U);
    ASSERT_EQ(contents.pages[0].size(), 3U);
    const auto& waiting = std::get<ScreenIcon>(contents.pages[0][0]);
    EXPECT_TRUE(waiting.isPlaceholder);
    EXPECT_FALSE(waiting.isUpdating);
    EXPECT_DOUBLE_EQ(waiting.progress, 0.25);
    EXPECT_EQ(waiting.icon, nullptr);
    const auto& folder = std::get<ScreenFolder>(contents.pages[0][1]);
    EXPECT_EQ(folder.name, "Folder");
    ASSERT_EQ(folder.icons.size(), 1U);
    EXPECT_FALSE(folder.icons[0].isPlaceholder);
    EXPECT_TRUE(folder.icons[0].isUpdating);
    const auto& app = std::get<ScreenIcon>(contents.pages[0][2]);
    EXPECT_EQ(app.name, "Named");
    EXPECT_FALSE(app.isPlaceholder || app.isUpdating);
    ASSERT_TRUE(app.icon);
    EXPECT_EQ(pixelAt(static_cast<const CairoImage&>(*app.icon).surface(), 60, 60), 0xFFFF0000U);
    EXPECT_TRUE(drawHomeScreen(contents));
}

} // namespace
} // namespace appsync::device
