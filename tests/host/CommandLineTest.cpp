// The commands as a whole, and what `qrd` says to wrong words.
#include "tests/host/CommandLineFixture.h"

namespace appsync::host {
namespace {

const std::string xmlList = "<plist version=\"1.0\"><array><string>a</string></array></plist>";

TEST_F(CommandLine, HelpsEverywhere) {
    for (const char* words : {"--help", "sync --help", "device create --help", "apps --help", "log --help",
                              "screen --help", "pack --help", "plist --help", "plist convert --help"}) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.code, 0) << words;
        EXPECT_NE(answer.text.find("Usage:"), std::string::npos) << words;
    }
}

TEST_F(CommandLine, RefusesWrongUse) {
    for (const char* words : {"", "nonsense", "sync", "sync device", "device", "apps", "screen d", "plist print",
                              "sync d --library l --nonsense"}) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.code, 2) << words;
        EXPECT_FALSE(answer.text.empty()) << words;
    }
}

TEST_F(CommandLine, NamesWhatIsWrongAndTheNearestRightWord) {
    const std::pair<const char*, const char*> cases[] = {
        {"synk d", "qrd has no command 'synk'. Did you mean 'sync'? See `qrd --help`.\n"},
        {"statsu d", "qrd has no command 'statsu'. Did you mean 'status'? See `qrd --help`.\n"},
        {"xyzzy", "qrd has no command 'xyzzy'. See `qrd --help`.\n"},
        {"", "qrd needs a command. See `qrd --help`.\n"},
        {"plist chek f", "qrd plist has no command 'chek'. Did you mean 'check'? See `qrd plist --help`.\n"},
        {"snyc d --library l", "qrd has no command 'snyc'. Did you mean 'sync'? See `qrd --help`.\n"},
        {"sync d --library l --json=xml",
         "qrd sync: --json: 'xml' is no form; write --json or --json=lines. See `qrd sync --help`.\n"},
        {"log d --tail many", "qrd log: --tail: 'many' is no number of lines. See `qrd log --help`.\n"},
        {"sync d --libary=l", "qrd sync has no option '--libary'. Did you mean '--library'? See `qrd sync --help`.\n"},
        {"sync d -l l", "qrd sync has no option '-l'. See `qrd sync --help`.\n"},
        {"sync", "qrd sync: DIR is required. See `qrd sync --help`.\n"},
        {"apps d e", "qrd apps takes no 'e'. See `qrd apps --help`.\n"},
        {"help synk", "qrd has no command 'synk'. Did you mean 'sync'? See `qrd --help`.\n"},
    };
    for (const auto& [words, sentence] : cases) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.text, sentence) << words;
        EXPECT_EQ(answer.code, 2) << words;
    }
}

TEST_F(CommandLine, HelpWithACommandIsThatCommandsHelp) {
    EXPECT_EQ(qrd("help sync").text, qrd("sync --help").text);
    EXPECT_EQ(qrd("help plist check").text, qrd("plist check --help").text);
    EXPECT_EQ(qrd("help").text, qrd("--help").text);
    EXPECT_EQ(qrd("help sync").code, 0);
}

TEST_F(CommandLine, TellsItsVersion) {
    const Answer answer = qrd("--version");
    EXPECT_EQ(answer.text, "qrd " APPSYNC_VERSION "\n");
    EXPECT_EQ(answer.code, 0);
}

TEST_F(CommandLine, TellsWhyADeviceCannotBeUsed) {
    EXPECT_EQ(qrd("apps missing").code, 4);
    write("other/file", "x");
    EXPECT_EQ(qrd("apps other").code, 4);
    EXPECT_EQ(qrd("device create other").code, 4);
    EXPECT_TRUE(fs::exists(folder / "other" / "file"));
}

TEST_F(CommandLine, SaysWhereNoSyncCanRunSinceThereIsNoDevice) {
    write("other/file", "x");
    for (const char* words : {"status other", "status other --json", "cancel other a", "prioritize other a"}) {
        const Answer answer = qrd(words);
        EXPECT_EQ(answer.code, 4) << words;
        EXPECT_NE(answer.text.find("is not a device"), std::string::npos) << answer.text;
    }
    EXPECT_EQ(qrd("status missing").code, 4);
    EXPECT_EQ(qrd("device create d").code, 0);
    EXPECT_EQ(qrd("status d").text, "No sync is running on d.\n");
    EXPECT_EQ(qrd("status d").code, 0);
}

