#include "values/storage/ValueHash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>

namespace appsync::detail {
namespace {

const Hasher some(reinterpret_cast<const void*>(std::uintptr_t{0x7F001000}));
const Hasher other(reinterpret_cast<const void*>(std::uintptr_t{0x7F001010}));

/// Keys that differ in a single place, for every place and length.
std::set<std::string> similarKeys() {
    std::set<std::string> keys;
    for (std::size_t length = 0; length <= 70; ++length) {
        keys.insert(std::string(length, 'a'));
        for (std::size_t i = 0; i < length; ++i) {
            for (const char c : {'b', '\0', '\x80'}) {
                std::string key(length, 'a');
                key[i] = c;
                keys.insert(key);
            }
        }
    }
    return keys;
}

TEST(ValueHash, TellsSimilarKeysApart) {
    const std::set<std::string> keys = similarKeys();
    std::set<std::uint64_t> hashes;
    for (const std::string& key : keys) {
        hashes.insert(some(key));
        EXPECT_EQ(some(key), some(std::string(key)));
    }
    EXPECT_EQ(hashes.size(), keys.size());
}

TEST(ValueHash, SpreadsSimilarKeysOverTheLowBits) {
    const std::set<std::string> keys = similarKeys();
    std::set<std::uint64_t> buckets;
    for (const std::string& key : keys) {
        buckets.insert(some(key) & 0xFFFF);
    }
    // 7526 keys thrown at random into 65536 buckets hit about 7106 of them.
    EXPECT_GT(buckets.size(), keys.size() * 9 / 10);
}

TEST(ValueHash, KeysThatCollideWithOneSeedDoNotWithAnother) {
    std::set<std::string> collidingKeys;
    for (int i = 0; collidingKeys.size() < 40; ++i) {
        const std::string key = "key number " + std::to_string(i);
        if ((some(key) & 0x3FF) == 0) {
            collidingKeys.insert(key);
        }
    }
    std::set<std::uint64_t> buckets;
    for (const std::string& key : collidingKeys) {
        buckets.insert(other(key) & 0x3FF);
    }
    EXPECT_GT(buckets.size(), 30U);
}

TEST(ValueHash, OfCellsDependsOnAllBits) {
    std::set<std::uint64_t> hashes;
    const Cell::Words words{0x0123456789ABCDEF, 0x06000000FEDCBA98};
    for (int bit = 0; bit < 64; ++bit) {
        hashes.insert(some(Cell::Words{words.first ^ std::uint64_t{1} << bit, words.second}));
        hashes.insert(some(Cell::Words{words.first, words.second ^ std::uint64_t{1} << bit}));
    }
    hashes.insert(some(words));
    EXPECT_EQ(hashes.size(), 129U);
}

} // namespace
} // namespace appsync::detail
