// The restore state when its file cannot be read or written.
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

using inmemory::Lines;

class RestoreStateFailures : public inmemory::ClientTest {
  protected:
    void SetUp() override {
        start();
        world.files.putPlist(paths::restoreState, state);
    }
    const std::string file{paths::restoreState};
    const Dictionary state{{"a", Dictionary{{"1", Dictionary{{"path", "/a"}}}}},
                           {"b", Dictionary{{"1", Dictionary{{"path", "/b"}}}}}};
};

TEST_F(RestoreStateFailures, KeepTheFileWhenWhatRemainsHasNoBytes) {
    world.faults.fail("plist.serialise");
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + file + ")", "plist.parse()", "plist.serialise(xml)"}));
    EXPECT_EQ(world.files.plistAt(file), Value(state));
}

TEST_F(RestoreStateFailures, KeepTheFileWhenItCannotBeReplaced) {
    world.faults.fail("files.writeFileAtomically");
    client().cleanRestoreStateForIdentifier("a");
    EXPECT_EQ(journal(), (Lines{"files.readFile(" + file + ")", "plist.parse()", "plist.serialise(xml)",
                                "files.writeFileAtomically(" + file + ")"}));
    EXPECT_EQ(world.files.plistAt(file), Value(state));
}

TEST_F(RestoreStateFailures, BeginAnewWhenTheFileCannotBeRead) {
    world.faults.fail("files.readFile");
    client()._setRestoreStatePropertyValue_forKey_identifier_version("/c", "path", "c", "1");
    EXPECT_EQ(world.files.plistAt(file), Value(Dictionary{{"c", Dictionary{{"1", Dictionary{{"path", "/c"}}}}}}));
}

} // namespace
} // namespace appsync
