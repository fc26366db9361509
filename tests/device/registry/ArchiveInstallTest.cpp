#include "RegistryFixture.h"

#include <algorithm>
#include <limits>

namespace appsync::device {
namespace {

TEST_F(RegistryTest, InstalledAppIsRegisteredWithWhatItsInfoSays) {
    const auto installed = install();
    ASSERT_TRUE(installed) << errorText(installed.error());
    const auto app = registry().application(identifier);
    ASSERT_TRUE(app);
    EXPECT_EQ(app->identifier, identifier);
    EXPECT_EQ(app->name, "Name");
    EXPECT_EQ(app->version, "1.0");
    EXPECT_TRUE(app->isInstalled);
    EXPECT_FALSE(app->isPlaceholder);
    EXPECT_FALSE(app->isSystem);
    EXPECT_EQ(app->installType, PDInstallTypeNone);
    EXPECT_FALSE(app->progress);
    EXPECT_EQ(app->bundlePath, app->containerPath + "/Name.app");
    EXPECT_TRUE(app->containerPath.starts_with("/var/containers/Bundle/Application/"));
    EXPECT_EQ(content(*app->iconPath), "icon 1.0");
    EXPECT_EQ(content(app->bundlePath + "/Name"), "executable of org.example.app 1.0");
    EXPECT_TRUE(registry().isInstalled(identifier));
    EXPECT_FALSE(registry().hasPlaceholder(identifier));
    EXPECT_EQ(staged(), std::vector<std::string>());
}

TEST_F(RegistryTest, InstalledAppIsThereAfterReopening) {
    auto made = request(app().bytes());
    made.installType = PDInstallTypeStoreDownload;
    made.isSystem = true;
    ASSERT_TRUE(registry().installArchive(made));
    const auto before = *registry().application(identifier);
    open();
    const auto after = registry().application(identifier);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->bundlePath, before.bundlePath);
    EXPECT_EQ(after->name, before.name);
    EXPECT_EQ(after->version, before.version);
    EXPECT_EQ(after->iconPath, before.iconPath);
    EXPECT_EQ(after->installType, PDInstallTypeStoreDownload);
    EXPECT_TRUE(after->isSystem);
    EXPECT_TRUE(after->isInstalled);
}

TEST_F(RegistryTest, AppWithoutNamesIsShownByItsExecutableOrIdentifier) {
    const auto nameOf = [&](const Dictionary& info) {
        Dictionary whole = info;
        whole.set("BXBundleIdentifier", identifier);
        const auto installed =
            registry().installArchive(request(ArchiveBuilder().list("Name.app/Info.plist", whole).bytes()));
        EXPECT_TRUE(installed) << errorText(installed.error());
        return registry().application(identifier)->name;
    };
    EXPECT_EQ(nameOf({{"BXBundleDisplayName", "Shown"}, {"BXBundleExecutable", "exe"}}), "Shown");
    EXPECT_EQ(nameOf({{"BXBundleDisplayName", ""}, {"BXBundleExecutable", "exe"}}), "exe");
    EXPECT_EQ(nameOf({{"BXBundleDisplayName", 5}, {"BXBundleExecutable", Array()}}), identifier);
    EXPECT_EQ(registry().application(identifier)->version, std::nullopt);
    EXPECT_EQ(registry().application(identifier)->iconPath, std::nullopt);
}

TEST_F(RegistryTest, IconOutsideOfTheAppIsNoIcon) {
    for (const std::string icon : {"../../TamblinArtwork", "/etc/passwd", "", "a/../../b"}) {
        const Dictionary info{{"BXBundleIdentifier", identifier}, {"BXBundleIconFile", icon}};
        ASSERT_TRUE(registry().installArchive(request(ArchiveBuilder().list("Name.app/Info.plist", info).bytes())));
        EXPECT_EQ(registry().application(identifier)->iconPath, std::nullopt) << icon;
    }
}

TEST_F(RegistryTest, UpdateReplacesTheVersionAndItsContainer) {
    ASSERT_TRUE(install());
    const auto before = *registry().application(identifier);
    ASSERT_TRUE(install(identifier, "2.0"));
    const auto after = *registry().application(identifier);
    EXPECT_EQ(after.version, "2.0");
    EXPECT_EQ(content(after.bundlePath + "/Name"), "executable of org.example.app 2.0");
    EXPECT_NE(after.containerPath, before.containerPath);
    EXPECT_FALSE(files().fileExists(before.containerPath));
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(RegistryTest, UpdateKeepsTheAppsPlaceInTheOrder) {
    ASSERT_TRUE(install("org.example.first"));
    ASSERT_TRUE(install("org.example.second"));
    ASSERT_TRUE(install("org.example.first", "2.0"));
    const auto orderIs = [&](std::vector<std::string> expected) {
        std::vector<std::string> order;
        for (const Application& app : registry().applications()) {
            order.push_back(app.identifier);
        }
        EXPECT_EQ(order, expected);
    };
    orderIs({"org.example.first", "org.example.second"});
    open();
    orderIs({"org.example.first", "org.example.second"});
    ASSERT_TRUE(registry().uninstall("org.example.first", RemovalReason::sync, RemovalScope::everything));
    ASSERT_TRUE(install("org.example.first"));
    orderIs({"org.example.second", "org.example.first"});
}

TEST_F(RegistryTest, RefusedArchiveChangesNothing) {
    ASSERT_TRUE(install());
    const auto before = *registry().application(identifier);
    const std::string good = app(identifier, "2.0").bytes();
    for (const std::string& bad : {std::string(), good.substr(0, good.size() / 2), app("org.example.other").bytes(),
                                   app().file("../outside", "x").bytes()}) {
        const auto failed = registry().installArchive(request(bad));
        ASSERT_FALSE(failed);
        EXPECT_EQ(failed.error()->domain(), TVInstallerErrorDomain);
        EXPECT_EQ(registry().application(identifier)->version, "1.0");
        EXPECT_EQ(content(before.bundlePath + "/Name"), "executable of org.example.app 1.0");
        EXPECT_EQ(containers().size(), 1U);
        EXPECT_EQ(staged(), std::vector<std::string>());
    }
}

TEST_F(RegistryTest, AppThatIsLargerThanTheDiskIsRefusedBeforeItIsUnpacked) {
    limits.unpackedBytes = limits.ratio = std::numeric_limits<std::uint64_t>::max();
    open();
    std::vector<RawEntry> entries{RawEntry::deflated("Name.app/Info.plist", infoList(identifier))};
    for (int number = 0; number < 20'000; ++number) { // 4 GB each
        entries.push_back(RawEntry::deflated("Name.app/" + std::to_string(number), ""));
        entries.back().unpackedBytes = std::numeric_limits<std::uint32_t>::max() - 1;
    }
    const auto large = request(rawArchive(entries));
    faults->forget();
    const auto failed = registry().installArchive(large);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::notEnoughSpace)) << errorText(failed.error());
    EXPECT_NE(errorText(failed.error()).find("remove apps or files and try again"), std::string::npos);
    EXPECT_EQ(std::ranges::count(faults->operations(), "create"), 0);
    EXPECT_EQ(staged(), std::vector<std::string>());
}

