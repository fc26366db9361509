// The memory that reading takes, and what happens when there is none.
#include "propertylist/ListMemory.h"
#include "tests/propertylist/AllocationCounter.h"
#include "tests/propertylist/BinaryFile.h"
#include "tests/propertylist/Expectations.h"

#include <sys/resource.h>

namespace appsync {
namespace {

constexpr std::size_t fewKilobytes = 8192;

class Memory : public testing::Test {
  protected:
    void SetUp() override {
        if (!countsAllocations()) {
            GTEST_SKIP() << "a sanitizer has the allocator";
        }
    }
};

/// How much more memory than before is in use at most while the bytes are read and the result lives.
std::size_t peakOfReading(std::string_view bytes) {
    PropertyListCodec codec;
    restartPeak();
    const std::size_t before = bytesInUse();
    {
        ErrorPtr error;
        const auto value = codec.propertyListWithData(bytes, &error);
        EXPECT_TRUE(value || error);
    }
    EXPECT_EQ(bytesInUse(), before);
    return peakBytes() - before;
}

void expectBounded(std::string_view bytes) {
    EXPECT_LE(peakOfReading(bytes), propertyListMemoryFactor * bytes.size() + fewKilobytes) << bytes.size() << " bytes";
}

std::string binaryArrayOf(std::size_t count, const std::string& item) {
    BinaryFile file;
    file.referenceWidth = 3;
    file.offsetWidth = 3;
    std::string array = bytes({0xAF, 0x12}) + bigEndian(count, 4);
    for (std::size_t i = 0; i < count; ++i) {
        array += bigEndian(i + 1, 3);
    }
    file.objects.push_back(array);
    file.objects.insert(file.objects.end(), count, item);
    return file.file();
}

TEST_F(Memory, BinaryObjectsTakeASmallMultipleOfTheFile) {
    for (const std::string& item :
         {bytes({0xA0}), bytes({0xD0}), bytes({0x40}), bytes({0x09}), bytes({0xA1, 0, 0, 2}), bytes({0x41, 'a'}),
          bytes({0x5F, 0x10, 15}) + "fifteen bytes..", bytes({0x6F, 0x10, 16}) + std::string(32, '\x20'),
          bytes({0x61, 0xFF, 0xE0}), bytes({0xD1, 0, 0, 2, 0, 0, 2})}) {
        expectBounded(binaryArrayOf(20'000, item));
    }
}

TEST_F(Memory, ReferencesOfOneByteTakeASmallMultipleOfTheFile) {
    BinaryFile file;
    for (const unsigned leaf : {0x09U, 0xA0U, 0xD0U, 0x40U}) {
        file.objects = {bytes({0xAF, 0x12}) + bigEndian(100'000, 4) + std::string(100'000, '\x01'), bytes({leaf})};
        expectBounded(file.file());
    }
}

TEST_F(Memory, SmallContainersTakeASmallMultipleOfTheFile) {
    // As dense as containers can be: each byte is an object of its own.
    for (const unsigned container : {0xA0U, 0xD0U, 0x40U}) {
        BinaryFile file;
        std::string references;
        for (unsigned i = 1; i < 256; ++i) {
            references += static_cast<char>(i);
        }
        file.objects = {bytes({0xAF, 0x11, 0, 255}) + references};
        file.objects.insert(file.objects.end(), 255, bytes({container}));
        expectBounded(file.file());
    }
}

TEST_F(Memory, ManyObjectsInTheSamePlaceTakeASmallMultipleOfTheFile) {
    for (const std::string& item : {bytes({0x40}), bytes({0xA0}), bytes({0xD0}), bytes({0xA1, 0x40, 0x01})}) {
        constexpr std::size_t count = 0x4000;
        std::string file = "bplist00" + item + bytes({0x51}) + "k" + bytes({0x09});
        const std::size_t array = file.size();
        std::string table;
        file += bytes({0xAF, 0x11}) + bigEndian(count, 2);
        for (std::size_t i = 0; i < count; ++i) {
            file += bigEndian(i, 2);
            table += bigEndian(8, 2);
        }
        table += bigEndian(8 + item.size(), 2) + bigEndian(8 + item.size() + 2, 2) + bigEndian(array, 2);
        const std::size_t tableOffset = file.size();
        file += table + std::string(6, '\0') + bigEndian(2, 1) + bigEndian(2, 1) + bigEndian(count + 3, 8) +
                bigEndian(count + 2, 8) + bigEndian(tableOffset, 8);
        EXPECT_EQ(mustRead(file).array()->size(), count);
        expectBounded(file);
    }
}

TEST_F(Memory, SharedContainersAreNotCopied) {
    BinaryFile file;
    for (unsigned i = 0; i < 12; ++i) {
        file.objects.push_back(bytes({0xA2, i + 1, i + 1}));
    }
    file.objects.push_back(bytes({0x5F, 0x11, 0x40, 0}) + std::string(0x4000, 'x'));
    expectBounded(file.file());
}

TEST_F(Memory, RefusedFilesTakeASmallMultipleOfTheirSize) {
    BinaryFile file;
    // A hundred thousand levels, a count beyond the file, objects that overlap.
    file.referenceWidth = 4;
    file.offsetWidth = 4;
    for (std::size_t i = 1; i <= 100'000; ++i) {
        file.objects.push_back(bytes({0xA1}) + bigEndian(i, 4));
    }
    expectBounded(file.file());
    file.objects = {bytes({0xAF, 0x13}) + bigEndian(std::uint64_t{1} << 40, 8)};
    expectBounded(file.file());
    std::string overlapping;
    for (int i = 0; i < 20'000; ++i) {
        overlapping += bytes({0x4F, 0x11, 0x7F, 0xFF});
    }
    expectBounded(binaryArrayOf(10'000, overlapping.substr(0, 400)));
}

TEST_F(Memory, LargeDictionariesTakeASmallMultipleOfTheFile) {
    constexpr std::size_t count = 5000;
    BinaryFile file;
    file.referenceWidth = 2;
    file.offsetWidth = 3;
    std::string keys;
    std::string values;
    for (std::size_t i = 0; i < count; ++i) {
        keys += bigEndian(2 + i, 2);
        values += bigEndian(1, 2);
    }
    file.objects = {bytes({0xDF, 0x11}) + bigEndian(count, 2) + keys + values, bytes({0x09})};
    for (std::size_t i = 0; i < count; ++i) {
        file.objects.push_back(bytes({0x54}) + std::to_string(1000 + i));
    }
    expectBounded(file.file());
}

TEST_F(Memory, XmlElementsTakeASmallMultipleOfTheFile) {
    for (const std::string_view item :
         {"<true/>", "<array/>", "<dict/>", "<data/>", "<string/>", "<integer>1</integer>",
          "<string>fifteen bytes..</string>", "<array><true/></array>", "<dict><key/><true/></dict>",
          "<data>AAAA</data>", "<!-- -->", "&#10;"}) {
        std::string file = "<plist><array>";
        for (int i = 0; i < 20'000; ++i) {
            file += item;
        }
        expectBounded(file + "</array></plist>");
    }
    std::string dictionary = "<plist><dict>";
    for (int i = 0; i < 20'000; ++i) {
        dictionary += "<key>" + std::to_string(i) + "</key><true/>";
    }
    expectBounded(dictionary + "</dict></plist>");
    expectBounded("<plist><string>" + std::string(1'000'000, 'x') + "</string></plist>");
    expectBounded("<plist><data>" + std::string(1'000'000, 'A') + "</data></plist>");
    std::string deep = "<plist>";
    for (int i = 0; i < 100'000; ++i) {
        deep += "<array>";
    }
    expectBounded(deep);
    std::string attributes = "<plist";
    for (int i = 0; i < 20'000; ++i) {
        attributes += " a" + std::to_string(i) + "=\"\"";
    }
    expectBounded(attributes + "><true/></plist>");
}

Value sampleWithManyParts() {
    Array list;
    for (int i = 0; i < 40; ++i) {
        list.push_back(Dictionary{{"identifier", "com.example.vendor.app" + std::to_string(i)},
                                  {"umlaut \xC3\xA4 in a key that is long", Data("data" + std::to_string(i))},
                                  {"nested", Array{i, Dictionary{{"n", i}}}}});
    }
    list.push_back(smallSample());
    return list;
}

TEST_F(Memory, WhatIsKeptOfAListKeepsLittleMore) {
    Array list;
    for (int i = 0; i < 10'000; ++i) {
        list.push_back(Dictionary{{"identifier", "com.example.vendor.app" + std::to_string(i)}, {"size", i}});
    }
    const std::string file = mustWrite(list, PropertyListFormat::binary);
    const std::size_t before = bytesInUse();
    Value whole = mustRead(file);
    EXPECT_GT(bytesInUse() - before, file.size());
    const Value record = (*whole.array())[5000];
    const Text identifier = *record.dictionary()->find("identifier")->text();
    const Text another = *(*whole.array())[7000].dictionary()->find("identifier")->text();
    whole = Value();
    EXPECT_EQ(identifier.view(), "com.example.vendor.app5000");
    EXPECT_EQ(another.view(), "com.example.vendor.app7000");
    EXPECT_LE(bytesInUse() - before, 3U * 4096);
}

TEST_F(Memory, OfAListIsKeptForTheNextOne) {
    Array list;
    for (int i = 0; i < 20'000; ++i) {
        list.push_back(Dictionary{{"identifier", "com.example.vendor.app" + std::to_string(i)}, {"size", i}});
    }
    const std::string file = mustWrite(list, PropertyListFormat::binary);
    list = {};
    const auto pagesFetched = [&] {
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_SELF, &before);
        EXPECT_EQ(mustWrite(mustRead(file), PropertyListFormat::binary).size(), file.size());
        getrusage(RUSAGE_SELF, &after);
        return after.ru_minflt - before.ru_minflt;
    };
    keepListMemory();
    for (int round = 0; round < 3; ++round) {
        static_cast<void>(pagesFetched());
    }
    EXPECT_LT(pagesFetched(), 50);
}

/// Lets every allocation of some work fail, one in each run. `work` answers whether it succeeded.
template <class Work> void failEveryAllocation(Work work) {
    for (std::size_t count = 0;; ++count) {
        const std::size_t before = bytesInUse();
        failAllocationAfter(count);
        const bool succeeded = work();
        const bool failed = stopFailing();
        ASSERT_EQ(bytesInUse(), before) << "allocation " << count;
        if (!failed) {
            ASSERT_TRUE(succeeded);
            ASSERT_GT(count, 10U);
            return;
        }
    }
}

TEST_F(Memory, EveryAllocationInReadingMayFail) {
    for (const auto format : {PropertyListFormat::binary, PropertyListFormat::xml}) {
        const Value expected = sampleWithManyParts();
        const std::string file = mustWrite(expected, format);
        failEveryAllocation([&] {
            ErrorPtr error;
            const auto value = PropertyListCodec().propertyListWithData(file, &error);
            if (!value) {
                EXPECT_TRUE(error);
                EXPECT_EQ(error->code(), static_cast<std::int64_t>(PropertyListErrorCode::outOfMemory));
                return false;
            }
            EXPECT_TRUE(*value == expected);
            return true;
        });
    }
}

TEST_F(Memory, EveryAllocationInWritingMayFail) {
    for (const auto format : {PropertyListFormat::binary, PropertyListFormat::xml}) {
        const Value value = sampleWithManyParts();
        const std::string expected = mustWrite(value, format);
        failEveryAllocation([&] {
            ErrorPtr error;
            const auto data = PropertyListCodec().dataWithPropertyList(value, format, &error);
            if (!data) {
                EXPECT_TRUE(error);
                EXPECT_EQ(error->code(), static_cast<std::int64_t>(PropertyListErrorCode::outOfMemory));
                return false;
            }
            EXPECT_TRUE(data->bytes() == expected);
            return true;
        });
    }
}

TEST_F(Memory, EveryAllocationInReportingAnErrorMayFail) {
    const std::string file = "<plist><array><integer>abc</integer></array></plist>";
    for (std::size_t count = 0;; ++count) {
        ErrorPtr error;
        failAllocationAfter(count);
        EXPECT_FALSE(PropertyListCodec().propertyListWithData(file, &error));
        const bool failed = stopFailing();
        if (!failed) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->code(), static_cast<std::int64_t>(PropertyListErrorCode::invalidNumber));
            break;
        }
    }
}

} // namespace
} // namespace appsync
