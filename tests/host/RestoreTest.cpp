// Backing a device up and bringing it back on another one, on both install paths.
#include "tests/host/SyncFixture.h"

#include "device/coordinator/InstallCoordinator.h"
#include "device/screen/DeviceHomeScreen.h"
#include "device/services/BackupService.h"
#include "device/services/DemotedApps.h"
#include "host/control/Interrupt.h"
#include "platform/Backup.h"

#include <csignal>

namespace appsync::host {
namespace {

const std::string dataFolder = "var/mobile/Containers/Data/Application";

/// The smallest picture that is one: its content is not looked at here.
std::string png(const std::string& content) {
    return "\x89PNG\r\n\x1a\n" + content;
}

class Restores : public Sync {
  protected:
    std::string backupFolder() const { return (folder / "backup").string(); }
    /// The device that the other operations use from now on.
    void useDevice(const std::string& name) { current = name; }
    std::string device() const { return (folder / current).string(); }

    void create(const std::string& name, bool noCoordination = false) {
        useDevice(name);
        testing::internal::CaptureStdout();
        EXPECT_EQ(host::createDevice({.device = device(), .noCoordination = noCoordination}), ExitCode::done);
        testing::internal::GetCapturedStdout();
    }
    struct Said {
        ExitCode code = ExitCode::failed;
        std::string out;
        std::string complaint;
        [[nodiscard]] Json json() const { return Json::parse(out, nullptr, false); }
    };
    template <class Command> static Said run(Command&& command) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        Said said;
        said.code = command();
        said.out = testing::internal::GetCapturedStdout();
        said.complaint = testing::internal::GetCapturedStderr();
        return said;
    }
    Json syncLibrary(ExitCode expected, SyncArguments arguments = {}) {
        arguments.device = device();
        arguments.library = (folder / "library").string();
        arguments.plugin = APPSYNC_BUNDLE;
        arguments.json = JsonOutput::object;
        const Said said = run([&] { return host::sync(arguments); });
        EXPECT_EQ(said.code, expected) << said.out << said.complaint;
        return said.json();
    }
    Said backUp() {
        return run(
            [&] { return host::backup({.device = device(), .output = backupFolder(), .plugin = APPSYNC_BUNDLE}); });
    }
    Json bringBack(ExitCode expected, int type = 2) {
        const Said said = run([&] {
            return host::restore({.device = device(),
                                  .from = backupFolder(),
                                  .type = type,
                                  .plugin = APPSYNC_BUNDLE,
                                  .json = JsonOutput::object});
        });
        EXPECT_EQ(said.code, expected) << said.out << said.complaint;
        return said.json();
    }
    Json visitStore(ExitCode expected) {
        const Said said = run([&] {
            return host::store(
                {.device = device(), .catalogue = (folder / "library").string(), .json = JsonOutput::object});
        });
        EXPECT_EQ(said.code, expected) << said.out << said.complaint;
        return said.json();
    }
    void demoteApp(const std::string& name, bool automatic) {
        const Said said = run(
            [&] { return host::demote({.device = device(), .app = "com.example." + name, .automatic = automatic}); });
        EXPECT_EQ(said.code, ExitCode::done) << said.complaint;
    }

