#include "values/PropertyList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace appsync {
namespace {

std::string keysOf(const Dictionary& dictionary) {
    std::string keys;
    for (const auto& [key, value] : dictionary) {
        keys += key.view();
    }
    return keys;
}

TEST(Dictionary, KeepsTheOrderOfInsertion) {
    Dictionary dictionary{{"c", 1}, {"a", 2}};
    dictionary.set("b", 3);
    dictionary.set("a", 4);
    EXPECT_EQ(keysOf(dictionary), "cab");
    EXPECT_EQ(dictionary.find("a")->integer(), 4);
    EXPECT_TRUE(dictionary.erase("c"));
    dictionary.set("c", 5);
    EXPECT_EQ(keysOf(dictionary), "abc");
}

TEST(Dictionary, OfALiteralTakesTheLastOfEqualKeys) {
    const Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
    EXPECT_EQ(dictionary.size(), 2U);
    EXPECT_EQ(dictionary.find("a")->integer(), 3);
    EXPECT_EQ(keysOf(dictionary), "ab");
}

TEST(Dictionary, InsertsOnlyNewKeys) {
    Dictionary dictionary;
    EXPECT_TRUE(dictionary.empty());
    EXPECT_TRUE(dictionary.insert("a", 1));
    EXPECT_FALSE(dictionary.insert("a", 2));
    EXPECT_EQ(dictionary.find("a")->integer(), 1);
    EXPECT_EQ(dictionary.size(), 1U);
}

TEST(Dictionary, ErasesKeys) {
    Dictionary dictionary{{"a", 1}};
    EXPECT_FALSE(dictionary.erase("b"));
    EXPECT_TRUE(dictionary.erase("a"));
    EXPECT_FALSE(dictionary.erase("a"));
    EXPECT_TRUE(dictionary.empty());
    EXPECT_EQ(dictionary.find("a"), nullptr);
}

TEST(Dictionary, TellsSimilarKeysApart) {
    const std::string longKey = "a key that does not fit into a cell";
    Dictionary dictionary{{"", 0}, {"a", 1}, {"aa", 2}, {longKey, 3}, {longKey + "x", 4}, {std::string("a\0", 2), 5}};
    EXPECT_EQ(dictionary.size(), 6U);
    EXPECT_EQ(dictionary.find("")->integer(), 0);
    EXPECT_EQ(dictionary.find("aa")->integer(), 2);
    EXPECT_EQ(dictionary.find(longKey + "x")->integer(), 4);
    EXPECT_EQ(dictionary.find(std::string("a\0", 2))->integer(), 5);
    EXPECT_FALSE(dictionary.contains("A"));
}

TEST(Dictionary, AnswersValuesOfTheKindAskedFor) {
    const Dictionary dictionary{{"text", "abc"},    {"data", Data("d")},
                                {"list", Array{1}}, {"table", Dictionary{{"a", 1}}},
                                {"yes", true},      {"zero", 0}};
    EXPECT_EQ(dictionary.string("text"), "abc");
    EXPECT_EQ(dictionary.string("data"), std::nullopt);
    EXPECT_EQ(dictionary.string("none"), std::nullopt);
    EXPECT_EQ(dictionary.data("data")->bytes(), "d");
    EXPECT_EQ(dictionary.data("text"), std::nullopt);
    EXPECT_EQ(dictionary.array("list")->size(), 1U);
    EXPECT_EQ(dictionary.array("table"), nullptr);
    EXPECT_EQ(dictionary.array("none"), nullptr);
    EXPECT_EQ(dictionary.dictionary("table")->size(), 1U);
    EXPECT_EQ(dictionary.dictionary("list"), nullptr);
    EXPECT_TRUE(dictionary.truth("yes"));
    EXPECT_FALSE(dictionary.truth("zero"));
    EXPECT_FALSE(dictionary.truth("text"));
    EXPECT_FALSE(dictionary.truth("none"));
}

TEST(Dictionary, CopiesAreIndependent) {
    for (const int size : {1, 5, 16, 17, 100}) {
        Dictionary original;
        for (int i = 0; i < size; ++i) {
            original.set("key number " + std::to_string(i), i);
        }
        Dictionary copy = original;
        copy.set("key number 0", "changed");
        copy.set("more", 1);
        EXPECT_EQ(original.find("key number 0")->integer(), 0);
        EXPECT_FALSE(original.contains("more"));
        EXPECT_EQ(copy.size(), original.size() + 1);
        EXPECT_TRUE(original.erase("key number 0"));
        EXPECT_EQ(copy.string("key number 0"), "changed");
        copy = original;
        EXPECT_TRUE(copy == original);
    }
}

TEST(Dictionary, IsEmptyAfterItWasMovedAndCanBeUsedAgain) {
    Dictionary original{{"a", 1}, {"b", "a text that does not fit into a cell"}};
    Dictionary taken = std::move(original);
    EXPECT_EQ(taken.size(), 2U);
    EXPECT_TRUE(original.empty()); // NOLINT: the state after a move is what is tested
    EXPECT_EQ(original.begin(), original.end());
    original.set("c", 3);
    EXPECT_EQ(keysOf(original), "c");
    original = std::move(taken);
    EXPECT_EQ(keysOf(original), "ab");
    EXPECT_TRUE(taken.empty()); // NOLINT
}

TEST(Dictionary, CanBeTakenOutOfAValue) {
    Value value = Dictionary{{"inner", Dictionary{{"a", 1}, {"b", "a text that does not fit into a cell"}}}};
    Dictionary* outer = value.mutableDictionary();
    Dictionary* inner = outer->find("inner")->mutableDictionary();
    Dictionary taken = std::move(*inner);
    EXPECT_TRUE(inner->empty()); // NOLINT
    inner->set("c", 1);
    EXPECT_EQ(value.description(), "{inner = {c = 1;};}");
    value = Value();
    EXPECT_EQ(Value(taken).description(), "{a = 1; b = a text that does not fit into a cell;}");
}

TEST(Dictionary, CanBeReplacedByAPartOfItself) {
    Value value = Dictionary{{"inner", Dictionary{{"a", Dictionary{{"b", 1}}}}}};
    Dictionary& outer = *value.mutableDictionary();
    outer = std::move(*outer.find("inner")->mutableDictionary());
    EXPECT_EQ(value.description(), "{a = {b = 1;};}");
    const Dictionary copy = *outer.dictionary("a");
    outer = *outer.dictionary("a");
    EXPECT_EQ(value.description(), "{b = 1;}");
    EXPECT_TRUE(copy == outer);
    outer = *&outer;
    EXPECT_EQ(value.description(), "{b = 1;}");
}

TEST(Dictionary, EqualityIgnoresOrderAlsoForLargeOnes) {
    Dictionary a;
    Dictionary b;
    for (int i = 0; i < 1000; ++i) {
        a.set("key" + std::to_string(i), i);
        b.set("key" + std::to_string(999 - i), 999 - i);
    }
    EXPECT_TRUE(a == b);
    b.set("key500", 0);
    EXPECT_FALSE(a == b);
}

/// Does the same to a dictionary and to a plain list of pairs, and compares.
TEST(Dictionary, BehavesAsAListOfPairsWhateverItsSize) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const std::size_t keys : {5U, 15U, 16U, 17U, 18U, 40U, 300U}) {
        Dictionary dictionary;
        std::vector<std::pair<std::string, int>> pairs;
        for (int step = 0; step < 1500; ++step) {
            const std::string key =
                (random() % 2 == 0 ? "k" : "a longer key, number ") + std::to_string(random() % keys);
            const auto found = std::find_if(pairs.begin(), pairs.end(), [&](const auto& p) { return p.first == key; });
            const bool isThere = found != pairs.end();
            switch (random() % 8) {
            case 0:
            case 1:
                ASSERT_EQ(dictionary.erase(key), isThere);
                if (isThere) {
                    pairs.erase(found);
                }
                break;
            case 2:
                ASSERT_EQ(dictionary.insert(key, step), !isThere);
                if (!isThere) {
                    pairs.emplace_back(key, step);
                }
                break;
            case 3: dictionary = Dictionary(dictionary); break;
            case 4: dictionary.reserve(random() % (2 * keys)); break;
            default:
                dictionary.set(key, step);
                if (isThere) {
                    found->second = step;
                } else {
                    pairs.emplace_back(key, step);
                }
                break;
            }
            ASSERT_EQ(dictionary.size(), pairs.size());
            ASSERT_TRUE(
                std::equal(dictionary.begin(), dictionary.end(), pairs.begin(), [](const auto& a, const auto& b) {
                    return a.key.view() == b.first && a.value == Value(b.second);
                }));
            if (step % 20 != 0) {
                continue;
            }
            for (const auto& [expectedKey, expected] : pairs) {
                const Value* value = dictionary.find(expectedKey);
                ASSERT_TRUE(value && *value == Value(expected)) << expectedKey;
            }
            ASSERT_FALSE(dictionary.contains("k" + std::to_string(keys)));
        }
    }
}

} // namespace
} // namespace appsync
