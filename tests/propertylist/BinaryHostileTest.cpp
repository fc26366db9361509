// Binary files that try to exhaust or confuse the reader.
#include "tests/propertylist/BinaryFile.h"
#include "tests/propertylist/Expectations.h"

namespace appsync {
namespace {

using Code = PropertyListErrorCode;

/// A valid file whose trailer field at `field` is replaced.
std::string withTrailer(std::size_t field, std::uint64_t number, std::size_t width) {
    std::string file = fileOf(bytes({0x09}));
    return file.replace(file.size() - 32 + field, width, bigEndian(number, width));
}

TEST(HostileBinary, EveryTruncationIsRefused) {
    const std::string file = mustWrite(smallSample(), PropertyListFormat::binary);
    for (std::size_t size = 0; size < file.size(); ++size) {
        // In memory of exactly that size, so that a sanitizer sees a read beyond it.
        const std::vector<char> cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size));
        ErrorPtr error;
        EXPECT_FALSE(PropertyListCodec().propertyListWithData({cut.data(), cut.size()}, &error)) << size;
        ASSERT_TRUE(error) << size;
        EXPECT_EQ(error->domain(), propertyListErrorDomain);
    }
}

TEST(HostileBinary, EveryChangeOfOneByteEndsInAValueOrAnError) {
    const std::string file = mustWrite(smallSample(), PropertyListFormat::binary);
    for (std::size_t i = 0; i < file.size(); ++i) {
        for (unsigned value = 0; value < 256; ++value) {
            std::vector<char> damaged(file.begin(), file.end());
            damaged[i] = static_cast<char>(value);
            ASSERT_NO_FATAL_FAILURE(expectValueOrError({damaged.data(), damaged.size()})) << i << " is " << value;
        }
    }
}

TEST(HostileBinary, RefusesAFileThatIsTooShortForATrailer) {
    expectReadError("bplist00", Code::truncated, 8);
    const std::string file = fileOf(bytes({0x09}));
    expectReadError(file.substr(0, 41), Code::truncated, 41);
}

TEST(HostileBinary, RefusesWrongWidths) {
    const std::size_t trailer = fileOf(bytes({0x09})).size() - 32;
    for (const std::uint64_t width : {0U, 9U, 255U}) {
        expectReadError(withTrailer(6, width, 1), Code::invalidTrailer, trailer + 6);
        expectReadError(withTrailer(7, width, 1), Code::invalidTrailer, trailer + 7);
    }
}

TEST(HostileBinary, RefusesObjectCountsThatDoNotFitTheTable) {
    const std::size_t trailer = fileOf(bytes({0x09})).size() - 32;
    for (const std::uint64_t count : {std::uint64_t{0}, std::uint64_t{2}, std::uint64_t{1} << 63, ~std::uint64_t{0},
                                      (std::uint64_t{1} << 63) + 1}) {
        expectReadError(withTrailer(8, count, 8), Code::invalidTrailer, trailer + 8);
    }
}

TEST(HostileBinary, RefusesARootThatDoesNotExist) {
    const std::size_t trailer = fileOf(bytes({0x09})).size() - 32;
    expectReadError(withTrailer(16, 1, 8), Code::invalidReference, trailer + 16);
    expectReadError(withTrailer(16, ~std::uint64_t{0}, 8), Code::invalidReference, trailer + 16);
}

TEST(HostileBinary, RefusesAnOffsetTableOutsideOfTheFile) {
    const std::size_t trailer = fileOf(bytes({0x09})).size() - 32;
    for (const std::uint64_t table : {std::uint64_t{0}, std::uint64_t{8}, std::uint64_t{trailer}, ~std::uint64_t{0}}) {
        expectReadError(withTrailer(24, table, 8), Code::invalidTrailer, trailer + 24);
    }
}

TEST(HostileBinary, RefusesObjectsOutsideOfTheObjects) {
    BinaryFile file;
    file.objects = {bytes({0x09})};
    const std::size_t entry = file.tableOffset();
    for (const unsigned offset : {0U, 7U, 9U, 10U, 255U, 65535U}) {
        expectReadError(file.file().replace(entry, 2, bigEndian(offset, 2)), Code::invalidOffset, entry);
    }
    file.offsetWidth = 8;
    expectReadError(file.file().replace(entry, 8, std::string(8, '\xFF')), Code::invalidOffset, entry);
}

