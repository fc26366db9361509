#include "ExtractionFixture.h"
#include "files/Syscalls.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>

namespace appsync::device {
namespace {

/// How many bytes of a file are in the system's cache.
std::size_t cachedBytes(const std::filesystem::path& path, std::size_t size) {
    constexpr std::size_t page = 4096;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
    std::vector<unsigned char> pages((size + page - 1) / page);
    EXPECT_EQ(::mincore(mapped, size, pages.data()), 0);
    ::munmap(mapped, size);
    return page * static_cast<std::size_t>(std::ranges::count_if(pages, [](unsigned char one) { return one & 1; }));
}

std::string bytesOf(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t place = 0; place < size; ++place) {
        bytes[place] = static_cast<char>(place * place >> 7);
    }
    return bytes;
}

bool canBeWrittenDirectly(const std::filesystem::path& path) {
    constexpr std::size_t block = 4096;
    alignas(block) static const std::array<char, block> bytes{};
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_DIRECT | O_CLOEXEC, 0644));
    return ::write(file.get(), bytes.data(), block) == block && cachedBytes(path, block) == 0;
}

TEST_F(ExtractionTest, UnpacksTheAppAndWhatStandsBesideIt) {
    const auto result = extract(app()
                                    .file("Name.app/Icon.png", "icon")
                                    .file("Name.app/deep/er/file", "deep")
                                    .file("TamblinMetadata.plist", "metadata")
                                    .file("TamblinArtwork", "artwork")
                                    .file("Readme.txt", "not the app's")
                                    .bytes());
    ASSERT_TRUE(result) << errorText(result.error());
    EXPECT_EQ(result->bundleName, "Name.app");
    EXPECT_EQ(result->info.string("BXBundleIdentifier"), identifier);
    EXPECT_EQ(result->info.string("BXBundleVersion"), "1.0");
    EXPECT_EQ(result->metadata, Data("metadata"));
    EXPECT_EQ(content("Name.app/Icon.png"), "icon");
    EXPECT_EQ(content("Name.app/deep/er/file"), "deep");
    EXPECT_EQ(content("TamblinMetadata.plist"), "metadata");
    EXPECT_EQ(content("TamblinArtwork"), "artwork");
    EXPECT_FALSE(exists("Readme.txt"));
}

