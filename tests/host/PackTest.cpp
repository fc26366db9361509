// `qrd pack`: making an app's folder, and refusing one that the device could not use.
#include "tests/host/CommandLineFixture.h"

namespace appsync::host {
namespace {

class Pack : public CommandLine {
  protected:
    /// An Info.plist with these entries beside the identifier.
    static std::string infoWith(const std::string& entries, const std::string& identifier = "com.example.a") {
        return "<plist version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>" + identifier + "</string>" +
               entries + "</dict></plist>";
    }
    static std::string entry(const std::string& key, const std::string& text) {
        return "<key>" + key + "</key><string>" + text + "</string>";
    }
    /// Packs "A.app" with this Info.plist and a program "main"; what is said.
    std::string refused(const std::string& info) {
        write("A.app/Info.plist", info);
        const Answer answer = qrd("pack A.app -o out");
        EXPECT_EQ(answer.code, 1) << answer.text;
        EXPECT_FALSE(fs::exists(folder / "out"));
        return answer.text;
    }
    void writeProgram(bool isExecutable = true) {
        write("A.app/main", "#!/bin/sh\n");
        fs::permissions(folder / "A.app/main", isExecutable ? fs::perms::owner_all : fs::perms::owner_read);
    }
    const std::string version = entry("BXBundleVersion", "1.0");
    const std::string program = entry("BXBundleExecutable", "main");
    const std::string where = "qrd: 'A.app/Info.plist': ";
};

TEST_F(Pack, ANewAppCanBePackedSyncedAndLaunched) {
    const Answer made = qrd("pack --init Hello");
    EXPECT_EQ(made.code, 0);
    EXPECT_EQ(made.text, "made Hello.app\nnote: pack it with `qrd pack Hello.app -o Hello.zip`\n");
    EXPECT_TRUE(has(qrd("plist print Hello.app/Info.plist"), "<string>org.example.hello</string>"));
    fs::create_directories(folder / "library");
    EXPECT_EQ(qrd("pack Hello.app -o library/Hello.zip").code, 0);
    EXPECT_EQ(qrd("device create d").code, 0);
    EXPECT_EQ(qrd("sync d --library library").code, 0);
    EXPECT_EQ(qrd("launch d org.example.hello").code, 0);
    EXPECT_EQ(qrd("quit d org.example.hello").text, "ended org.example.hello\n");
}

TEST_F(Pack, ANewAppTakesTheFolderThatIsNamedAndTheNameWithItsEnding) {
    fs::create_directories(folder / "my apps");
    EXPECT_EQ(qrd("pack --init Hello.app -o 'my apps'").text,
              "made my apps/Hello.app\nnote: pack it with `qrd pack 'my apps/Hello.app' -o Hello.zip`\n");
    EXPECT_TRUE(fs::exists(folder / "my apps/Hello.app/Info.plist"));
    const Answer answer = qrd("pack --init Hello -o missing");
    EXPECT_EQ(answer.code, 5);
    EXPECT_EQ(answer.text, "qrd: 'missing/Hello.app' cannot be made: 'missing': No such file or directory.\n");
}

TEST_F(Pack, ANewAppNeverTakesThePlaceOfWhatIsThere) {
    write("Hello.app", "mine");
    const Answer answer = qrd("pack --init Hello");
    EXPECT_EQ(answer.code, 5);
    EXPECT_EQ(answer.text, "qrd: 'Hello.app' cannot be made: it is there already; name another app.\n");
    EXPECT_EQ(bytesOf("Hello.app"), "mine");
}

TEST_F(Pack, ANewAppHasANameThatTheDeviceTakes) {
    for (const char* name : {"'My App'", "../x", ".hidden", "''", ".app", "Ü"}) {
        const Answer answer = qrd("pack --init " + std::string(name));
        EXPECT_EQ(answer.code, 2) << name;
        EXPECT_TRUE(has(answer, "cannot be an app's name: it must have 1 to")) << answer.text;
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST_F(Pack, NeedsAnAppAndAnArchiveUnlessItMakesAnApp) {
    EXPECT_EQ(qrd("pack").text, "qrd pack: APPDIR is required. See `qrd pack --help`.\n");
    const Answer answer = qrd("pack A.app");
    EXPECT_EQ(answer.text, "qrd pack: --output is required. See `qrd pack --help`.\n");
    EXPECT_EQ(answer.code, 2);
    EXPECT_EQ(qrd("pack A.app --init B").code, 2);
    EXPECT_FALSE(fs::exists(folder / "B.app"));
}

TEST_F(Pack, SaysAllThatIsWrongAtOnce) {
    const std::string said =
        refused(infoWith(entry("BXBundleExecutable", "gone") + entry("BXBundleIconFile", "Icon.png"), "a/../b"));
    EXPECT_EQ(said,
              "qrd: the app A.app was refused: its BXBundleIdentifier \"a/../b\" is no bundle identifier: it must "
              "have 1 to 200 letters, digits, \".\", \"-\" or \"_\", and not begin with \".\"\n" +
                  where + "BXBundleVersion is missing; it tells one version of the app from the next, such as 1.0.\n" +
                  where + "BXBundleExecutable names \"gone\", which is missing.\n" + where +
                  "BXBundleIconFile \"Icon.png\" is missing.\n");
}

TEST_F(Pack, LeavesTheArchiveThatIsThereWhenItRefuses) {
    write("A.app/Info.plist", infoWith(version));
    write("out", "mine");
    EXPECT_EQ(qrd("pack A.app -o out").code, 1);
    EXPECT_EQ(bytesOf("out"), "mine");
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 2) << "nothing beside it either";
}

TEST_F(Pack, RefusesAnAppWithoutAVersionThatTellsItFromTheNext) {
    writeProgram();
    for (const std::string wrong : {"", "1 0", "1&#x202e;0", "x\t"}) {
        EXPECT_TRUE(refused(infoWith(program + entry("BXBundleVersion", wrong)))
                        .ends_with(" is no version: it must have 1 to 100 printable characters and no blank.\n"))
            << wrong;
    }
    EXPECT_TRUE(refused(infoWith(program + entry("BXBundleVersion", std::string(101, '1')))).starts_with(where));
    EXPECT_EQ(refused(infoWith(program + "<key>BXBundleVersion</key><integer>1</integer>")),
              where + "BXBundleVersion is no text; it tells one version of the app from the next, such as 1.0.\n");
}

TEST_F(Pack, RefusesAnAppThatTheDeviceCouldNotLaunch) {
    EXPECT_EQ(refused(infoWith(version)),
              where + "BXBundleExecutable is missing; without it the app cannot be launched.\n");
    EXPECT_EQ(refused(infoWith(version + program)), where + "BXBundleExecutable names \"main\", which is missing.\n");
    writeProgram(false);
    EXPECT_EQ(refused(infoWith(version + program)), where + "BXBundleExecutable names \"main\", which is not "
                                                            "executable; make it so with `chmod +x A.app/main`.\n");
    for (const char* elsewhere : {"../main", "/bin/sh", "bin/main", ""}) {
        EXPECT_EQ(refused(infoWith(version + entry("BXBundleExecutable", elsewhere))),
                  where + "BXBundleExecutable \"" + elsewhere + "\" names no file in the folder.\n");
    }
    fs::create_directories(folder / "A.app/folder");
    EXPECT_EQ(refused(infoWith(version + entry("BXBundleExecutable", "folder"))),
              where + "BXBundleExecutable names \"folder\", which is no file.\n");
    EXPECT_EQ(refused(infoWith(version + entry("BXBundleExecutable", ".."))),
              where + "BXBundleExecutable names \"..\", which is no file.\n");
}

TEST_F(Pack, RefusesAnIconThatTheDeviceCouldNotDraw) {
    writeProgram();
    write("A.app/Icon.png", "no picture");
    const std::string rule =
        " cannot be drawn: it must be a PNG in the folder, of at most 2048 pixels a side and 8 MB.\n";
    EXPECT_EQ(refused(infoWith(version + program + entry("BXBundleIconFile", "Icon.png"))),
              where + "BXBundleIconFile \"Icon.png\"" + rule);
    EXPECT_EQ(refused(infoWith(version + program + entry("BXBundleIconFile", "../A.app/Icon.png"))),
              where + "BXBundleIconFile \"../A.app/Icon.png\" is missing.\n");
}

TEST_F(Pack, RefusesWhatCannotBeReadOnceAndPacksNothingThatIsNoApp) {
    const Answer none = qrd("pack A.app -o out");
    EXPECT_EQ(none.code, 5) << none.text;
    EXPECT_TRUE(has(none, "'A.app' cannot be read: No such file or directory")) << none.text;
    const std::string said = refused("no list");
    EXPECT_TRUE(said.starts_with("qrd: the app A.app was refused: its entry \"A.app/Info.plist\" cannot be read"));
    EXPECT_EQ(std::ranges::count(said, '\n'), 1) << said;
}

} // namespace
} // namespace appsync::host