TEST(HostileBinary, RefusesAnObjectThatReachesIntoTheOffsetTable) {
    BinaryFile file;
    file.objects = {bytes({0x52}) + "a"};
    expectReadError(file.file(), Code::invalidOffset, 8);
}

TEST(HostileBinary, RefusesCyclesOverManyContainers) {
    BinaryFile file;
    file.objects = {bytes({0xA1, 1}), bytes({0xD1, 3, 2}), bytes({0xA2, 3, 0}), bytes({0x51}) + "k"};
    expectReadError(file.file(), Code::referenceCycle, file.offsetOf(2) + 2);
}

/// `depth` arrays in one another.
BinaryFile nestedFile(std::size_t depth) {
    BinaryFile file;
    file.offsetWidth = 4;
    file.referenceWidth = 4;
    for (std::size_t i = 1; i < depth; ++i) {
        file.objects.push_back(bytes({0xA1}) + bigEndian(i, 4));
    }
    file.objects.push_back(bytes({0xA0}));
    return file;
}

TEST(HostileBinary, ReadsContainersUpToTheDepthLimit) {
    EXPECT_EQ(mustRead(nestedFile(maxPropertyListDepth).file()), nestedArrays(maxPropertyListDepth));
    const BinaryFile deeper = nestedFile(maxPropertyListDepth + 1);
    expectReadError(deeper.file(), Code::tooDeep, deeper.offsetOf(maxPropertyListDepth));
}

TEST(HostileBinary, RefusesAHundredThousandLevels) {
    const std::string file = nestedFile(100'000).file();
    expectReadError(file, Code::tooDeep, 8 + maxPropertyListDepth * 5);
}

TEST(HostileBinary, RefusesDictionariesNestedTooDeep) {
    BinaryFile file;
    file.referenceWidth = 2;
    constexpr std::size_t depth = 1000;
    for (std::size_t i = 0; i < depth; ++i) {
        file.objects.push_back(bytes({0xD1}) + bigEndian(depth, 2) + bigEndian(i + 1, 2));
    }
    file.objects.push_back(bytes({0x51}) + "k");
    expectReadError(file.file(), Code::tooDeep, file.offsetOf(maxPropertyListDepth));
}

/// A chain of `inner` arrays, referred to from the root and from the end of another chain of `outer` arrays.
BinaryFile chainSharedAtDepth(std::size_t outer, std::size_t inner) {
    BinaryFile file = nestedFile(inner);
    for (std::size_t i = 0; i < outer; ++i) {
        const std::size_t next = i == 0 ? 0 : file.objects.size() - 1;
        file.objects.push_back(bytes({0xA1}) + bigEndian(next, 4));
    }
    file.root = file.objects.size();
    file.objects.push_back(bytes({0xA2}) + bigEndian(0, 4) + bigEndian(file.objects.size() - 1, 4));
    return file;
}

TEST(HostileBinary, CountsTheDepthOfSharedContainers) {
    constexpr std::size_t inner = 200;
    constexpr std::size_t outer = maxPropertyListDepth - inner - 1;
    const BinaryFile allowed = chainSharedAtDepth(outer, inner);
    EXPECT_EQ((*mustRead(allowed.file()).array())[1], nestedArrays(outer + inner));
    const BinaryFile tooDeep = chainSharedAtDepth(outer + 1, inner);
    expectReadError(tooDeep.file(), Code::tooDeep, tooDeep.offsetOf(inner) + 1);
}

TEST(HostileBinary, CountsTheDepthOfSharedDictionaries) {
    // The same with dictionaries.
    const auto chain = [](std::size_t outer) {
        BinaryFile file = chainSharedAtDepth(outer, 200);
        const std::size_t key = file.objects.size();
        for (std::size_t i = 0; i + 1 < key; ++i) {
            if (file.objects[i].size() == 5) {
                file.objects[i] = bytes({0xD1}) + bigEndian(key, 4) + file.objects[i].substr(1);
            }
        }
        file.objects.push_back(bytes({0x51}) + "k");
        return file;
    };
    constexpr std::size_t outer = maxPropertyListDepth - 200 - 1;
    EXPECT_TRUE(mustRead(chain(outer).file()).array());
    expectReadError(chain(outer + 1).file(), Code::tooDeep, chain(outer + 1).offsetOf(200) + 5);
}

/// `levels` arrays, each of which refers `width` times to the next.
BinaryFile laughingFile(std::size_t levels, std::size_t width) {
    BinaryFile file;
    for (std::size_t i = 0; i < levels; ++i) {
        file.objects.push_back(bytes({0xA0 | static_cast<unsigned>(width)}) +
                               std::string(width, static_cast<char>(i + 1)));
    }
    file.objects.push_back(bytes({0x09}));
    return file;
}

TEST(HostileBinary, ReadsSharedContainersThatExpandALittle) {
    EXPECT_EQ(mustRead(laughingFile(3, 3).file()).array()->size(), 3U);
}

TEST(HostileBinary, RefusesSharedContainersThatExpandWithoutEnd) {
    ErrorPtr error;
    for (const std::size_t width : {2U, 10U}) {
        for (const std::size_t levels : {20U, 100U, 250U}) {
            EXPECT_FALSE(PropertyListCodec().propertyListWithData(laughingFile(levels, width).file(), &error));
            EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooLarge)) << error->description();
        }
    }
}

