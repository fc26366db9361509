// Values on different threads share storage; for the thread sanitizer.
#include "values/PropertyList.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace appsync {
namespace {

Value makeList() {
    Array list;
    for (int i = 0; i < 50; ++i) {
        list.push_back(Dictionary{{"identifier", "com.example.application" + std::to_string(i)},
                                  {"operation", "install"},
                                  {"icon", Data("bytes " + std::to_string(i))},
                                  {"sizes", Array{i, i + 1}}});
    }
    return list;
}

TEST(ValueThreads, ReadersAreUndisturbedWhileOthersChangeTheirCopies) {
    const Value shared = makeList();
    const Value expected = makeList();
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&shared, &expected, number] {
            for (int round = 0; round < 100; ++round) {
                Value copy = shared;
                if (number % 2 == 0) {
                    EXPECT_TRUE(copy == expected);
                    continue;
                }
                Dictionary* record = (*copy.mutableArray())[static_cast<std::size_t>(round % 50)].mutableDictionary();
                record->set("operation", "INSTALLED by " + std::to_string(number));
                record->find("sizes")->mutableArray()->push_back(round);
                EXPECT_FALSE(copy == expected);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(shared == expected);
}

TEST(ValueThreads, TheLastOwnerMayBeAnyThread) {
    for (int round = 0; round < 200; ++round) {
        std::vector<std::thread> threads;
        {
            Value value = makeList();
            for (int number = 0; number < 4; ++number) {
                threads.emplace_back([copy = value, part = (*value.array())[7], number]() mutable {
                    if (number == 0) {
                        part.mutableDictionary()->set("operation", "INSTALLED");
                    }
                    copy = Value();
                    EXPECT_EQ(part.dictionary()->string("identifier"), "com.example.application7");
                });
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST(ValueThreads, TextsAndDataAreShared) {
    const Text text("a text that does not fit into a cell");
    const Data data("bytes");
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                const Text textCopy = text;
                const Data dataCopy = data;
                EXPECT_EQ(textCopy.view().size() + dataCopy.size(), 41U);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace
} // namespace appsync