TEST_F(CommandLine, MakesADeviceOnce) {
    EXPECT_EQ(qrd("device create d").code, 0);
    EXPECT_EQ(qrd("device create d").code, 4);
    const Answer apps = qrd("apps d");
    EXPECT_EQ(apps.code, 0);
    EXPECT_EQ(apps.text, "The device has no apps.\n");
    EXPECT_EQ(qrd("apps d --json").text, "{\n  \"version\": 1,\n  \"apps\": []\n}\n");
}

TEST_F(CommandLine, PacksSyncsListsLogsAndDraws) {
    write("One/One.app/Info.plist",
          "<plist version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>com.example.one</string>"
          "<key>BXBundleVersion</key><string>1.0</string><key>BXBundleDisplayName</key><string>One</string>"
          "<key>BXBundleExecutable</key><string>main</string></dict></plist>");
    write("One/One.app/main", "");
    fs::permissions(folder / "One/One.app/main", fs::perms::owner_all);
    fs::create_directories(folder / "library");
    EXPECT_EQ(qrd("pack One -o library/One.archive").text, "packed library/One.archive\n");
    EXPECT_EQ(qrd("device create d").code, 0);
    const Answer synced = qrd("sync d --library library");
    EXPECT_EQ(synced.code, 0) << synced.text;
    EXPECT_NE(synced.text.find("One  1.0      installed"), std::string::npos) << synced.text;
    const auto apps = nlohmann::json::parse(qrd("apps d --json").text);
    EXPECT_EQ(apps["apps"][0]["identifier"], "com.example.one");
    EXPECT_EQ(apps["apps"][0]["installed"], true);
    EXPECT_NE(qrd("apps d").text.find("One  1.0      installed  com.example.one"), std::string::npos);
    EXPECT_NE(qrd("log d").text.find("|sync ended with success: y"), std::string::npos);
    EXPECT_NE(qrd("log d --transactions --app com.example.one").text.find("Install App"), std::string::npos);
    const auto messages = nlohmann::json::parse(qrd("log d --json").text);
    EXPECT_EQ(messages["entries"][0]["source"], "SyncBundle");
    const auto records = nlohmann::json::parse(qrd("log d --transactions --json").text);
    EXPECT_EQ(records["entries"][0]["app"], "com.example.one");
    EXPECT_EQ(qrd("screen d -o screen.png").code, 0);
    std::ifstream picture(folder / "screen.png", std::ios::binary);
    std::string magic(8, '\0');
    picture.read(magic.data(), 8);
    EXPECT_EQ(magic, "\x89PNG\r\n\x1a\n");
    EXPECT_EQ(qrd("screen d -o no/such/folder/screen.png").code, 5);
}

TEST_F(CommandLine, RefusesToPackWhatIsNoApp) {
    write("folder/file", "x");
    const Answer answer = qrd("pack folder -o out");
    EXPECT_EQ(answer.code, 2);
    EXPECT_NE(answer.text.find("is no app"), std::string::npos);
}

TEST_F(CommandLine, ConvertsPropertyListsThereAndBack) {
    write("list", xmlList);
    EXPECT_EQ(qrd("plist check list").text, "list is a property list\n");
    EXPECT_EQ(qrd("plist convert list -o binary").code, 0);
    std::ifstream binary(folder / "binary", std::ios::binary);
    std::string magic(8, '\0');
    binary.read(magic.data(), 8);
    EXPECT_EQ(magic, "bplist00");
    EXPECT_EQ(qrd("plist convert binary --xml").code, 0);
    EXPECT_EQ(qrd("plist print binary").text, qrd("plist print list").text);
    EXPECT_NE(qrd("plist print binary").text.find("<string>a</string>"), std::string::npos);
}

TEST_F(CommandLine, TellsWhyAFileIsNoPropertyList) {
    write("list", "<plist version=\"1.0\"><array>");
    const Answer answer = qrd("plist check list");
    EXPECT_EQ(answer.code, 5);
    EXPECT_NE(answer.text.find("'list' is no property list"), std::string::npos);
    EXPECT_EQ(qrd("plist print missing").code, 5);
    EXPECT_EQ(qrd("plist convert list -o out").code, 5);
    EXPECT_FALSE(fs::exists(folder / "out"));
    write("good", xmlList);
    EXPECT_EQ(qrd("plist convert good -o no/such/folder/out").code, 5);
}

} // namespace
} // namespace appsync::host
