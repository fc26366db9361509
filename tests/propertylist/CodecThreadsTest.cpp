// The codec and what it made, on several threads; for the thread sanitizer.
#include "tests/propertylist/Expectations.h"

#include <thread>
#include <vector>

namespace appsync {
namespace {

Value makeList() {
    Array list;
    for (int i = 0; i < 200; ++i) {
        list.push_back(Dictionary{{"identifier", "com.example.application" + std::to_string(i)},
                                  {"operation", "install"},
                                  {"icon", Data("bytes " + std::to_string(i))},
                                  {"sizes", Array{i, i + 1}}});
    }
    return list;
}

TEST(CodecThreads, OneCodecServesManyThreads) {
    PropertyListCodec codec;
    const Value list = makeList();
    std::vector<std::thread> threads;
    for (const auto format : {PropertyListFormat::binary, PropertyListFormat::xml, PropertyListFormat::binary}) {
        threads.emplace_back([&codec, &list, format] {
            for (int round = 0; round < 20; ++round) {
                const auto data = codec.dataWithPropertyList(list, format, nullptr);
                ASSERT_TRUE(data);
                const auto read = codec.propertyListWithData(data->bytes(), nullptr);
                ASSERT_TRUE(read);
                EXPECT_TRUE(*read == list);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(CodecThreads, PartsOfAListMayBeChangedAndGivenUpOnAnyThread) {
    const std::string file = mustWrite(makeList(), PropertyListFormat::binary);
    for (int round = 0; round < 20; ++round) {
        Value list = mustRead(file);
        std::vector<std::thread> threads;
        for (std::size_t number = 0; number < 4; ++number) {
            std::vector<Value> records;
            for (std::size_t i = number; i < list.array()->size(); i += 4) {
                records.push_back((*list.array())[i]);
            }
            threads.emplace_back([records = std::move(records), number]() mutable {
                for (std::size_t i = 0; i < records.size(); ++i) {
                    Dictionary& record = *records[i].mutableDictionary();
                    record.set("operation", "INSTALLED on a thread of its own");
                    EXPECT_EQ(record.string("identifier"), "com.example.application" + std::to_string(4 * i + number));
                    records[i] = *record.find("sizes");
                }
            });
        }
        list = Value();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

} // namespace
} // namespace appsync