    /// "1.0", "demoted", "automatically demoted", "restore", ... for each app.
    Results states() {
        Results all;
        const auto opened = device::Device::open(device());
        EXPECT_TRUE(opened) << errorText(opened.error());
        for (const auto& app : (*opened)->registry().applications()) {
            std::string state = app.version.value_or("");
            if (app.isPlaceholder) {
                state += " as type " + std::to_string(app.installType);
            }
            all[app.identifier] = app.name + " " + state;
        }
        return all;
    }
    std::vector<std::string> order() {
        const auto opened = device::Device::open(device());
        return (*opened)->homeScreen().flattenedOrder();
    }
    std::pair<std::set<std::string>, std::set<std::string>> demotedApps() {
        const auto opened = device::Device::open(device());
        const auto lists = (*opened)->demotedApps().lists();
        return {lists.intentional, lists.automatic};
    }
    std::string iconOf(const std::string& name) {
        std::string path;
        {
            const auto opened = device::Device::open(device());
            const auto app = (*opened)->registry().application("com.example." + name);
            path = app && app->iconPath ? device() + *app->iconPath : "";
        }
        return contentOf(path);
    }
    static std::string contentOf(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    fs::path dataOf(const std::string& name) const { return fs::path(device()) / dataFolder / ("com.example." + name); }
    /// Everything below a folder: path -> mode and content.
    static Results treeOf(const fs::path& root) {
        Results all;
        if (!fs::exists(root)) {
            return all;
        }
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            const auto status = entry.symlink_status();
            std::string text = std::to_string(static_cast<unsigned>(status.permissions()));
            if (entry.is_symlink()) {
                text = "link to " + fs::read_symlink(entry.path()).string();
            } else if (entry.is_regular_file()) {
                text += " " + contentOf(entry.path());
            }
            all[entry.path().lexically_relative(root).string()] = text;
        }
        return all;
    }
    std::size_t waitingData() {
        const auto opened = device::Device::open(device());
        return (*opened)->backup().restoreData()->size();
    }
    /// Apps a to d, of which c is demoted by a person and d by the system, with data and an order of their own.
    void fill() {
        for (const std::string name : {"a", "b", "c", "d"}) {
            write(folder / "apps" / name / (name + ".app") / "Icon.png", png("icon of " + name));
            addAppWithIcon(name, "1." + name);
        }
        syncLibrary(ExitCode::done);
        write(dataOf("a") / "Documents" / "deep" / "er" / "letter", "dear reader");
        write(dataOf("a") / "settings", "all of them");
        fs::permissions(dataOf("a") / "settings", fs::perms::owner_read);
        fs::create_directory(dataOf("a") / "empty");
        fs::create_symlink("/etc/passwd", dataOf("a") / "link");
        write(dataOf("c") / "Documents" / "note", "kept while demoted");
        write(dataOf("d") / "note", "kept likewise");
        arrange({"com.example.d", "com.example.b", "com.example.a", "com.example.c"});
        demoteApp("c", false);
        demoteApp("d", true);
    }
    void addAppWithIcon(const std::string& name, const std::string& version) {
        PropertyListCodec codec;
        addApp(name, version);
        const fs::path app = folder / "apps" / name / (name + ".app");
        const Dictionary info{{"BXBundleIdentifier", "com.example." + name},
                              {"BXBundleVersion", version},
                              {"BXBundleExecutable", "main"},
                              {"BXBundleDisplayName", name},
                              {"BXBundleIconFile", "Icon.png"}};
        write(app / "Info.plist",
              std::string(codec.dataWithPropertyList(info, PropertyListFormat::xml, nullptr)->bytes()));
        fs::remove(archiveOf(name));
        ASSERT_TRUE(desktop::packApp(app.parent_path().string(), archiveOf(name).string(), codec));
    }
    void arrange(const std::vector<std::string>& identifiers) {
        Array page;
        for (const std::string& identifier : identifiers) {
            page.emplace_back(identifier);
        }
        PropertyListCodec codec;
        const auto bytes = codec.dataWithPropertyList(Array{page}, PropertyListFormat::binary, nullptr);
        const auto opened = device::Device::open(device());
        (*opened)->homeScreen().SKSetIconState(device::DeviceHomeScreen::onlyPort, bytes->bytes());
    }
    /// As an interrupted sync leaves it: the placeholder of the install stands where that of the demoted app stood.
    void beginReturnOf(const std::string& name) {
        const auto opened = device::Device::open(device());
        device::PlaceholderRequest request;
        request.identifier = "com.example." + name;
        request.info = {{"BXBundleDisplayName", name}, {"BXBundleVersion", "1." + name}};
        request.installType = PDInstallTypeSync;
        EXPECT_TRUE((*opened)->registry().installPlaceholder(request));
    }
    Results allData() const { return treeOf(fs::path(device()) / dataFolder); }
    /// Replaces one of the backup's lists.
    void writeList(const std::string& name, const Value& list) {
        PropertyListCodec codec;
        write(fs::path(backupFolder()) / name,
              std::string(codec.dataWithPropertyList(list, PropertyListFormat::binary, nullptr)->bytes()));
    }
    Dictionary restoreInfo() const {
        PropertyListCodec codec;
        const auto list =
            codec.propertyListWithData(contentOf(fs::path(backupFolder()) / "RestoreApplications.plist"), nullptr);
        return list && list->dictionary() ? *list->dictionary() : Dictionary{};
    }
    static std::string reasonOf(const Json& report, const std::string& name) {
        for (const auto& app : report["apps"]) {
            if (app["identifier"] == "com.example." + name || app["identifier"] == name) {
                return app.value("reason", "");
            }
        }
        return "(not in the report)";
    }

