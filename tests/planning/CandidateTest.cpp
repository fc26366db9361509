// The candidate entries of planning, key by key.
#include "planning/Candidate.h"
#include "tests/inmemory/ClientTest.h"

namespace appsync {
namespace {

class Candidates : public testing::Test {
  protected:
    inmemory::World world;
};

TEST_F(Candidates, TakeFromARecordWhatItHas) {
    EXPECT_EQ(candidate::fromToDoRecord("a", Dictionary{{"version", "1.0"}, {"name", "A"}, {"size", 7}}),
              (Dictionary{{"BXBundleIdentifier", "a"},
                          {"BXBundleVersion", "1.0"},
                          {"Path", "/var/mobile/Library/ApplicationSync/TamblinStuff/a"},
                          {"Container", "/var/mobile/Library/ApplicationSync/TamblinStuff/a"},
                          {"NameFromTamblin", "A"}}));
    EXPECT_EQ(candidate::fromToDoRecord("a", Dictionary{{"version", 1}, {"name", Array{}}}),
              (Dictionary{{"BXBundleIdentifier", "a"},
                          {"Path", "/var/mobile/Library/ApplicationSync/TamblinStuff/a"},
                          {"Container", "/var/mobile/Library/ApplicationSync/TamblinStuff/a"}}));
}

TEST_F(Candidates, LeaveAPlaceholdersEmptyVersionOut) {
    const auto placeholder = world.registry.addPlaceholder("a");
    placeholder->version = "";
    EXPECT_EQ(candidate::fromPlaceholder(*placeholder).find("BXBundleVersion"), nullptr);
    placeholder->version = "1.0";
    EXPECT_EQ(candidate::fromPlaceholder(*placeholder).string("BXBundleVersion"), "1.0");
    placeholder->version = std::nullopt;
    EXPECT_EQ(candidate::fromPlaceholder(*placeholder).find("BXBundleVersion"), nullptr);
}

} // namespace
} // namespace appsync
