// Entries are what the archive's directory says of them, or are refused.
#include "archive/ArchiveReader.h"
#include "files/Descriptor.h"
#include "tests/device/archive/ArchiveBuilder.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace appsync {
namespace {

using device::RawEntry;

/// Which of the two ways content of this size is inflated.
struct Way {
    const char* name;
    std::size_t size;
};
const std::vector<Way> ways{{"at once", 100'000}, {"piece by piece", maxInflatedAtOnce + 100'000}};

std::string contentOf(std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t place = 0; place < size; ++place) {
        content[place] = static_cast<char>(place >> 9 ^ place >> 3);
    }
    return content;
}

class ArchiveReaderTest : public testing::Test {
  protected:
    void put(const std::string& archive) {
        file = Descriptor(::memfd_create("archive", MFD_CLOEXEC));
        ASSERT_EQ(::write(file.get(), archive.data(), archive.size()), static_cast<ssize_t>(archive.size()));
        opened.emplace(std::move(*ArchiveFile::open(file.get(), refuse, memory)));
        auto read = ZipDirectory::read(*opened, {}, refuse);
        ASSERT_TRUE(read) << errorText(read.error());
        directory = std::move(*read);
    }
    /// The content of an entry; nullopt, and the reason, when it is refused.
    std::optional<std::string> content(ArchiveReader& reader, std::string_view entry) {
        const auto found = reader.open(*directory.find(entry));
        auto all = found ? reader.content() : Result<std::string>(found.error());
        if (all) {
            return std::move(*all);
        }
        EXPECT_TRUE(isError(all.error(), TVInstallerErrorDomain, InstallerError::archiveDamaged));
        reason = errorText(all.error());
        return std::nullopt;
    }
    std::optional<std::string> content(std::string_view entry) {
        ArchiveReader reader(*opened, refuse);
        return content(reader, entry);
    }
    /// Puts an archive of this entry between two others.
    void putBetween(const RawEntry& entry) {
        put(device::rawArchive({RawEntry::stored("before", "before"), entry, RawEntry::stored("behind", "behind")}));
    }
    /// Whether the entry is refused for this reason, and those beside it are not.
    void expectRefused(std::string_view why) {
        EXPECT_EQ(content("entry"), std::nullopt);
        EXPECT_NE(reason.find("its entry \"entry\" " + std::string(why)), std::string::npos) << reason;
        EXPECT_EQ(content("before"), "before");
        EXPECT_EQ(content("behind"), "behind");
    }

    const std::string path = "/archive";
    const Refusal refuse{path};
    Descriptor file;
    ArchiveMemory memory;
    std::optional<ArchiveFile> opened;
    ZipDirectory directory;
    std::string reason;
};

TEST_F(ArchiveReaderTest, ReadsEntriesInAnyOrder) {
    const std::string large = contentOf(3'000'000);
    put(device::rawArchive({RawEntry::stored("a", large), RawEntry::deflated("b", large), RawEntry::stored("c", ""),
                            RawEntry::deflated("d", ""), RawEntry::deflated("e", "small")}));
    ArchiveReader reader(*opened, refuse);
    for (const char* order : {"abcde", "edcba", "aabbee"}) {
        for (const char* name = order; *name != '\0'; ++name) {
            EXPECT_EQ(content(reader, std::string(1, *name)), *name < 'c' ? large : *name == 'e' ? "small" : "");
        }
    }
}

TEST_F(ArchiveReaderTest, AnEntryThatWasLeftEarlyDoesNotDisturbTheNext) {
    for (const Way& way : ways) {
        put(device::rawArchive({RawEntry::deflated("a", contentOf(way.size)), RawEntry::deflated("b", "small")}));
        ArchiveReader reader(*opened, refuse);
        ASSERT_TRUE(reader.open(*directory.find("a")));
        ASSERT_TRUE(reader.nextPiece());
        EXPECT_EQ(content(reader, "b"), "small");
        EXPECT_EQ(content(reader, "a"), contentOf(way.size)) << way.name;
    }
}

TEST_F(ArchiveReaderTest, LeavesTheFilesOffsetAlone) {
    putBetween(RawEntry::stored("entry", contentOf(1'000'000)));
    ASSERT_EQ(::lseek(file.get(), 7, SEEK_SET), 7);
    EXPECT_EQ(content("entry"), contentOf(1'000'000));
    EXPECT_EQ(::lseek(file.get(), 0, SEEK_CUR), 7);
}

TEST_F(ArchiveReaderTest, RefusesWhatIsNoFile) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Descriptor in(ends[0]);
    const Descriptor out(ends[1]);
    const auto pipe = ArchiveFile::open(in.get(), refuse, memory);
    EXPECT_TRUE(isError(pipe.error(), TVInstallerErrorDomain, InstallerError::archiveMissing));
    EXPECT_NE(errorText(pipe.error()).find("it is not a file"), std::string::npos);
}