    std::string current = "device";
};

TEST_F(Restores, ADemotedAppKeepsItsDataNameVersionAndIcon) {
    create("a");
    fill();
    EXPECT_EQ(states(), (Results{{"com.example.a", "a 1.a"},
                                 {"com.example.b", "b 1.b"},
                                 {"com.example.c", "c 1.c as type 8"},
                                 {"com.example.d", "d 1.d as type 7"}}));
    EXPECT_EQ(demotedApps(),
              (std::pair<std::set<std::string>, std::set<std::string>>{{"com.example.c"}, {"com.example.d"}}));
    EXPECT_EQ(iconOf("c"), png("icon of c"));
    EXPECT_EQ(contentOf(dataOf("c") / "Documents" / "note"), "kept while demoted");
    const Said listed = run([&] { return listApps({.device = device()}); });
    EXPECT_NE(listed.out.find("demoted    com.example.c"), std::string::npos) << listed.out;
    EXPECT_NE(listed.out.find("installed  com.example.a"), std::string::npos) << listed.out;
    demoteApp("c", true);
    EXPECT_EQ(demotedApps().second, (std::set<std::string>{"com.example.c", "com.example.d"}));
    EXPECT_EQ(states()["com.example.c"], "c 1.c as type 7");
}

TEST_F(Restores, WhatIsNotInstalledCannotBeDemoted) {
    create("a");
    const Said said = run([&] { return host::demote({.device = device(), .app = "com.example.x"}); });
    EXPECT_EQ(said.code, ExitCode::someAppFailed);
    EXPECT_NE(said.complaint.find("the device has no such app"), std::string::npos) << said.complaint;
}

class RestoresOnBothPaths : public Restores, public testing::WithParamInterface<bool> {
  protected:
    void fillAndBackUp() {
        create("a", GetParam());
        fill();
        const Said said = backUp();
        ASSERT_EQ(said.code, ExitCode::done) << said.complaint;
        EXPECT_EQ(said.out, "backed up 4 apps to " + backupFolder() + "\n");
        dataBefore = allData();
        orderBefore = order();
        create("b", GetParam());
    }
    /// Brings what waits to the device.
    Json deliver(ExitCode expected = ExitCode::done) {
        return GetParam() ? syncLibrary(expected) : visitStore(expected);
    }
    const std::string bringing = GetParam() ? "`qrd sync` brings it." : "`qrd store` brings it.";
    Results dataBefore;
    std::vector<std::string> orderBefore;
};
INSTANTIATE_TEST_SUITE_P(Paths, RestoresOnBothPaths, testing::Values(false, true), [](const auto& path) {
    return path.param ? std::string("OwnInstalls") : std::string("Coordinated");
});

TEST_P(RestoresOnBothPaths, ASyncBringsADemotedAppBackToItsDataAndTakesItOffTheList) {
    create("a", GetParam());
    fill();
    const Results data = allData();
    EXPECT_EQ(results(syncLibrary(ExitCode::done)),
              (Results{{"com.example.c", "installed"}, {"com.example.d", "installed"}}));
    EXPECT_EQ(states()["com.example.c"], "c 1.c");
    EXPECT_EQ(demotedApps(), (std::pair<std::set<std::string>, std::set<std::string>>{}));
    EXPECT_EQ(allData(), data);
}

TEST_P(RestoresOnBothPaths, ADeviceComesBackAppByAppAndFileByFile) {
    fillAndBackUp();
    const bool isOwn = GetParam();
    const Json report = bringBack(ExitCode::done);
    EXPECT_EQ(results(report), (Results{{"com.example.a", "restored"},
                                        {"com.example.b", "restored"},
                                        {"com.example.c", isOwn ? "restored" : "demoted"},
                                        {"com.example.d", isOwn ? "restored" : "demoted"}}));
    EXPECT_EQ(states(), (Results{{"com.example.a", "a 1.a as type 2"},
                                 {"com.example.b", "b 1.b as type 2"},
                                 {"com.example.c", isOwn ? "c 1.c as type 2" : "c 1.c as type 8"},
                                 {"com.example.d", isOwn ? "d 1.d as type 2" : "d 1.d as type 7"}}));
    EXPECT_EQ(iconOf("a"), png("icon of a"));
    EXPECT_EQ(order(), orderBefore);
    EXPECT_EQ(waitingData(), isOwn ? 3U : 1U);
    EXPECT_FALSE(fs::exists(dataOf("a"))) << "data comes with its app";

    Results expected{{"com.example.a", "installed"}, {"com.example.b", "installed"}};
    if (isOwn) {
        expected.insert({{"com.example.c", "installed"}, {"com.example.d", "installed"}});
    }
    EXPECT_EQ(results(deliver()), expected);
    EXPECT_EQ(states()["com.example.a"], "a 1.a");
    EXPECT_EQ(states()["com.example.b"], "b 1.b");
    EXPECT_EQ(states()["com.example.c"], isOwn ? "c 1.c" : "c 1.c as type 8");
    EXPECT_EQ(allData(), dataBefore);
    EXPECT_EQ(dataBefore.size(), 13U);
    EXPECT_EQ(order(), orderBefore);
    EXPECT_EQ(waitingData(), 0U);
    EXPECT_EQ(treeOf(fs::path(device()) / "var/mobile/Library/RestoreData"), Results());
    EXPECT_EQ(treeOf(fs::path(device()) / "var/mobile/Library/StoreDownloads"), Results());
    EXPECT_TRUE(fs::exists(fs::path(device()) / "var/mobile/Library/Logs/MediaServices/RestoreApplications.plist"));
}

TEST_P(RestoresOnBothPaths, ASecondDeliveryHasNothingLeftToDo) {
    fillAndBackUp();
    bringBack(ExitCode::done);
    deliver();
    if (GetParam()) {
        EXPECT_EQ(deliver()["apps"], Json::array());
    } else {
        EXPECT_EQ(visitStore(ExitCode::done)["apps"], Json::array());
    }
    EXPECT_EQ(allData(), dataBefore);
}

TEST_P(RestoresOnBothPaths, RestoringTwiceBeforeTheDeliveryIsAsRestoringOnce) {
    fillAndBackUp();
    Results expected = results(bringBack(ExitCode::done));
    if (GetParam()) {
        EXPECT_EQ(results(bringBack(ExitCode::done)), expected);
    } else {
        expected["com.example.c"] = expected["com.example.d"] = "failed"; // they have come, with their data
        EXPECT_EQ(results(bringBack(ExitCode::someAppFailed)), expected);
    }
    deliver();
    EXPECT_EQ(allData(), dataBefore);
}

TEST_P(RestoresOnBothPaths, ADemotedAppThatTheDeviceHasIsLeftAloneWithItsData) {
    fillAndBackUp();
    syncLibrary(ExitCode::done, {.install = {"com.example.c"}});
    write(dataOf("c") / "note", "written since the backup");
    demoteApp("c", true);
    const Results data = treeOf(dataOf("c"));
    const auto expectRefusal = [&] {
        const Json report = bringBack(ExitCode::someAppFailed);
        EXPECT_EQ(reasonOf(report, "c"), "The device has it already; remove it first.");
        EXPECT_EQ(states()["com.example.c"].substr(0, 3), "c 1");
        EXPECT_EQ(treeOf(dataOf("c")), data);
    };
    expectRefusal();
    EXPECT_EQ(states()["com.example.c"], "c 1.c as type 7");
    EXPECT_TRUE(demotedApps().second.contains("com.example.c")) << "the device knows better than the backup";
    beginReturnOf("c");
    expectRefusal();
}

TEST_P(RestoresOnBothPaths, TheDemotedAppsOfTheDeviceStayOnTheList) {
    fillAndBackUp();
    addAppWithIcon("e", "1.e");
    syncLibrary(ExitCode::done, {.install = {"com.example.e"}});
    write(dataOf("e") / "note", "of this device");
    demoteApp("e", false);
    bringBack(ExitCode::done);
    EXPECT_EQ(demotedApps(), (std::pair<std::set<std::string>, std::set<std::string>>{
                                 {"com.example.c", "com.example.e"}, {"com.example.d"}}));
    damage("e");
    syncLibrary(ExitCode::someAppFailed, {.install = {"com.example.e"}});
    EXPECT_EQ(states()["com.example.e"], "e 1.e as type 8") << "its return has failed";
    EXPECT_EQ(contentOf(dataOf("e") / "note"), "of this device");
}

TEST_P(RestoresOnBothPaths, ABackupHoldsADemotedAppWhoseReturnWasCutShort) {
    create("a", GetParam());
    fill();
    beginReturnOf("c");
    const Said said = backUp();
    EXPECT_EQ(said.out, "backed up 4 apps to " + backupFolder() + "\n") << said.complaint;
    EXPECT_EQ(contentOf(fs::path(backupFolder()) / "Data/com.example.c/Documents/note"), "kept while demoted");
}

TEST_P(RestoresOnBothPaths, AResetLeavesDemotedAppsAlone) {
    create("a", GetParam());
    fill();
    beginReturnOf("d");
    const Results data = allData();
    const Said said = run([&] { return host::reset({.device = device(), .plugin = APPSYNC_BUNDLE, .yes = true}); });
    EXPECT_EQ(said.code, ExitCode::done) << said.complaint;
    EXPECT_EQ(states()["com.example.c"], "c 1.c as type 8");
    EXPECT_EQ(states()["com.example.d"], "d 1.d as type 7");
    EXPECT_EQ(allData(), data);
}

TEST_P(RestoresOnBothPaths, ADamagedListOfDemotedAppsIsMadeAnew) {
    create("a", GetParam());
    fill();
    const auto lists = demotedApps();
    write(fs::path(device()) / "var/mobile/Library/Preferences/com.zuvex.Halvane.DemotedApps.plist", "damaged");
    EXPECT_EQ(demotedApps(), lists);
}

TEST_P(RestoresOnBothPaths, AnAppThatTheDeviceHasIsLeftAlone) {
    fillAndBackUp();
    syncLibrary(ExitCode::done, {.install = {"com.example.a"}});
    const Json report = bringBack(ExitCode::someAppFailed);
    EXPECT_EQ(reasonOf(report, "a"), "The device has it already; remove it first.");
    EXPECT_EQ(results(report)["com.example.b"], "restored");
    EXPECT_EQ(states()["com.example.a"], "a 1.a");
    EXPECT_FALSE(fs::exists(dataOf("a")));
}

TEST_P(RestoresOnBothPaths, ADamagedArchiveFailsItsAppAndTheOthersGoOn) {
    fillAndBackUp();
    bringBack(ExitCode::done);
    damage("a");
    const Json report = deliver(ExitCode::someAppFailed);
    EXPECT_EQ(results(report)["com.example.a"], "failed");
    EXPECT_NE(reasonOf(report, "a"), "");
    EXPECT_EQ(results(report)["com.example.b"], "installed");
    EXPECT_EQ(states()["com.example.a"], "a 1.a as type 2") << "it waits on, and its data with it";
    addAppWithIcon("a", "1.a");
    EXPECT_EQ(results(deliver())["com.example.a"], "installed");
    EXPECT_EQ(allData(), dataBefore);
}

TEST_P(RestoresOnBothPaths, AnAppThatNobodyHasWaitsOn) {
    fillAndBackUp();
    bringBack(ExitCode::done);
    fs::remove(archiveOf("a"));
    const Json report = deliver(ExitCode::someAppFailed);
    EXPECT_EQ(reasonOf(report, "a"),
              GetParam() ? "The library has no 'com.example.a'." : "It is not in the catalogue.");
    EXPECT_EQ(results(report)["com.example.b"], "installed");
    EXPECT_EQ(states()["com.example.a"], "a 1.a as type 2");
    addAppWithIcon("a", "1.a");
    EXPECT_EQ(results(deliver())["com.example.a"], "installed");
    EXPECT_EQ(allData(), dataBefore);
}

TEST_P(RestoresOnBothPaths, AnotherRestoreTypeBringsNoApps) {
    fillAndBackUp();
    const Json report = bringBack(ExitCode::someAppFailed, 1);
    EXPECT_EQ(results(report)["com.example.a"], "failed");
    EXPECT_EQ(reasonOf(report, "a"), "A restore of type 1 brings no apps back.");
    EXPECT_EQ(states(), Results());
    EXPECT_EQ(waitingData(), 0U);
    EXPECT_FALSE(fs::exists(fs::path(device()) / "var/mobile/Media/TamblinRestore/RestoreApplications.plist"));
}

TEST_P(RestoresOnBothPaths, BadEntriesFailWithAReasonAndTheOthersAreRestored) {
    fillAndBackUp();
    Dictionary info = restoreInfo();
    const Value good = *info.find("com.example.b");
    info.set("com.example.a", "no dictionary");
    Dictionary changed = *good.dictionary();
    changed.erase("TamblinMetadata");
    info.set("com.example.c", changed);
    changed.set("TamblinMetadata", Data("no list"));
    info.set("com.example.d", changed);
    changed = *good.dictionary();
    changed.set("PlaceholderIcon", Data("no picture"));
    info.set("com.example.e", changed);
    info.set("com.example/..", good);
    info.set("com.example/../x", good);
    writeList("RestoreApplications.plist", info);

    const Json report = bringBack(ExitCode::someAppFailed);
    EXPECT_EQ(reasonOf(report, "a"), "What the backup says of it is no dictionary.");
    EXPECT_EQ(reasonOf(report, "c"), "The backup has no store metadata of it.");
    EXPECT_EQ(reasonOf(report, "d"), "Its store metadata is damaged.");
    EXPECT_EQ(reasonOf(report, "e"), bringing + " Its icon is no PNG and was left out.");
    EXPECT_EQ(reasonOf(report, "com.example/.."), "It is no bundle identifier.");
    EXPECT_EQ(reasonOf(report, "com.example/../x"), "It is no bundle identifier.");
    EXPECT_EQ(reasonOf(report, "b"), bringing);
    EXPECT_EQ(results(report)["com.example.b"], "restored");
    EXPECT_EQ(results(report)["com.example.e"], "restored");
    EXPECT_EQ(states().size(), 2U);
    EXPECT_EQ(waitingData(), 0U) << "of the apps that were not restored";
}

TEST_F(Restores, ADemotedAppWaitsForTheListThatSaysSo) {
    create("a");
    fill();
    backUp();
    create("b");
    const fs::path lists = fs::path(device()) / "var/mobile/Library/Preferences";
    fs::remove_all(lists);
    write(lists, "no folder");
    const Json report = bringBack(ExitCode::someAppFailed);
    EXPECT_EQ(results(report), (Results{{"com.example.a", "restored"},
                                        {"com.example.b", "restored"},
                                        {"com.example.c", "failed"},
                                        {"com.example.d", "failed"}}));
    EXPECT_NE(reasonOf(report, "c").find("The list of demoted apps could not be put on the device: "),
              std::string::npos);
    fs::remove(lists);
    EXPECT_EQ(results(bringBack(ExitCode::done))["com.example.c"], "demoted");
    EXPECT_EQ(states()["com.example.c"], "c 1.c as type 8");
}

TEST_F(Restores, DataOfADemotedAppThatCouldNotBePutInPlaceComesWhenTheDeviceIsOpenedAgain) {
    create("a");
    fill();
    const Results expected = treeOf(dataOf("c"));
    backUp();
    create("b");
    const fs::path containers = fs::path(device()) / dataFolder;
    fs::remove_all(containers);
    write(containers, "no folder");
    const Json report = bringBack(ExitCode::someAppFailed);
    EXPECT_EQ(results(report)["com.example.c"], "failed");
    EXPECT_NE(reasonOf(report, "c").find("its data could not be put in place"), std::string::npos);
    fs::remove(containers);
    EXPECT_EQ(states()["com.example.c"], "c 1.c as type 8");
    EXPECT_EQ(treeOf(dataOf("c")), expected);
}

TEST_F(Restores, DataThatCouldNotBePutInPlaceComesWhenTheDeviceIsOpenedAgain) {
    create("a");
    fill();
    const Results expected = treeOf(dataOf("a"));
    backUp();
    create("b");
    bringBack(ExitCode::done);
    const fs::path containers = fs::path(device()) / dataFolder;
    fs::rename(containers, folder / "aside");
    write(containers, "no folder");
    const Json report = visitStore(ExitCode::someAppFailed);
    EXPECT_EQ(results(report)["com.example.a"], "failed");
    fs::remove(containers);
    fs::rename(folder / "aside", containers);
    EXPECT_EQ(states()["com.example.a"], "a 1.a");
    EXPECT_EQ(treeOf(dataOf("a")), expected);
    EXPECT_EQ(waitingData(), 0U);
}

TEST_P(RestoresOnBothPaths, WhatARestoreThatWasCutShortHasLeftGoesWithTheNext) {
    fillAndBackUp();
    const fs::path root = device();
    write(root / "tmp/com.zuvex.qrd.RestoreData/com.example.gone/note", "half");
    write(root / "var/mobile/Media/TamblinRestore/.unfinished", "half");
    bringBack(ExitCode::done);
    EXPECT_EQ(treeOf(fs::path(device()) / "tmp/com.zuvex.qrd.RestoreData"), Results());
    EXPECT_EQ(treeOf(fs::path(device()) / "var/mobile/Media/TamblinRestore"), Results());
}

TEST_P(RestoresOnBothPaths, RestoreInfoThatCannotBeUsedEndsTheRestore) {
    fillAndBackUp();
    const fs::path info = fs::path(backupFolder()) / "RestoreApplications.plist";
    const std::string whole = contentOf(info);
    const auto complaint = [&] {
        const Said said =
            run([&] { return host::restore({.device = device(), .from = backupFolder(), .plugin = APPSYNC_BUNDLE}); });
        EXPECT_EQ(said.code, ExitCode::someAppFailed);
        return said.complaint;
    };
    write(info, whole.substr(0, whole.size() / 2));
    EXPECT_NE(complaint().find("is no property list"), std::string::npos);
    write(info, "");
    EXPECT_NE(complaint().find("is empty"), std::string::npos);
    writeList("RestoreApplications.plist", Array{"a"});
    EXPECT_NE(complaint().find("is no dictionary"), std::string::npos);
    fs::remove(info);
    EXPECT_NE(complaint().find("cannot be read: No such file"), std::string::npos);
    EXPECT_EQ(states(), Results());
}

TEST_P(RestoresOnBothPaths, DamagedListsAreToldAndTheAppsAreRestored) {
    fillAndBackUp();
    writeList("DemotedApps.plist", Array{});
    writeList("IconState.plist", "no layout");
    const Json report = bringBack(ExitCode::someAppFailed);
    ASSERT_EQ(report["problems"].size(), 2U) << report;
    EXPECT_NE(report["problems"][0].get<std::string>().find("is no dictionary. No app counts as demoted."),
              std::string::npos);
    EXPECT_NE(report["problems"][1].get<std::string>().find("is no icon layout"), std::string::npos);
    EXPECT_EQ(results(report)["com.example.c"], "restored");
}

TEST_P(RestoresOnBothPaths, ABackupIsWholeOrAbsent) {
    create("a", GetParam());
    fill();
    EXPECT_EQ(backUp().code, ExitCode::done);
    const Said again = backUp();
    EXPECT_EQ(again.code, ExitCode::wrongUse);
    EXPECT_NE(again.complaint.find("exists already"), std::string::npos) << again.complaint;
    fs::remove_all(backupFolder());
    // Nothing can be made in what is no folder.
    fs::create_directories(folder / "file");
    write(folder / "file" / "kept", "a person's");
    const Said failed = run([&] {
        return host::backup(
            {.device = device(), .output = (folder / "file" / "kept" / "backup").string(), .plugin = APPSYNC_BUNDLE});
    });
    EXPECT_EQ(failed.code, ExitCode::failed);
    EXPECT_NE(failed.complaint.find("cannot be written: Not a directory"), std::string::npos) << failed.complaint;
    EXPECT_FALSE(fs::exists(backupFolder()));
    for (const auto& entry : fs::directory_iterator(folder)) {
        EXPECT_EQ(entry.path().filename().string().find("unfinished"), std::string::npos) << entry.path();
    }
}

TEST_F(Restores, TheStoreBringsTheVersionOfThePlaceholder) {
    create("a");
    addApp("a", "1.0");
    syncLibrary(ExitCode::done);
    EXPECT_EQ(backUp().code, ExitCode::done);
    fs::rename(archiveOf("a"), folder / "library" / "z-old.archive");
    addApp("a", "2.0");
    create("b");
    bringBack(ExitCode::done);
    EXPECT_EQ(results(visitStore(ExitCode::done)), (Results{{"com.example.a", "installed"}}));
    EXPECT_EQ(states()["com.example.a"], "The a 1.0");
}

TEST_F(Restores, ASyncLeavesToTheStoreWhatIsItsOwn) {
    create("a");
    addApp("a");
    syncLibrary(ExitCode::done);
    EXPECT_EQ(backUp().code, ExitCode::done);
    create("b");
    bringBack(ExitCode::done);
    const Json report = syncLibrary(ExitCode::done);
    EXPECT_EQ(results(report), (Results{{"com.example.a", "waiting"}}));
    EXPECT_EQ(reasonOf(report, "a"), "It is being restored and waits for the store; `qrd store` brings it.");
    syncLibrary(ExitCode::someAppFailed, {.install = {"com.example.a"}});
    EXPECT_EQ(results(visitStore(ExitCode::done)), (Results{{"com.example.a", "installed"}}));
}

TEST_F(Restores, APackageThatArrivedBeforeAnInterruptionIsNotSentAgain) {
    create("a", true);
    addApp("a");
    syncLibrary(ExitCode::done);
    write(dataOf("a") / "note", "to be kept");
    EXPECT_EQ(backUp().code, ExitCode::done);
    create("b", true);
    bringBack(ExitCode::done);
    {
        // As an interrupted sync leaves it: the package has arrived, the data has not been restored.
        const fs::path received = fs::path(device()) / "var/mobile/Media/PublicStaging/Received";
        fs::create_directories(received);
        fs::copy(archiveOf("a"), received / "com.example.a.archive");
        PropertyListCodec codec;
        const Dictionary state{
            {"com.example.a",
             Dictionary{
                 {"1.0", Dictionary{{"path", "/var/mobile/Media/PublicStaging/Received/com.example.a.archive"}}}}}};
        write(fs::path(device()) / "var/mobile/Library/ApplicationSync/RestoreState.plist",
              std::string(codec.dataWithPropertyList(state, PropertyListFormat::xml, nullptr)->bytes()));
    }
    damage("a"); // what is sent now cannot be installed
    EXPECT_EQ(results(syncLibrary(ExitCode::done)), (Results{{"com.example.a", "installed"}}));
    EXPECT_EQ(states()["com.example.a"], "The a 1.0");
    EXPECT_EQ(contentOf(dataOf("a") / "note"), "to be kept");
    EXPECT_EQ(waitingData(), 0U);
}

TEST_F(Restores, ARestoreWhoseAppAPersonRemovesLeavesNoData) {
    create("a");
    addApp("a");
    syncLibrary(ExitCode::done);
    write(dataOf("a") / "note", "to be kept");
    EXPECT_EQ(backUp().code, ExitCode::done);
    for (const bool noCoordination : {false, true}) {
        create(noCoordination ? "c" : "b", noCoordination);
        bringBack(ExitCode::done);
        EXPECT_EQ(waitingData(), 1U);
        EXPECT_EQ(run([&] { return host::uninstall({.device = device(), .app = "com.example.a"}); }).code,
                  ExitCode::done);
        EXPECT_EQ(waitingData(), 0U);
        EXPECT_EQ(treeOf(fs::path(device()) / "var/mobile/Library/RestoreData"), Results());
    }
}

} // namespace
} // namespace appsync::host
