// The sync notice and the icon order.
#include "tests/inmemory/ClientTest.h"

#include "propertylist/Codec.h"

namespace appsync {
namespace {

using inmemory::Lines;

const std::string notice = "com.zuvex.skellan.qrd.wsyncnotify";
const std::string sortOrder{paths::assetSortOrder};

class HomeScreenIntegration : public inmemory::ClientTest {
  protected:
    void SetUp() override { start(); }
    void putIconOrder(const Value& order) {
        const auto bytes = PropertyListCodec().dataWithPropertyList(order, PropertyListFormat::binary, nullptr);
        world.screen.iconOrder = std::string(bytes->bytes());
    }
    const Lines fetched{"screen.port()",
                        "screen.SKGetFlattenedIconState(port 77, format 1)",
                        "log: saved icon sort order",
                        "files.writeFileAtomically(" + sortOrder + ")",
                        "plist.parse()",
                        "screen.SKDeallocate()"};
};

TEST_F(HomeScreenIntegration, AnnouncesThatASyncStarts) {
    client()._notifySkellan(true);
    EXPECT_EQ(journal(), (Lines{"notify.register(" + notice + ")", "log: Notifying SK we are starting syncing",
                                "screen.port()", "notify.setState(token 5, 1)", "notify.post(" + notice + ")"}));
}

TEST_F(HomeScreenIntegration, AnnouncesThatASyncIsDone) {
    client()._notifySkellan(false);
    EXPECT_EQ(journal(), (Lines{"notify.register(" + notice + ")", "log: Notifying SK we are done syncing",
                                "screen.port()", "notify.setState(token 5, 0)", "notify.post(" + notice + ")"}));
}

TEST_F(HomeScreenIntegration, PostsNothingWithoutRegistration) {
    world.faults.fail("notify.register", 1, 0, Error::make("notify", 9));
    client()._notifySkellan(true);
    EXPECT_EQ(journal(), (Lines{"notify.register(" + notice + ")", "log: Notifying SK we are starting syncing",
                                "screen.port()", "error: Uh Oh...can't send notification to SK:9"}));
}

TEST_F(HomeScreenIntegration, AnnouncesASyncAlsoWhileTheHomeScreenDoesNotRun) {
    world.faults.fail("screen.port");
    client()._notifySkellan(true);
    EXPECT_EQ(journal(), (Lines{"notify.register(" + notice + ")", "log: Notifying SK we are starting syncing",
                                "screen.port()", "notify.setState(token 5, 1)", "notify.post(" + notice + ")"}));
}

TEST_F(HomeScreenIntegration, AsksForTheOrderAlsoWhileTheHomeScreenDoesNotRun) {
    putIconOrder(Array{"b"});
    world.faults.fail("screen.port");
    Dictionary items{{"a", 1}, {"b", 2}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{1, 2}));
    EXPECT_EQ(journal(), (Lines{"screen.port()", "screen.SKGetFlattenedIconState(port 0, format 1)",
                                "log: got no icon sort order from SK", "log: lastly a", "log: lastly b"}));
}

TEST_F(HomeScreenIntegration, OrdersItemsByTheirIconsAndPutsTheRestLast) {
    putIconOrder(Array{"c", "unknown", "a"});
    Dictionary items{{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{3, 1, 2, 4}));
    Lines expected = fetched;
    for (const char* line : {"log: prioritize c", "log: prioritize a", "log: lastly b", "log: lastly d"}) {
        expected.emplace_back(line);
    }
    EXPECT_EQ(journal(), expected);
    EXPECT_EQ(items, (Dictionary{{"b", 2}, {"d", 4}}));
    EXPECT_EQ(world.files.bytesAt(sortOrder), world.screen.iconOrder);
}

TEST_F(HomeScreenIntegration, PlacesARepeatedIconAtItsFirstAppearance) {
    putIconOrder(Array{"b", "a", "b"});
    Dictionary items{{"a", 1}, {"b", 2}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{2, 1}));
    EXPECT_EQ(world.journal.linesWith("log: prioritize"), (Lines{"log: prioritize b", "log: prioritize a"}));
}

TEST_F(HomeScreenIntegration, FetchesAndSavesTheOrderEvenForNoItems) {
    putIconOrder(Array{"a"});
    Dictionary items;
    EXPECT_EQ(client()._orderTheItems(items), Array{});
    EXPECT_EQ(journal(), fetched);
}

TEST_F(HomeScreenIntegration, PutsEverythingLastWithoutAnOrder) {
    world.files.put(sortOrder, "of before");
    Dictionary items{{"b", 1}, {"a", 2}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{1, 2}));
    EXPECT_EQ(journal(), (Lines{"screen.port()", "screen.SKGetFlattenedIconState(port 77, format 1)",
                                "log: got no icon sort order from SK", "log: lastly b", "log: lastly a"}));
    EXPECT_EQ(world.files.bytesAt(sortOrder), "of before");
}

TEST_F(HomeScreenIntegration, PutsEverythingLastWhenTheOrderCannotBeUnderstood) {
    Dictionary items{{"a", 1}};
    Lines expected = fetched;
    expected.emplace_back("log: lastly a");
    world.screen.iconOrder = "no property list";
    EXPECT_EQ(client()._orderTheItems(items), Array{1});
    EXPECT_EQ(journal(), expected);
    EXPECT_EQ(world.files.bytesAt(sortOrder), "no property list");
    putIconOrder(Dictionary{{"a", "b"}});
    EXPECT_EQ(client()._orderTheItems(items), Array{1});
    EXPECT_EQ(journal(), expected);
}

TEST_F(HomeScreenIntegration, SavesAndFreesAnOrderWithoutASingleByte) {
    world.files.put(sortOrder, "of before");
    world.screen.iconOrder = "";
    Dictionary items{{"a", 1}};
    EXPECT_EQ(client()._orderTheItems(items), Array{1});
    Lines expected = fetched;
    expected.emplace_back("log: lastly a");
    EXPECT_EQ(journal(), expected);
    EXPECT_EQ(world.files.bytesAt(sortOrder), "");
}

TEST_F(HomeScreenIntegration, OrdersItemsEvenWhenTheOrderCannotBeSaved) {
    putIconOrder(Array{"b"});
    world.faults.fail("files.writeFileAtomically");
    Dictionary items{{"a", 1}, {"b", 2}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{2, 1}));
    Lines expected = fetched;
    expected.emplace_back("log: prioritize b");
    expected.emplace_back("log: lastly a");
    EXPECT_EQ(journal(), expected);
    EXPECT_FALSE(world.files.exists(sortOrder));
}

TEST_F(HomeScreenIntegration, PassesOverIconsThatAreNoText) {
    putIconOrder(Array{5, "a", Array{"b"}});
    Dictionary items{{"a", 1}, {"b", 2}};
    EXPECT_EQ(client()._orderTheItems(items), (Array{1, 2}));
}

TEST_F(HomeScreenIntegration, OrdersManyItems) {
    Array order;
    Dictionary items;
    for (int i = 0; i < 1000; ++i) {
        order.insert(order.begin(), "app" + std::to_string(i));
        items.set("app" + std::to_string(i), i);
    }
    putIconOrder(order);
    const Array ordered = client()._orderTheItems(items);
    ASSERT_EQ(ordered.size(), 1000u);
    EXPECT_EQ(ordered.front(), Value(999));
    EXPECT_EQ(ordered.back(), Value(0));
    EXPECT_TRUE(items.empty());
}

} // namespace
} // namespace appsync