TEST_F(ArchiveReaderTest, RefusesLocalHeaderThatDisagreesWithTheDirectory) {
    const std::string archive =
        device::rawArchive({RawEntry::stored("before", "before"), RawEntry::deflated("entry", contentOf(5'000)),
                            RawEntry::stored("behind", "behind")});
    const std::size_t header = archive.find("PK\3\4", 1);
    struct Change {
        const char* what;
        std::size_t place;
        char byte;
    };
    for (const Change& change : {Change{"signature", 0, 'x'}, Change{"encrypted", 6, 1}, Change{"patch", 6, 0x20},
                                 Change{"masked", 7, 0x28}, Change{"method", 8, 0}, Change{"checksum", 14, 1},
                                 Change{"packed size", 18, 1}, Change{"unpacked size", 22, 1},
                                 Change{"length of the name", 26, 4}, Change{"length of what follows it", 28, 1},
                                 Change{"length beyond the next entry", 29, 0x7f}, Change{"name", 30, 'E'}}) {
        std::string changed = archive;
        ASSERT_NE(changed[header + change.place], change.byte) << change.what;
        changed[header + change.place] = change.byte;
        put(changed);
        SCOPED_TRACE(change.what);
        expectRefused("is not what the archive's directory says");
    }
}

TEST_F(ArchiveReaderTest, RefusesEntryThatReachesIntoTheNext) {
    // The local header takes the content for an extra field; the next entry's bytes would be the content.
    std::string archive =
        device::rawArchive({RawEntry::stored("before", "before"),
                            RawEntry::stored("entry", std::string("UT\20\0", 4) + std::string(16, 'x')),
                            RawEntry::stored("behind", "behind")});
    archive[archive.find("PK\3\4", 1) + 28] = 20;
    put(archive);
    expectRefused("is not what the archive's directory says");
}

TEST_F(ArchiveReaderTest, LocalHeaderMayLeaveToTheDirectoryWhatItDoesNotKnow) {
    std::string archive =
        device::rawArchive({RawEntry::stored("before", "before"), RawEntry::deflated("entry", contentOf(5'000)),
                            RawEntry::stored("behind", "behind")});
    archive.replace(archive.find("PK\3\4", 1) + 14, 12, std::string(12, '\0'));
    put(archive);
    EXPECT_EQ(content("entry"), contentOf(5'000));
}

TEST_F(ArchiveReaderTest, WhatFollowsTheContentSaysTheSame) {
    const std::string archive = device::ArchiveBuilder().file("entry", contentOf(5'000)).file("behind", "").bytes();
    const std::size_t descriptor = archive.find("PK\7\10");
    ASSERT_NE(descriptor, std::string::npos);
    put(archive);
    EXPECT_EQ(content("entry"), contentOf(5'000));
    for (const std::size_t place : {std::size_t{0}, std::size_t{4}, std::size_t{8}, std::size_t{12}}) {
        std::string changed = archive;
        changed[descriptor + place] = static_cast<char>(changed[descriptor + place] ^ 1);
        put(changed);
        EXPECT_EQ(content("entry"), std::nullopt) << place;
        EXPECT_NE(reason.find("is not what the archive's directory says"), std::string::npos) << reason;
    }
}

TEST_F(ArchiveReaderTest, RefusesAnotherChecksum) {
    std::vector<RawEntry> entries{RawEntry::stored("entry", contentOf(5'000))};
    for (const Way& way : ways) {
        entries.push_back(RawEntry::deflated("entry", contentOf(way.size)));
    }
    for (RawEntry& entry : entries) {
        entry.checksum ^= 1;
        putBetween(entry);
        expectRefused("is damaged (its checksum is wrong)");
    }
}

TEST_F(ArchiveReaderTest, RefusesCompressedDataThatEndsTooEarly) {
    for (const Way& way : ways) {
        RawEntry entry = RawEntry::deflated("entry", contentOf(way.size));
        const std::string whole = entry.content;
        for (const std::size_t kept : {std::size_t{0}, std::size_t{1}, whole.size() / 2, whole.size() - 1}) {
            entry.content = whole.substr(0, kept);
            putBetween(entry);
            SCOPED_TRACE(way.name + std::string(", kept ") + std::to_string(kept));
            expectRefused(""); // what is cut off may look like the end of something shorter
        }
    }
}

TEST_F(ArchiveReaderTest, RefusesBrokenCompressedData) {
    for (const Way& way : ways) {
        RawEntry entry = RawEntry::deflated("entry", contentOf(way.size));
        entry.content[0] = '\x07'; // a last block of a kind that there is not
        putBetween(entry);
        SCOPED_TRACE(way.name);
        expectRefused("is damaged (its compressed data is broken or ends too early)");
    }
}

TEST_F(ArchiveReaderTest, RefusesGarbageBehindCompressedData) {
    for (const Way& way : ways) {
        for (const std::size_t more : {std::size_t{1}, std::size_t{2'000'000}}) {
            RawEntry entry = RawEntry::deflated("entry", contentOf(way.size));
            entry.content += std::string(more, '\0');
            putBetween(entry);
            SCOPED_TRACE(way.name + std::string(", more ") + std::to_string(more));
            expectRefused("is damaged (something follows its compressed data)");
        }
    }
}

TEST_F(ArchiveReaderTest, RefusesContentOfAnotherSize) {
    for (const Way& way : ways) {
        for (const int difference : {-70'000, -1, 1, 70'000}) {
            RawEntry entry = RawEntry::deflated("entry", contentOf(way.size));
            entry.unpackedBytes += static_cast<std::uint32_t>(difference);
            putBetween(entry);
            SCOPED_TRACE(way.name + std::string(", difference ") + std::to_string(difference));
            expectRefused("has another size than the archive's directory says");
        }
    }
}

TEST_F(ArchiveReaderTest, GivesNoMoreThanTheDirectoryStates) {
    for (const Way& way : ways) {
        RawEntry entry = RawEntry::deflated("entry", contentOf(way.size));
        entry.unpackedBytes -= 50'000;
        putBetween(entry);
        ArchiveReader reader(*opened, refuse);
        ASSERT_TRUE(reader.open(*directory.find("entry")));
        std::size_t given = 0;
        for (auto piece = reader.nextPiece(); piece; piece = reader.nextPiece()) {
            given += piece->size();
        }
        EXPECT_LE(given, entry.unpackedBytes) << way.name;
    }
}

TEST_F(ArchiveReaderTest, StoredContentHasOneSize) {
    std::string archive = device::rawArchive({RawEntry::stored("entry", "content"), RawEntry::stored("x", "x")});
    archive[22] = 3; // unpacked, in the local header
    put(archive);
    EXPECT_EQ(content("entry"), std::nullopt);
    EXPECT_NE(reason.find("is not what the archive's directory says"), std::string::npos) << reason;
}

/// Deflate data of `blocks` blocks that hold the content as it is, five bytes more for each.
std::string uncompressedBlocks(std::string_view content, std::size_t blocks) {
    constexpr std::size_t maxBlock = 65'535;
    std::string out;
    for (std::size_t block = 0; block < blocks; ++block) {
        const std::string_view here = content.substr(0, maxBlock);
        content.remove_prefix(here.size());
        out += block + 1 == blocks ? '\1' : '\0';
        for (const std::size_t size : {here.size(), ~here.size()}) {
            out += static_cast<char>(size & 0xff);
            out += static_cast<char>(size >> 8 & 0xff);
        }
        out += here;
    }
    return out;
}

TEST_F(ArchiveReaderTest, EntriesAtTheBoundBetweenTheTwoWaysAreTheSame) {
    constexpr std::size_t blocks = 48;
    constexpr std::size_t size = (maxInflatedAtOnce - 5 * blocks) / 2;
    for (const std::size_t above : {0U, 1U}) { // one block more and two bytes, which count twice, less
        const std::string whole = contentOf(size - 2 * above);
        RawEntry entry = RawEntry::stored("entry", whole);
        entry.method = 8;
        entry.content = uncompressedBlocks(whole, blocks + above);
        ASSERT_EQ(whole.size() + entry.content.size(), maxInflatedAtOnce + above);
        putBetween(entry);
        EXPECT_TRUE(content("entry") == whole) << above << " above the bound: " << reason;
        entry.checksum ^= 1;
        putBetween(entry);
        expectRefused("is damaged (its checksum is wrong)");
    }
}

TEST_F(ArchiveReaderTest, RefusesFileThatShrinksAfterItsDirectoryWasRead) {
    for (const RawEntry& entry : {RawEntry::stored("entry", contentOf(900'000)), RawEntry::stored("entry", "")}) {
        put(device::rawArchive(
            {RawEntry::stored("before", contentOf(900'000)), entry, RawEntry::stored("behind", contentOf(900'000))}));
        ASSERT_EQ(::ftruncate(file.get(), 900'010), 0);
        EXPECT_EQ(content("entry"), std::nullopt);
        EXPECT_EQ(reason, "the archive /archive was refused: it has become shorter while it was read");
    }
}

} // namespace
} // namespace appsync