TEST_F(ExtractionTest, CountsTheBytesOfTheAppAlone) {
    const auto result = extract(ArchiveBuilder()
                                    .file("A.app/Info.plist", infoList(identifier))
                                    .file("A.app/x", std::string(1'000, 'x'))
                                    .file("TamblinArtwork", std::string(500, 'a'))
                                    .bytes());
    ASSERT_TRUE(result);
    EXPECT_EQ(result->bytes, infoList(identifier).size() + 1'000);
}

TEST_F(ExtractionTest, UnpacksLargeAndEmptyFilesInEitherCompression) {
    const std::string large = bytesOf(5'000'000);
    for (ArchiveBuilder builder : {app(), app().stored()}) {
        const auto result = extract(builder.file("Name.app/large", large).file("Name.app/empty", "").bytes());
        ASSERT_TRUE(result) << errorText(result.error());
        EXPECT_EQ(content("Name.app/large"), large);
        EXPECT_TRUE(exists("Name.app/empty"));
    }
}

TEST_F(ExtractionTest, FilesAroundTheSizesFromWhichTheyAreWrittenOtherwiseAreWhole) {
    constexpr std::size_t large = largeFile;
    constexpr std::size_t piece = 1U << 20; // is written at a time
    constexpr std::size_t block = 4096;
    const std::vector<std::size_t> sizes{
        large - 1,    large,     large + 1,     large + block - 1, piece - 1,
        piece,        piece + 1, piece + large, piece + large - 1, 2 * piece + large + block + 7,
        7 * piece + 9}; // the last is inflated piece by piece
    for (ArchiveBuilder builder : {app(), app().stored()}) {
        for (const std::size_t size : sizes) {
            builder.file("Name.app/" + std::to_string(size), bytesOf(size));
        }
        const auto result = extract(builder.bytes());
        ASSERT_TRUE(result) << errorText(result.error());
        for (const std::size_t size : sizes) {
            EXPECT_TRUE(content("Name.app/" + std::to_string(size)) == bytesOf(size)) << size;
        }
    }
}

TEST_F(ExtractionTest, LargeFilesLeaveTheCacheToWhatIsInUse) {
    constexpr std::size_t size = 3U << 20;
    if (!canBeWrittenDirectly(folder / "other")) {
        GTEST_SKIP() << "the file system of the tests writes everything through its cache";
    }
    ASSERT_TRUE(extract(app().file("Name.app/large", bytesOf(size)).bytes()));
    EXPECT_LT(cachedBytes(folder / "container/Name.app/large", size), size / 10);
}

TEST_F(ExtractionTest, ExecutablesStayExecutableAndNothingElseOfAModeCounts) {
    ASSERT_TRUE(extract(app().file("Name.app/tool", "tool", 04777).file("Name.app/secret", "s", 0400).bytes()));
    const auto modeOf = [&](const std::string& path) {
        return std::filesystem::status(folder / ("container/" + path)).permissions() & std::filesystem::perms::mask;
    };
    EXPECT_EQ(modeOf("Name.app/tool"), std::filesystem::perms(0755));
    EXPECT_EQ(modeOf("Name.app/Name"), std::filesystem::perms(0755));
    EXPECT_EQ(modeOf("Name.app/secret"), std::filesystem::perms(0644));
    EXPECT_EQ(modeOf("Name.app"), std::filesystem::perms(0755));
}

TEST_F(ExtractionTest, LinksInsideTheAppAreKept) {
    const auto result = extract(app()
                                    .link("Name.app/current", "versions/2")
                                    .file("Name.app/versions/2/file", "two")
                                    .link("Name.app/versions/up", "../Name")
                                    .link("Name.app/over", "versions/up")
                                    .bytes());
    ASSERT_TRUE(result) << errorText(result.error());
    EXPECT_EQ(content("Name.app/current/file"), "two");
    EXPECT_EQ(std::filesystem::read_symlink(folder / "container/Name.app/current"), "versions/2");
    EXPECT_EQ(content("Name.app/over"), content("Name.app/Name"));
}

TEST_F(ExtractionTest, NamesMayBeAnyText) {
    // The second name is spelled with a combining accent, the third has no mark that says it is UTF-8.
    const std::vector<std::string> names{"Name.app/\u0416\u6f22.txt", "Name.app/e\u0301", "Name.app/\u00fc"};
    std::vector<RawEntry> entries{RawEntry::stored("Name.app/Info.plist", infoList(identifier))};
    for (const std::string& name : names) {
        entries.push_back(RawEntry::stored(name, "content of " + name));
    }
    entries.back().flags = 0;
    const std::string before = std::setlocale(LC_ALL, nullptr);
    const auto result = extract(rawArchive(entries));
    ASSERT_TRUE(result) << errorText(result.error());
    for (const std::string& name : names) {
        EXPECT_EQ(content(name), "content of " + name);
    }
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
}

TEST_F(ExtractionTest, EntriesMayStandInAnyOrder) {
    const auto result = extract(ArchiveBuilder()
                                    .file("Name.app/b/c", "c")
                                    .file("TamblinMetadata.plist", "metadata")
                                    .file("Name.app/a", "a")
                                    .file("Name.app/Info.plist", infoList(identifier))
                                    .file("Name.app/b/d", "d")
                                    .folder("Name.app/b")
                                    .folder("Name.app")
                                    .bytes());
    ASSERT_TRUE(result) << errorText(result.error());
    EXPECT_EQ(content("Name.app/b/d"), "d");
}

TEST_F(ExtractionTest, DirectoryMayListEntriesInAnotherOrderThanTheyLieIn) {
    // The directory of the second archive names the same places the other way round.
    const std::string one =
        rawArchive({RawEntry::stored("Name.app/Info.plist", infoList(identifier)),
                    RawEntry::stored("Name.app/a", "content a"), RawEntry::stored("Name.app/b", "content b")});
    const std::size_t directory = one.find("PK\1\2");
    const std::size_t second = one.find("PK\1\2", directory + 1);
    const std::size_t third = one.find("PK\1\2", second + 1);
    const std::size_t end = one.find("PK\5\6");
    const std::string swapped = one.substr(0, directory) + one.substr(third, end - third) +
                                one.substr(second, third - second) + one.substr(directory, second - directory) +
                                one.substr(end);
    ASSERT_TRUE(extract(swapped)) << reason;
    EXPECT_EQ(content("Name.app/a"), "content a");
    EXPECT_EQ(content("Name.app/b"), "content b");
}

TEST_F(ExtractionTest, MetadataOfTheArchiveCanBeLeftOut) {
    request.wantsMetadata = false;
    const auto result = extract(app().file("TamblinMetadata.plist", "metadata").bytes());
    ASSERT_TRUE(result);
    EXPECT_EQ(result->metadata, std::nullopt);
    EXPECT_FALSE(exists("TamblinMetadata.plist"));
}

TEST_F(ExtractionTest, ProgressRisesToOne) {
    std::vector<double> reported;
    request.progress = [&](double fraction) { reported.push_back(fraction); };
    ASSERT_TRUE(
        extract(app().file("Name.app/large", std::string(3'000'000, 'x')).file("Name.app/y", "y").stored().bytes()));
    ASSERT_GT(reported.size(), 2U);
    EXPECT_TRUE(std::ranges::is_sorted(reported));
    EXPECT_EQ(reported.back(), 1.0);
}

TEST_F(ExtractionTest, CancellingEndsTheExtraction) {
    std::stop_source source;
    request.cancel = source.get_token();
    request.progress = [&](double) { source.request_stop(); };
    EXPECT_EQ(refusalOf(app().file("Name.app/late", std::string(3'000'000, 'x')).stored().bytes()),
              code(InstallerError::cancelled));
    EXPECT_EQ(reason, "the install of org.example.app from /var/mobile/Media/app.zip was cancelled");
}

TEST_F(ExtractionTest, NeedsNoMoreSpaceThanIsFree) {
    std::uint64_t free = 1'000'000;
    DiskRoom room([&] { return std::optional(free); });
    DiskRoom::Share little(room);
    request.room = &little;
    EXPECT_EQ(refusalOf(app().file("Name.app/large", std::string(2'000'000, 'x')).bytes()),
              code(InstallerError::notEnoughSpace));
    EXPECT_NE(reason.find("1000000 are free"), std::string::npos) << reason;
    EXPECT_NE(reason.find("remove apps or files and try again"), std::string::npos) << reason;
    EXPECT_FALSE(exists("Name.app"));
    free = 3'000'000;
    DiskRoom::Share enough(room);
    request.room = &enough;
    EXPECT_TRUE(extract(app().file("Name.app/large", std::string(2'000'000, 'x')).bytes()));
}

TEST_F(ExtractionTest, DiskThatFillsUpIsReportedAsSuch) {
    const std::string archive = app().file("Name.app/a/b", "x").link("Name.app/l", "a").bytes();
    faults->forget();
    ASSERT_TRUE(extract(archive));
    const std::size_t changes = faults->count();
    EXPECT_GE(changes, 9U);
    for (std::size_t change = 0; change < changes; ++change) {
        faults->forget();
        faults->failAt = static_cast<int>(change);
        faults->failure = ENOSPC;
        EXPECT_EQ(refusalOf(archive), code(InstallerError::notEnoughSpace)) << change;
        EXPECT_NE(reason.find("No space left on device"), std::string::npos) << reason;
    }
}

TEST_F(ExtractionTest, OtherFailuresOfTheDiskKeepTheirReason) {
    faults->failAt = 3;
    faults->failure = EIO;
    EXPECT_EQ(refusalOf(app().bytes()), code(InstallerError::failed));
    EXPECT_NE(reason.find("Input/output error"), std::string::npos) << reason;
}

} // namespace
} // namespace appsync::device
