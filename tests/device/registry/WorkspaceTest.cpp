// The registry as the plug-in sees it.
#include "RegistryFixture.h"

#include <algorithm>
#include <map>

namespace appsync::device {
namespace {

class Workspace : public RegistryTest {
  protected:
    /// What an enumeration visits: "identifier" for an app, "identifier?" for a placeholder.
    std::vector<std::string> visited(std::uint64_t type) {
        std::vector<std::string> found;
        workspace().enumerateBundlesOfType_block(type, [&](const PDApplicationProxyPtr& proxy, bool&) {
            found.push_back(proxy->bundleIdentifier() + (proxy->isPlaceholder() ? "?" : ""));
        });
        return found;
    }
    PDApplicationProxyPtr proxy(bool placeholder) {
        return workspace().applicationProxyForIdentifier_placeholder(identifier, placeholder);
    }
    static Dictionary customer(const std::string& app) {
        return {{PDPackageTypeKey, PDPackageTypeCustomer}, {PDBundleIdentifierKey, app}};
    }
    static FileURL url(const std::string& path, bool isFolder = false) {
        return *FileURL::fileURLWithPath(path, isFolder);
    }
    using List = std::vector<std::string>;
};

TEST_F(Workspace, IsTheDefaultWorkspace) {
    EXPECT_EQ(&workspace().defaultWorkspace(), &workspace());
}

TEST_F(Workspace, InstallsAnArchive) {
    const auto made = request(app().bytes());
    ErrorPtr error;
    EXPECT_TRUE(workspace().installApplication_withOptions_error(url(made.archivePath), customer(identifier), &error))
        << errorText(error);
    EXPECT_TRUE(registry().isInstalled(identifier));
    EXPECT_EQ(error, nullptr);
}

TEST_F(Workspace, InstallOptionsReachTheApp) {
    const auto made = request(app().bytes());
    Dictionary withMore = customer(identifier);
    withMore.set(PDInstallTypeKey, std::uint64_t{PDInstallTypeSync});
    withMore.set(PDTamblinMetadataKey, Data("metadata"));
    withMore.set(PDApplicationSINFKey, Data("sinf"));
    ASSERT_TRUE(workspace().installApplication_withOptions(url(made.archivePath), withMore));
    const auto found = *registry().application(identifier);
    EXPECT_EQ(found.installType, PDInstallTypeSync);
    EXPECT_EQ(content(found.containerPath + "/TamblinMetadata.plist"), "metadata");
    EXPECT_EQ(content(found.containerPath + "/ApplicationSINF"), "sinf");
}

TEST_F(Workspace, FailedInstallGivesItsError) {
    ErrorPtr error;
    EXPECT_FALSE(
        workspace().installApplication_withOptions_error(url("/tmp/missing.zip"), customer(identifier), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), TVInstallerErrorDomain);
    EXPECT_FALSE(workspace().installApplication_withOptions(url("/tmp/missing.zip"), customer(identifier)));
}

TEST_F(Workspace, UnknownPackageTypeOrIdentifierIsRefused) {
    const auto made = request(app().bytes());
    ErrorPtr error;
    EXPECT_FALSE(workspace().installApplication_withOptions_error(url(made.archivePath), {}, &error));
    EXPECT_EQ(error->code(), code(InstallerError::invalidRequest));
    const Dictionary without{{PDPackageTypeKey, PDPackageTypeCustomer}, {PDBundleIdentifierKey, 7}};
    EXPECT_FALSE(workspace().installApplication_withOptions_error(url(made.archivePath), without, &error));
    EXPECT_EQ(error->code(), code(InstallerError::invalidIdentifier));
}

TEST_F(Workspace, InstallsAPlaceholder) {
    const auto made = placeholder();
    const Dictionary placeholderOptions{{PDPackageTypeKey, PDPackageTypePlaceholder},
                                        {PDBundleIdentifierKey, identifier},
                                        {PDInstallTypeKey, std::uint64_t{PDInstallTypeRestore}},
                                        {PDTamblinMetadataKey, Data("metadata")},
                                        {PDApplicationSINFKey, Value()}};
    ASSERT_TRUE(workspace().installApplication_withOptions(url(made.bundlePath, true), placeholderOptions));
    const auto found = proxy(true);
    ASSERT_TRUE(found);
    EXPECT_TRUE(found->isPlaceholder());
    EXPECT_FALSE(found->isInstalled());
    EXPECT_TRUE(found->appState().isPlaceholder);
    EXPECT_FALSE(found->appState().isInstalled);
    EXPECT_EQ(found->installType(), PDInstallTypeRestore);
    EXPECT_EQ(found->applicationIdentifier(), identifier);
    EXPECT_EQ(found->bundleIdentifier(), identifier);
    EXPECT_EQ(found->bundleVersion(), "0.9");
    EXPECT_EQ(found->applicationType(), "User");
    EXPECT_EQ(content(found->bundleContainerURL()->path() + "/TamblinMetadata.plist"), "metadata");
    EXPECT_EQ(content(found->bundleURL()->path() + "/Icon.png"), "waiting icon");
    EXPECT_EQ(found->diskUsage().staticUsage, infoList(identifier, "0.9", "Waiting").size() + 12);
    EXPECT_EQ(found->description(), "<placeholder org.example.app>");
    EXPECT_EQ(proxy(false), nullptr);
}

TEST_F(Workspace, ProxyOfAnAppUnderUpdateIsThatOfTheInstalledVersionUnlessAskedForThePlaceholder) {
    ASSERT_TRUE(install());
    EXPECT_FALSE(proxy(true)->isPlaceholder());
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_FALSE(proxy(false)->isPlaceholder());
    EXPECT_TRUE(proxy(false)->isInstalled());
    EXPECT_EQ(proxy(false)->bundleVersion(), "1.0");
    EXPECT_TRUE(proxy(true)->isPlaceholder());
    EXPECT_EQ(workspace().applicationProxyForIdentifier_placeholder("org.example.unknown", true), nullptr);
}

TEST_F(Workspace, ProxyKeepsWhatItKnew) {
    ASSERT_TRUE(install());
    const auto before = proxy(false);
    ASSERT_TRUE(install(identifier, "2.0"));
    EXPECT_EQ(before->bundleVersion(), "1.0");
    EXPECT_EQ(proxy(false)->bundleVersion(), "2.0");
}

TEST_F(Workspace, AppIsInstalledWhetherItIsAnAppOrAPlaceholder) {
    EXPECT_FALSE(workspace().applicationIsInstalled(identifier));
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_TRUE(workspace().applicationIsInstalled(identifier));
    ASSERT_TRUE(install());
    EXPECT_TRUE(workspace().applicationIsInstalled(identifier));
}

TEST_F(Workspace, EnumerationsSelectByType) {
    auto system = request(app("org.system.app").bytes(), "org.system.app");
    system.isSystem = true;
    ASSERT_TRUE(registry().installArchive(system));
    auto offloaded = placeholder("org.system.offloaded", PDInstallTypeDowngrade);
    offloaded.isSystem = true;
    ASSERT_TRUE(registry().installPlaceholder(offloaded));
    ASSERT_TRUE(install("org.user.app"));
    ASSERT_TRUE(install("org.user.updating"));
    ASSERT_TRUE(registry().installPlaceholder(placeholder("org.user.updating")));
    ASSERT_TRUE(registry().installPlaceholder(placeholder("org.user.waiting")));
    EXPECT_EQ(visited(PDBundleTypeAll), (List{"org.system.app", "org.system.offloaded?", "org.user.app",
                                              "org.user.updating", "org.user.updating?", "org.user.waiting?"}));
    EXPECT_EQ(visited(PDBundleTypeInstalled), (List{"org.user.app", "org.user.updating", "org.user.waiting?"}));
    EXPECT_EQ(visited(PDBundleTypeSystem), (List{"org.system.app", "org.system.offloaded?"}));
    EXPECT_EQ(visited(99), List());
    EXPECT_EQ(workspace().applicationProxyForIdentifier_placeholder("org.system.app", false)->applicationType(),
              "System");
}

TEST_F(Workspace, PlaceholderOfASystemAppIsASystemApps) {
    auto system = request(app().bytes());
    system.isSystem = true;
    ASSERT_TRUE(registry().installArchive(system));
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_EQ(proxy(true)->applicationType(), "System");
    ASSERT_TRUE(install(identifier, "2.0"));
    EXPECT_EQ(proxy(false)->applicationType(), "System");
}

TEST_F(Workspace, EnumerationStopsWhenTold) {
    for (const std::string app : {"org.example.a", "org.example.b", "org.example.c"}) {
        ASSERT_TRUE(registry().installPlaceholder(placeholder(app)));
    }
    int count = 0;
    workspace().enumerateBundlesOfType_block(PDBundleTypeAll,
                                             [&](const PDApplicationProxyPtr&, bool& stop) { stop = ++count == 2; });
    EXPECT_EQ(count, 2);
}

TEST_F(Workspace, AppsMayBeRemovedWhileTheyAreEnumerated) {
    for (const std::string app : {"org.example.a", "org.example.b"}) {
        ASSERT_TRUE(registry().installPlaceholder(placeholder(app)));
    }
    workspace().enumerateBundlesOfType_block(PDBundleTypeAll, [&](const PDApplicationProxyPtr& app, bool&) {
        EXPECT_TRUE(workspace().uninstallApplication_withOptions(app->bundleIdentifier(), nullptr));
    });
    EXPECT_EQ(visited(PDBundleTypeAll), List());
}

TEST_F(Workspace, UninstallTakesThePlaceholderElseTheApp) {
    ASSERT_TRUE(install());
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    const Dictionary placeholdersOnly{{PDUninstallPlaceholdersOnlyKey, true}};
    EXPECT_TRUE(workspace().uninstallApplication_withOptions(identifier, nullptr));
    EXPECT_TRUE(registry().isInstalled(identifier));
    EXPECT_FALSE(workspace().uninstallApplication_withOptions(identifier, &placeholdersOnly));
    EXPECT_TRUE(registry().isInstalled(identifier));
    EXPECT_TRUE(workspace().uninstallApplication_withOptions(identifier, nullptr));
    EXPECT_FALSE(workspace().uninstallApplication_withOptions(identifier, nullptr));
    EXPECT_TRUE(removedApps()->empty()) << "the sync's own removals are no deletions on the device";
}

TEST_F(Workspace, SizeIsThatOfTheFilesInTheApp) {
    const std::string info = infoList(identifier);
    ASSERT_TRUE(registry().installArchive(request(ArchiveBuilder()
                                                      .file("Name.app/Info.plist", info)
                                                      .file("Name.app/x", std::string(70'000, 'x'))
                                                      .file("TamblinArtwork", "artwork")
                                                      .bytes())));
    EXPECT_EQ(proxy(false)->diskUsage().staticUsage, info.size() + 70'000);
    open();
    EXPECT_EQ(proxy(false)->diskUsage().staticUsage, info.size() + 70'000);
}

TEST_F(Workspace, ProtectionRecordIsBoundToTheDeviceWhenItNamesOne) {
    const auto sinf = [&](const Dictionary& record) {
        auto made = request(app().bytes());
        made.sinf = device->codec.dataWithPropertyList(record, PropertyListFormat::binary, nullptr);
        EXPECT_TRUE(registry().installArchive(made));
        return proxy(false)->hasMIDBasedSINF();
    };
    EXPECT_TRUE(sinf({{"MID", "device"}}));
    EXPECT_FALSE(sinf({{"account", "person"}}));
    ASSERT_TRUE(install());
    EXPECT_FALSE(proxy(false)->hasMIDBasedSINF());
}

TEST_F(Workspace, ProgressIsThatOfAPlaceholderOrAnInstallUnderWay) {
    ASSERT_TRUE(install());
    EXPECT_EQ(workspace().installProgressForApplication_withPhase(proxy(false), PDInstallPhaseLoading), nullptr);
    EXPECT_EQ(workspace().installProgressForApplication_withPhase(nullptr, PDInstallPhaseLoading), nullptr);
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    EXPECT_EQ(proxy(true)->installProgressSync(), nullptr);
    const auto progress = workspace().installProgressForApplication_withPhase(proxy(true), PDInstallPhaseRestoringData);
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->installPhase(), PDInstallPhaseRestoringData);
    EXPECT_EQ(progress->installState(), PDInstallStateWaiting);
    EXPECT_EQ(progress->totalUnitCount(), 0);
    EXPECT_EQ(workspace().installProgressForApplication_withPhase(proxy(false), PDInstallPhaseLoading), progress);
    EXPECT_EQ(proxy(true)->installProgressSync(), progress);
}

TEST_F(Workspace, HomeScreenSeesTheProgress) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    const auto progress = registry().progress(identifier);
    progress->setInstallState(PDInstallStateActive);
    progress->setTotalUnitCount(1'000);
    for (const auto& [units, fraction] : std::map<std::int64_t, double>{{-5, 0}, {0, 0}, {456, 0.456}, {1'200, 1}}) {
        progress->setCompletedUnitCount(units);
        EXPECT_EQ(registry().application(identifier)->progress, fraction);
    }
    EXPECT_EQ(registry().applications()[0].installState, PDInstallStateActive);
    EXPECT_EQ(registry().applications()[0].installPhase, PDInstallPhaseLoading);
    EXPECT_EQ(progress->description(), "<progress of org.example.app: state 1, phase 0, 1200 of 1000>");
}

TEST_F(Workspace, LoadingIsFollowedByInstallingAndThatByTheEnd) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    const auto progress = registry().progress(identifier);
    progress->setInstallState(PDInstallStateActive);
    workspace().installPhaseFinishedForProgress(progress);
    EXPECT_EQ(progress->installPhase(), PDInstallPhaseInstalling);
    EXPECT_EQ(registry().existingProgress(identifier), progress);
    workspace().installPhaseFinishedForProgress(progress);
    EXPECT_EQ(registry().existingProgress(identifier), nullptr);
    workspace().installPhaseFinishedForProgress(progress);
    workspace().installPhaseFinishedForProgress(nullptr);
}

TEST_F(Workspace, FinalStateEndsTheInstallInAnyPhase) {
    for (const std::uint64_t state : {PDInstallStateCanceled, PDInstallStateFailed, PDInstallStateFinished}) {
        ASSERT_TRUE(registry().installPlaceholder(placeholder()));
        const auto progress = registry().progress(identifier);
        progress->setInstallState(state);
        workspace().installPhaseFinishedForProgress(progress);
        EXPECT_EQ(registry().existingProgress(identifier), nullptr);
    }
}

TEST_F(Workspace, FailedInstallShowsOnItsPlaceholder) {
    ASSERT_TRUE(registry().installPlaceholder(placeholder()));
    ASSERT_FALSE(registry().installArchive(request("garbage")));
    ASSERT_TRUE(registry().application(identifier)->installState);
    EXPECT_EQ(registry().application(identifier)->installState, PDInstallStateFailed);
    ASSERT_TRUE(install());
    EXPECT_EQ(registry().application(identifier)->installState, std::nullopt);
}

/// Keeps the texts of errors.
class ErrorLog final : public HostLog {
  public:
    bool isEnabled(QRLogCategory, LogLevel) noexcept override { return true; }
    void write(QRLogCategory, LogLevel level, std::string_view, std::string_view text) noexcept override {
        if (level == LogLevel::error) {
            errors.emplace_back(text);
        }
    }
    std::vector<std::string> errors;
};

TEST_F(RegistryTest, TheLogTellsWhyARemovalFailed) {
    ASSERT_TRUE(install());
    ErrorLog log;
    ApplicationWorkspace logging(registry(), &log);
    faults->forget();
    faults->failAt = 0;
    faults->failure = EIO;
    EXPECT_FALSE(logging.uninstallApplication_withOptions(identifier, nullptr));
    faults->failAt = -1;
    ASSERT_EQ(log.errors.size(), 1U);
    EXPECT_NE(log.errors[0].find("cannot remove org.example.app: "), std::string::npos) << log.errors[0];
    EXPECT_TRUE(logging.uninstallApplication_withOptions(identifier, nullptr));
    EXPECT_FALSE(logging.uninstallApplication_withOptions(identifier, nullptr)) << "it is gone";
    EXPECT_EQ(log.errors.size(), 1U) << "nothing to remove is no failure";
}

} // namespace
} // namespace appsync::device