TEST(HostileBinary, AllowsExactlyTheDocumentedExpansion) {
    // An array that refers `outer` times to an array of `inner` elements.
    const auto expanding = [](std::size_t outer, std::size_t inner) {
        BinaryFile file;
        file.objects = {bytes({0xAF, 0x11}) + bigEndian(outer, 2) + std::string(outer, '\x01'),
                        bytes({0xAF, 0x11}) + bigEndian(inner, 2) + std::string(inner, '\x02'), bytes({0x09})};
        return file.file();
    };
    const std::size_t overhead = expanding(0, 0).size();
    int exact = 0;
    for (std::size_t inner = 20; inner < 400; ++inner) {
        for (std::size_t outer = 20; outer < 400 && exact < 5; ++outer) {
            if (outer * (inner + 1) != propertyListExpansionFactor * (overhead + outer + inner)) {
                continue;
            }
            ++exact;
            EXPECT_EQ(mustRead(expanding(outer, inner)).array()->size(), outer);
            // One more element of the inner array adds `outer` elements, but only one byte.
            ErrorPtr error;
            EXPECT_FALSE(PropertyListCodec().propertyListWithData(expanding(outer, inner + 1), &error));
            EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooLarge));
        }
    }
    EXPECT_GT(exact, 0);
}

/// `count` dictionaries with one key of `size` bytes.
std::string dictionariesWithKey(std::size_t count, std::size_t size) {
    BinaryFile file;
    file.offsetWidth = 3;
    file.referenceWidth = 2;
    std::string references;
    for (std::size_t i = 0; i < count; ++i) {
        references += bigEndian(3 + i, 2);
    }
    file.objects = {bytes({0xAF, 0x11}) + bigEndian(count, 2) + references,
                    bytes({0x5F, 0x12}) + bigEndian(size, 4) + std::string(size, 'k'), bytes({0x09})};
    file.objects.insert(file.objects.end(), count, bytes({0xD1, 0, 1, 0, 2}));
    return file.file();
}

/// How many repeated bytes a file of this size may lead to.
std::size_t allowedRepetition(std::size_t fileSize) {
    return propertyListRepetitionFactor * fileSize + propertyListRepetitionAllowance;
}

TEST(HostileBinary, RefusesLongKeysThatAreUsedAgainAndAgain) {
    // The work of comparing and indexing keys grows with their length, though each is in the file only once.
    constexpr std::size_t size = 200'000;
    std::size_t count = 1;
    while ((count - 1) * size <= allowedRepetition(dictionariesWithKey(count, size).size())) {
        ++count;
    }
    EXPECT_EQ(mustRead(dictionariesWithKey(count - 1, size)).array()->size(), count - 1);
    const std::string file = dictionariesWithKey(count, size);
    const std::size_t lastDictionary = file.size() - 32 - 3 * (count + 3) - 5;
    expectReadError(file, Code::tooLarge, lastDictionary + 1);
}

/// An array that refers `count` times to one object.
std::string repeating(const std::string& object, std::size_t count) {
    BinaryFile file;
    file.offsetWidth = 4;
    file.objects = {bytes({0xAF, 0x12}) + bigEndian(count, 4) + std::string(count, '\x01'), object};
    return file.file();
}

