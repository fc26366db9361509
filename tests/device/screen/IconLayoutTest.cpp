#include "device/screen/IconLayout.h"
#include "tests/device/screen/Lists.h"

#include <gtest/gtest.h>

namespace appsync::device {
namespace {

IconLayout read(const Value& root) {
    const auto layout = IconLayout::fromPropertyList(root);
    EXPECT_TRUE(layout) << errorText(layout.error());
    return layout ? *layout : IconLayout{};
}

std::string problemOf(const Value& root) {
    const auto layout = IconLayout::fromPropertyList(root);
    EXPECT_FALSE(layout);
    return errorText(layout.error());
}

template <class... Pages> Value folder(const std::string& name, Pages... pages) {
    return Dictionary{{"displayName", name}, {"iconLists", list(std::move(pages)...)}};
}

TEST(IconLayout, AListOfIdentifiersIsOnePage) {
    const IconLayout layout = read(list("a", "b"));
    EXPECT_EQ(layout.pages, (std::vector<IconPage>{{"a", "b"}}));
}

TEST(IconLayout, PagesHoldIdentifiersAndFolders) {
    const IconLayout layout = read(list(list("a", folder("F", list("b", "c"), list("d"))), list(), list("e")));
    const IconFolder inner{"F", {{"b", "c"}, {"d"}}};
    EXPECT_EQ(layout.pages, (std::vector<IconPage>{{"a", inner}, {}, {"e"}}));
    EXPECT_EQ(layout.flattened(), (IdentifierList{"a", "b", "c", "d", "e"}));
}

TEST(IconLayout, AnEmptyListIsAnEmptyLayout) {
    EXPECT_TRUE(read(list()).flattened().empty());
}

TEST(IconLayout, AnIdentifierCountsWhereItStandsFirst) {
    const IconLayout layout = read(list(list("a", "b", "a"), list(folder("F", list("b", "c")), "c", "d")));
    EXPECT_EQ(layout.flattened(), (IdentifierList{"a", "b", "c", "d"}));
}

TEST(IconLayout, WritesWhatItReads) {
    const IconLayout layout = read(list(list("a", folder("F", list("b"), list())), list("e")));
    EXPECT_EQ(read(layout.propertyList()), layout);
    EXPECT_EQ(read(IconLayout{}.propertyList()), IconLayout{});
}

TEST(IconLayout, SaysWhatIsWrongWithAnotherShape) {
    EXPECT_EQ(problemOf(Dictionary{{"iconLists", list()}}), "its root is no array");
    EXPECT_EQ(problemOf("a"), "its root is no array");
    EXPECT_EQ(problemOf(list(5)), "page 1 is no array");
    EXPECT_EQ(problemOf(list(list("a"), "b")), "page 2 is no array");
    EXPECT_EQ(problemOf(list("a", list("b"))), "entry 2 of the list is no bundle identifier");
    EXPECT_EQ(problemOf(list("a", folder("F"))), "entry 2 of the list is no bundle identifier");
    EXPECT_EQ(problemOf(list(list("a", 7))), "entry 2 of page 1 is neither a bundle identifier nor a folder");
    EXPECT_EQ(problemOf(list(list(""))), "entry 1 of page 1 is neither a bundle identifier nor a folder");
    EXPECT_EQ(problemOf(list(list(Dictionary{{"iconLists", list()}}))),
              "entry 1 of page 1 is a folder without a displayName or iconLists");
    EXPECT_EQ(problemOf(list(list(Dictionary{{"displayName", "F"}}))),
              "entry 1 of page 1 is a folder without a displayName or iconLists");
    EXPECT_EQ(problemOf(list(list(folder("F", "b")))),
              "entry 1 of page 1 is a folder whose iconLists hold something else than arrays");
    EXPECT_EQ(problemOf(list(list(folder("F", list(folder("G")))))),
              "entry 1 of a page of the folder at entry 1 of page 1 is no bundle identifier");
}

TEST(IconLayout, ShowsOnlyWhatIsThereInItsPlace) {
    const IconLayout layout = read(list(list("gone", "b"), list("gone2"), list("a")));
    EXPECT_EQ(layout.showing({"a", "b"}).pages, (std::vector<IconPage>{{"b"}, {"a"}}));
}

TEST(IconLayout, AppsWithoutAPlaceFollowOnTheLastPageInTheirOrder) {
    const IconLayout layout = read(list(list("c"), list("a")));
    EXPECT_EQ(layout.showing({"z", "a", "y", "c"}).pages, (std::vector<IconPage>{{"c"}, {"a", "z", "y"}}));
    EXPECT_EQ(IconLayout{}.showing({"z", "y"}).pages, (std::vector<IconPage>{{"z", "y"}}));
    EXPECT_EQ(IconLayout{}.showing({}).pages, (std::vector<IconPage>{{}}));
}

TEST(IconLayout, FoldersShowWhatIsThereAndEmptyOnesAreGone) {
    const IconLayout layout =
        read(list(list(folder("F", list("gone"), list("a", "gone2")), folder("G", list("gone3")), "b")));
    const IconFolder shown{"F", {{"a"}}};
    EXPECT_EQ(layout.showing({"a", "b"}).pages, (std::vector<IconPage>{{shown, "b"}}));
}

TEST(IconLayout, TenThousandAppsAreArrangedQuickly) {
    Array root;
    IdentifierList apps;
    for (int i = 0; i < 10'000; ++i) {
        root.emplace_back("com.example.app" + std::to_string(i));
        apps.push_back("com.example.app" + std::to_string(9'999 - i));
    }
    const IconLayout shown = read(root).showing(apps);
    ASSERT_EQ(shown.pages.size(), 1U);
    EXPECT_EQ(shown.pages[0].size(), 10'000U);
    EXPECT_EQ(std::get<std::string>(shown.pages[0][0]), "com.example.app0");
}

} // namespace
} // namespace appsync::device
