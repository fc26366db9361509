// The candidate entries of planning, key by key.
#include "plugin/planning/Candidate.h"
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

TEST_F(Candidates, FlagAPlaceholderWithNumbersAndABoolean) {
    const auto placeholder = world.registry.addPlaceholder("a");
    placeholder->registeredAs = "TEAM.a";
    const struct {
        std::uint64_t type;
        int isRestore, autoDemoted, manualDemoted;
    } cases[] = {{PDInstallTypeSync, 0, 0, 0},
                 {PDInstallTypeRestore, 1, 0, 0},
                 {PDInstallTypeDowngrade, 0, 1, 0},
                 {PDInstallTypeIntentionalDowngrade, 0, 0, 1}};
    for (const auto& [type, isRestore, autoDemoted, manualDemoted] : cases) {
        placeholder->type = type;
        for (const bool isSystem : {false, true}) {
            placeholder->kind = isSystem ? "System" : "User";
            EXPECT_EQ(candidate::fromPlaceholder(*placeholder), (Dictionary{{"BXBundleIdentifier", "a"},
                                                                            {"BXBundleVersion", "1.0"},
                                                                            {"Path", "/var/containers/a/App.app"},
                                                                            {"Container", "/var/containers/a"},
                                                                            {"IsRestore", isRestore},
                                                                            {"auto_demoted_app", autoDemoted},
                                                                            {"intentional_demoted_app", manualDemoted},
                                                                            {"system_app", isSystem}}));
        }
    }
}

} // namespace
} // namespace appsync