TEST_F(RegistryTest, ArchiveThatIsMissingOrAFolderIsNamed) {
    ArchiveRequest made;
    made.identifier = identifier;
    made.archivePath = "/var/mobile/Media/missing.zip";
    auto failed = registry().installArchive(made);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::archiveMissing));
    EXPECT_EQ(errorText(failed.error()),
              "cannot install org.example.app: opening /var/mobile/Media/missing.zip: No such "
              "file or directory");
    made.archivePath = "/var/mobile/Media";
    failed = registry().installArchive(made);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::archiveMissing));
    EXPECT_EQ(staged(), std::vector<std::string>());
}

TEST_F(RegistryTest, ArchiveStaysWhereItIs) {
    const auto made = request(app().bytes());
    ASSERT_TRUE(registry().installArchive(made));
    EXPECT_TRUE(files().fileExists(made.archivePath));
}

TEST_F(RegistryTest, IdentifiersThatAreNoFileNamesAreRefused) {
    for (const std::string& bad : {std::string(), std::string(".."), std::string("a/b"), std::string("../x"),
                                   std::string("a\0b", 3), std::string("a b"), std::string(201, 'a')}) {
        ArchiveRequest made;
        made.identifier = bad;
        const auto failed = registry().installArchive(made);
        ASSERT_FALSE(failed);
        EXPECT_EQ(failed.error()->code(), code(InstallerError::invalidIdentifier)) << bad;
        PlaceholderRequest waiting;
        waiting.identifier = bad;
        EXPECT_FALSE(registry().installPlaceholder(waiting)) << bad;
    }
}