TEST(HostileBinary, RefusesTextsAndDataThatAreReferredToAgainAndAgain) {
    constexpr std::size_t size = 1'000'000; // of each; in UTF-8
    const std::string objects[] = {bytes({0x5F, 0x12}) + bigEndian(size, 4) + std::string(size, 'x'),
                                   bytes({0x4F, 0x12}) + bigEndian(size, 4) + std::string(size, 'x')};
    for (const std::string& object : objects) {
        std::size_t count = 1;
        while (count * size <= allowedRepetition(repeating(object, count + 1).size())) {
            ++count;
        }
        EXPECT_EQ(mustRead(repeating(object, count)).array()->size(), count);
        expectReadError(repeating(object, count + 1), Code::tooLarge, 8 + 6 + count);
    }
}

TEST(HostileBinary, CountsTheTextsOfSharedContainers) {
    // Many times a dictionary with a key, or an array with a text, of 300,000 bytes.
    const std::string text = bytes({0x5F, 0x12}) + bigEndian(300'000, 4) + std::string(300'000, 'x');
    for (const std::string& container : {bytes({0xD1, 2, 3}), bytes({0xA1, 2})}) {
        const auto fileWith = [&](unsigned count) {
            BinaryFile file;
            file.offsetWidth = 4;
            file.objects = {bytes({0xAF, 0x10, count}) + std::string(count, '\x01'), container, text, bytes({0x09})};
            return file.file();
        };
        EXPECT_EQ(mustRead(fileWith(50)).array()->size(), 50U);
        ErrorPtr error;
        EXPECT_FALSE(PropertyListCodec().propertyListWithData(fileWith(100), &error));
        EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooLarge)) << error->description();
    }
}

TEST(HostileBinary, RefusesMoreBytesThanTheLimitWithoutLookingAtThem) {
    const std::string file = fileOf(bytes({0x09}));
    expectReadError(std::string_view(file.data(), maxPropertyListSize + 1), Code::tooLarge, maxPropertyListSize);
}

TEST(HostileBinary, CountsSharedDictionaries) {
    BinaryFile file;
    for (unsigned i = 0; i < 30; ++i) {
        file.objects.push_back(bytes({0xD2, 31, 32, i + 1, i + 1}));
    }
    file.objects.push_back(bytes({0x09}));
    file.objects.push_back(bytes({0x51}) + "a");
    file.objects.push_back(bytes({0x51}) + "b");
    ErrorPtr error;
    EXPECT_FALSE(PropertyListCodec().propertyListWithData(file.file(), &error));
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(Code::tooLarge)) << error->description();
}

TEST(HostileBinary, RefusesLargeObjectsThatOverlap) {
    // Every second byte starts another datum of 64 KiB: the file would become thousands of times as large in memory.
    std::string object = bytes({0xAF, 0x12}) + bigEndian(30'000, 4);
    for (std::uint64_t i = 1; i <= 30'000; ++i) {
        object += bigEndian(i, 2);
    }
    const std::size_t first = 8 + object.size();
    std::string file = "bplist00" + object;
    for (int i = 0; i < 65'000; ++i) {
        file += bytes({0x4F, 0x11, 0xFF, 0xFF});
    }
    const std::size_t table = file.size();
    file += bigEndian(8, 4);
    for (std::size_t i = 0; i < 30'000; ++i) {
        file += bigEndian(first + 4 * i, 4);
    }
    file += std::string(6, '\0') + bigEndian(4, 1) + bigEndian(2, 1) + bigEndian(30'001, 8) + bigEndian(0, 8) +
            bigEndian(table, 8);
    const std::size_t allowed = (file.size() - 60'000) / 65'535;
    expectReadError(file, Code::tooLarge, first + 4 * allowed);
}

TEST(HostileBinary, ReadsALargeDictionaryOfLongSimilarKeys) {
    BinaryFile file;
    file.referenceWidth = 2;
    file.offsetWidth = 4;
    constexpr std::size_t count = 20'000;
    std::string keys;
    for (std::size_t i = 0; i < count; ++i) {
        keys += bigEndian(2 + i, 2);
    }
    std::string values;
    for (std::size_t i = 0; i < count; ++i) {
        values += bigEndian(1, 2);
    }
    file.objects = {bytes({0xDF, 0x11}) + bigEndian(count, 2) + keys + values, bytes({0x09})};
    for (std::size_t i = 0; i < count; ++i) {
        file.objects.push_back(bytes({0x5F, 0x10, 40}) + std::to_string(10'000 + i) + std::string(35, 'x'));
    }
    EXPECT_EQ(mustRead(file.file()).dictionary()->size(), count);
}

} // namespace
} // namespace appsync