TEST_F(RegistryTest, StoreFilesStandBesideTheApp) {
    auto made =
        request(app().file("TamblinMetadata.plist", "of the archive").file("TamblinArtwork", "artwork").bytes());
    ASSERT_TRUE(registry().installArchive(made));
    std::string container = registry().application(identifier)->containerPath;
    EXPECT_EQ(content(container + "/TamblinMetadata.plist"), "of the archive");
    EXPECT_EQ(content(container + "/TamblinArtwork"), "artwork");
    EXPECT_FALSE(files().fileExists(container + "/ApplicationSINF"));
    made.metadata = Data("of the request");
    made.sinf = Data("sinf");
    ASSERT_TRUE(registry().installArchive(made));
    container = registry().application(identifier)->containerPath;
    EXPECT_EQ(content(container + "/TamblinMetadata.plist"), "of the request");
    EXPECT_EQ(content(container + "/ApplicationSINF"), "sinf");
}

TEST_F(RegistryTest, WhatTheArchiveLacksComesFromThePlaceholder) {
    auto waiting = placeholder(identifier, PDInstallTypeRestore);
    waiting.metadata = Data("of the placeholder");
    waiting.sinf = Data("its sinf");
    waiting.isSystem = true;
    ASSERT_TRUE(registry().installPlaceholder(waiting));
    ASSERT_TRUE(install());
    const auto app = *registry().application(identifier);
    EXPECT_EQ(content(app.containerPath + "/TamblinMetadata.plist"), "of the placeholder");
    EXPECT_EQ(content(app.containerPath + "/ApplicationSINF"), "its sinf");
    EXPECT_EQ(app.installType, PDInstallTypeRestore);
    EXPECT_TRUE(app.isSystem);
    EXPECT_TRUE(app.isInstalled);
    EXPECT_FALSE(app.isPlaceholder);
    EXPECT_EQ(containers().size(), 1U);
}

TEST_F(RegistryTest, WhatThePlaceholderAloneHasAndCannotBeReadKeepsItThere) {
    for (const std::string_view file : {"/TamblinMetadata.plist", "/ApplicationSINF"}) {
        auto waiting = placeholder(identifier, PDInstallTypeRestore);
        waiting.metadata = Data("its metadata");
        waiting.sinf = Data("its sinf");
        ASSERT_TRUE(registry().installPlaceholder(waiting));
        const std::string path = registry().application(identifier)->containerPath + std::string(file);
        makeUnreadable(path);
        EXPECT_FALSE(install());
        EXPECT_FALSE(registry().isInstalled(identifier));
        EXPECT_TRUE(registry().hasPlaceholder(identifier));
        EXPECT_FALSE(registry().installPlaceholder(placeholder())) << "a sync goes on with the restore";
        EXPECT_TRUE(files().fileExists(path));
        ASSERT_TRUE(registry().uninstall(identifier, RemovalReason::person, RemovalScope::everything));
    }
}

TEST_F(RegistryTest, ArchivesOwnMetadataComesBeforeThePlaceholders) {
    auto waiting = placeholder();
    waiting.metadata = Data("of the placeholder");
    ASSERT_TRUE(registry().installPlaceholder(waiting));
    ASSERT_TRUE(registry().installArchive(request(app().file("TamblinMetadata.plist", "of the archive").bytes())));
    EXPECT_EQ(content(registry().application(identifier)->containerPath + "/TamblinMetadata.plist"), "of the archive");
}

TEST_F(RegistryTest, ProgressOfAnInstallReachesTheCaller) {
    std::vector<double> reported;
    auto made = request(app().file("Name.app/large", std::string(2'000'000, 'x')).stored().bytes());
    made.progress = [&](double fraction) {
        reported.push_back(fraction);
        EXPECT_EQ(registry().existingProgress(identifier)->installPhase(), PDInstallPhaseInstalling);
        EXPECT_EQ(registry().existingProgress(identifier)->installState(), PDInstallStateActive);
    };
    ASSERT_TRUE(registry().installArchive(made));
    ASSERT_FALSE(reported.empty());
    EXPECT_TRUE(std::ranges::is_sorted(reported));
    EXPECT_EQ(reported.back(), 1.0);
    EXPECT_EQ(registry().existingProgress(identifier), nullptr);
}

TEST_F(RegistryTest, CancelledInstallLeavesTheOldVersion) {
    ASSERT_TRUE(install());
    std::stop_source source;
    auto made = request(app(identifier, "2.0").file("Name.app/large", std::string(2'000'000, 'x')).stored().bytes());
    made.cancel = source.get_token();
    made.progress = [&](double) { source.request_stop(); };
    const auto failed = registry().installArchive(made);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::cancelled));
    EXPECT_EQ(registry().application(identifier)->version, "1.0");
    EXPECT_EQ(containers().size(), 1U);
    EXPECT_EQ(staged(), std::vector<std::string>());
    EXPECT_EQ(registry().existingProgress(identifier), nullptr);
}

TEST_F(RegistryTest, ProgressObjectCancelsTheRunningInstall) {
    auto made = request(app().file("Name.app/large", std::string(2'000'000, 'x')).stored().bytes());
    made.progress = [&](double) { registry().existingProgress(identifier)->cancel(); };
    const auto failed = registry().installArchive(made);
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::cancelled));
    EXPECT_FALSE(registry().application(identifier));
}

TEST_F(RegistryTest, ArchiveBeyondTheDevicesLimitsIsRefused) {
    limits.unpackedBytes = 100;
    open();
    const auto failed = install();
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error()->code(), code(InstallerError::archiveTooLarge));
}

TEST_F(RegistryTest, FilesAreDurableBeforeTheyAreRegistered) {
    const auto made = request(app().bytes());
    faults->forget();
    ASSERT_TRUE(registry().installArchive(made));
    const auto operations = faults->operations();
    const auto placeOf = [&](const std::string& operation) {
        return std::find(operations.begin(), operations.end(), operation) - operations.begin();
    };
    EXPECT_LT(placeOf("write"), placeOf("rename"));
    EXPECT_LT(placeOf("rename"), placeOf("sync all"));
    EXPECT_LT(placeOf("sync all"), placeOf("commit"));
    EXPECT_EQ(operations.back(), "commit");
}

TEST_F(RegistryTest, FailureOfAnyStepLeavesTheOldVersionOrTheNew) {
    bool isPastTheEnd = false;
    for (int step = 0; !isPastTheEnd; ++step) {
        ASSERT_LT(step, 100);
        ASSERT_TRUE(install());
        const auto made = request(app(identifier, "2.0").file("Name.app/a/b", "x").bytes());
        faults->forget();
        faults->failAt = step;
        faults->failure = step % 2 == 0 ? EIO : ENOSPC;
        const auto installed = registry().installArchive(made);
        faults->failAt = -1;
        isPastTheEnd = faults->count() <= static_cast<std::size_t>(step);
        const auto after = *registry().application(identifier);
        EXPECT_EQ(after.version, installed ? "2.0" : "1.0") << step;
        EXPECT_EQ(content(after.bundlePath + "/Name"), "executable of org.example.app " + *after.version) << step;
        EXPECT_EQ(staged(), std::vector<std::string>()) << step;
        if (!installed) {
            EXPECT_EQ(installed.error()->domain(), TVInstallerErrorDomain);
        }
    }
    ASSERT_TRUE(registry().settle());
    EXPECT_EQ(containers().size(), 1U);
}

} // namespace
} // namespace appsync::device
