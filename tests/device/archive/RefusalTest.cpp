// Archives that must be refused, each with its reason.
#include "ExtractionFixture.h"

#include <numeric>
#include <random>

namespace appsync::device {
namespace {

/// The smallest good archive, to which tests add what is bad.
std::vector<RawEntry> goodEntries() {
    return {RawEntry::stored("Name.app/Info.plist", infoList("org.example.app")),
            RawEntry::stored("Name.app/Name", "executable")};
}

std::string withEntry(RawEntry entry) {
    auto entries = goodEntries();
    entries.push_back(std::move(entry));
    return rawArchive(entries);
}

TEST_F(ExtractionTest, TheSmallestGoodArchiveIsTaken) {
    EXPECT_EQ(refusalOf(rawArchive(goodEntries())), 0) << reason;
    EXPECT_EQ(refusalOf(withEntry(RawEntry::deflated("Name.app/more", std::string(1'000, 'x')))), 0) << reason;
}

TEST_F(ExtractionTest, RefusesWhatIsNoArchive) {
    EXPECT_EQ(refusalOf(""), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find("it is empty"), std::string::npos);
    for (const std::string& garbage : {std::string("x"), std::string(100'000, '\0'), std::string(70'000, 'P'),
                                       std::string("PK\5\6"), std::string("PK\3\4") + std::string(5'000, 'k')}) {
        EXPECT_EQ(refusalOf(garbage), code(InstallerError::archiveDamaged));
        EXPECT_NE(reason.find("it is no zip archive, or its end is missing; transfer it again"), std::string::npos);
    }
}

TEST_F(ExtractionTest, RefusesArchiveThatEndsAnywhereTooEarly) {
    const std::string archive = app().file("Name.app/more", std::string(3'000, 'x')).bytes();
    for (std::size_t size = 1; size < archive.size(); ++size) {
        ASSERT_EQ(refusalOf(archive.substr(0, size)), code(InstallerError::archiveDamaged)) << size << ": " << reason;
    }
}

TEST_F(ExtractionTest, RefusesArchiveWithSomethingCutOutOfItsMiddle) {
    const std::string archive = app().file("Name.app/more", std::string(3'000, 'x')).stored().bytes();
    for (std::size_t place = 0; place + 200 < archive.size(); place += 50) {
        EXPECT_NE(refusalOf(archive.substr(0, place) + archive.substr(place + 100)), 0) << place;
    }
}

TEST_F(ExtractionTest, EveryDamagedByteIsRefusedOrChangesNothingOfTheApp) {
    const std::string archive = rawArchive({RawEntry::stored("Name.app/Info.plist", infoList(identifier)),
                                            RawEntry::stored("Name.app/Name", "executable"),
                                            RawEntry::deflated("Name.app/more", "some text, some text, some text")});
    for (std::size_t place = 0; place < archive.size(); ++place) {
        for (const int change : {0x01, 0x80, 0xff}) {
            std::string damaged = archive;
            damaged[place] = static_cast<char>(damaged[place] ^ change);
            if (refusalOf(damaged) == 0) {
                EXPECT_EQ(content("Name.app/Info.plist"), infoList(identifier)) << place;
            }
        }
    }
}

TEST_F(ExtractionTest, RefusesWrongChecksum) {
    RawEntry entry = RawEntry::stored("Name.app/wrong", "content");
    entry.checksum ^= 1;
    EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find("its entry \"Name.app/wrong\" is damaged"), std::string::npos) << reason;
    entry = RawEntry::deflated("Name.app/wrong", std::string(500'000, 'x'));
    entry.checksum ^= 1;
    EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveDamaged));
}

TEST_F(ExtractionTest, RefusesEntryThatUnpacksToAnotherSize) {
    for (const int difference : {-1, 1}) {
        RawEntry entry = RawEntry::deflated("Name.app/wrong", std::string(5'000, 'x'));
        entry.unpackedBytes += static_cast<std::uint32_t>(difference);
        EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveDamaged)) << reason;
    }
    RawEntry entry = RawEntry::stored("Name.app/wrong", "content");
    entry.unpackedBytes = 3;
    EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find("has two different sizes"), std::string::npos);
}

TEST_F(ExtractionTest, RefusesArchiveThatHoldsOnlyAnArchive) {
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored("inner.zip", rawArchive(goodEntries()))})),
              code(InstallerError::noApplication));
    EXPECT_NE(reason.find("it holds no folder \"<Name>.app\" at its top"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesArchiveWithoutOrWithTwoApps) {
    EXPECT_EQ(refusalOf(rawArchive({})), code(InstallerError::noApplication));
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored("Name.app", "a file")})), code(InstallerError::noApplication));
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored(".app/Info.plist", infoList(identifier))})),
              code(InstallerError::noApplication));
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored("Payload/Name.app/Info.plist", infoList(identifier))})),
              code(InstallerError::noApplication));
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("Other.app/Info.plist", infoList(identifier)))),
              code(InstallerError::noApplication));
    EXPECT_NE(reason.find("it holds two apps, \"Name.app\" and \"Other.app\""), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesAppWithoutReadableInfo) {
    const auto withInfo = [](const std::string& content) {
        return rawArchive({RawEntry::stored("Name.app/Info.plist", content)});
    };
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored("Name.app/Name", "x")})), code(InstallerError::infoMissing));
    EXPECT_EQ(refusalOf(rawArchive({RawEntry::stored("Name.app/Info.plist/x", "x")})),
              code(InstallerError::infoMissing));
    EXPECT_EQ(refusalOf(withInfo("")), code(InstallerError::infoMissing));
    EXPECT_EQ(refusalOf(withInfo("garbage")), code(InstallerError::infoMissing));
    EXPECT_NE(reason.find("its entry \"Name.app/Info.plist\" cannot be read: "), std::string::npos) << reason;
    EXPECT_EQ(refusalOf(withInfo("<plist version=\"1.0\"><array/></plist>")), code(InstallerError::infoMissing));
    EXPECT_NE(reason.find("is a property list but no dictionary"), std::string::npos) << reason;
    EXPECT_EQ(refusalOf(withInfo("<plist version=\"1.0\"><dict/></plist>")), code(InstallerError::infoMissing));
    EXPECT_NE(reason.find("has no \"BXBundleIdentifier\""), std::string::npos) << reason;
    limits.listBytes = 10;
    EXPECT_EQ(refusalOf(withInfo(infoList(identifier))), code(InstallerError::infoMissing));
}

TEST_F(ExtractionTest, RefusesAnotherAppThanTheOneAskedFor) {
    request.identifier = "org.example.other";
    EXPECT_EQ(refusalOf(rawArchive(goodEntries())), code(InstallerError::identifierMismatch));
    EXPECT_NE(reason.find("it holds the app \"org.example.app\", asked for was \"org.example.other\""),
              std::string::npos)
        << reason;
}

TEST_F(ExtractionTest, RefusesUnsafePaths) {
    const std::vector<std::string> paths{
        "/etc/passwd",
        "../outside",
        "Name.app/../../outside",
        "Name.app/..",
        "..",
        "Name.app/./x",
        ".",
        "Name.app//x",
        "//x",
        "Name.app/a\\b",
        "..\\outside",
        std::string("Name.app/a\0b", 12),
        "Name.app/a\nb",
        "Name.app/\x80",
        "Name.app/\xc3",
        "Name.app/\xc0\xaf",
        "Name.app/\xe0\x80\xaf",
        "Name.app/\xf0\x80\x80\xaf",
        "Name.app/\xed\xa0\x80",
        "Name.app/\xf5\x80\x80\x80",
        "",
        "/",
        "Name.app/" + std::string(256, 'n'),
    };
    for (const std::string& path : paths) {
        EXPECT_EQ(refusalOf(withEntry(RawEntry::stored(path, "x"))), code(InstallerError::unsafePath)) << path;
        EXPECT_FALSE(exists("Name.app")) << "checked before anything is unpacked";
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "outside"));
}

TEST_F(ExtractionTest, RefusesPathsBeyondTheLimits) {
    std::string deep = "Name.app";
    for (int level = 0; level < 64; ++level) {
        deep += "/d";
    }
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored(deep, "x"))), 0) << reason;
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored(deep + "/d", "x"))), code(InstallerError::unsafePath));
    std::string longest = "Name.app";
    while (longest.size() < 1'024) {
        longest += "/" + std::string(100, 'n');
    }
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored(longest, "x"))), code(InstallerError::unsafePath));
}

TEST_F(ExtractionTest, RefusesLinksThatLeaveTheApp) {
    const std::vector<std::vector<std::pair<std::string, std::string>>> cases{
        {{"Name.app/l", "/etc/passwd"}},
        {{"Name.app/l", ".."}},
        {{"Name.app/l", "../TamblinArtwork"}},
        {{"Name.app/l", "../Name.app/Name"}},
        {{"Name.app/a/l", "../../.."}},
        {{"Name.app/l", "missing"}},
        {{"Name.app/l", "l"}},
        {{"Name.app/a/b/top", "../.."}, {"Name.app/l", "a/b/top/.."}}, // harmless by its letters, not in fact
    };
    for (const auto& links : cases) {
        ArchiveBuilder builder = app().file("TamblinArtwork", "artwork").file("Name.app/a/b/file", "x");
        for (const auto& [path, target] : links) {
            builder.link(path, target);
        }
        EXPECT_EQ(refusalOf(builder.bytes()), code(InstallerError::unsafePath)) << links.back().second;
        EXPECT_NE(reason.find(links.back().first), std::string::npos) << reason;
    }
}

TEST_F(ExtractionTest, AbsoluteTargetOfALinkIsRefusedBeforeTheLinkIsMade) {
    EXPECT_EQ(refusalOf(app().link("Name.app/l", "/etc/passwd").bytes()), code(InstallerError::unsafePath));
    EXPECT_NE(reason.find("\"Name.app/l\" is a symbolic link with an absolute target"), std::string::npos) << reason;
    EXPECT_FALSE(exists("Name.app/l"));
}

TEST_F(ExtractionTest, NothingIsWrittenThroughALink) {
    RawEntry link = RawEntry::stored("Name.app/link", "../../..");
    link.attributes = 0120777U << 16;
    auto entries = goodEntries();
    entries.push_back(link);
    entries.push_back(RawEntry::stored("Name.app/link/outside", "x"));
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::duplicateEntry));
    EXPECT_NE(reason.find("\"Name.app/link\" is there as a file and as a folder"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesAppFolderThatIsALink) {
    RawEntry link = RawEntry::stored("Name.app", "elsewhere");
    link.attributes = 0120777U << 16;
    EXPECT_EQ(refusalOf(rawArchive({link})), code(InstallerError::noApplication));
}

TEST_F(ExtractionTest, RefusesPipesDevicesAndSockets) {
    for (const unsigned type : {0010000U, 0020000U, 0060000U, 0140000U, 0030000U}) {
        RawEntry entry = RawEntry::stored("Name.app/odd", "");
        entry.attributes = (type | 0644U) << 16;
        EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::unsupportedEntry)) << type;
        EXPECT_NE(reason.find("\"Name.app/odd\" is neither a file, a folder nor a symbolic link"), std::string::npos);
    }
}

TEST_F(ExtractionTest, RefusesTwoEntriesOfOneName) {
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("Name.app/Name", "again"))), code(InstallerError::duplicateEntry));
    EXPECT_NE(reason.find("\"Name.app/Name\" is there twice"), std::string::npos) << reason;
    auto entries = goodEntries();
    entries.push_back(RawEntry::stored("Name.app/d/", ""));
    entries.push_back(RawEntry::stored("Name.app/d", "file"));
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::duplicateEntry));
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("Name.app/Name/below", "x"))), code(InstallerError::duplicateEntry));
    entries = goodEntries();
    entries.insert(entries.begin(), RawEntry::stored("Name.app/Name/below", "x"));
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::duplicateEntry));
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("Name.app/name", "other case"))), 0);
}

TEST_F(ExtractionTest, RefusesEntriesThatShareBytes) {
    auto entries = goodEntries();
    entries.push_back(RawEntry::stored("Name.app/again", "executable"));
    entries.back().sharesPlaceOfPrevious = true;
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find("lies over another entry"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesEncryptedEntries) {
    for (const unsigned flags : {0x1U, 0x41U, 0x2000U}) {
        RawEntry entry = RawEntry::stored("Name.app/secret", "123456789012secret");
        entry.flags = static_cast<std::uint16_t>(flags);
        EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveUnsupported));
        EXPECT_NE(reason.find("\"Name.app/secret\" is encrypted"), std::string::npos) << reason;
    }
}

TEST_F(ExtractionTest, RefusesUnknownCompressions) {
    for (const unsigned method : {1U, 9U, 12U, 14U, 93U, 98U, 99U}) {
        RawEntry entry = RawEntry::stored("Name.app/odd", "content");
        entry.method = static_cast<std::uint16_t>(method);
        EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveUnsupported)) << method;
    }
    EXPECT_NE(reason.find("(method 99); use \"deflate\" or none"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesOnePartOfSeveral) {
    std::string archive = rawArchive(goodEntries());
    archive[archive.size() - 22 + 4] = 1;
    EXPECT_EQ(refusalOf(archive), code(InstallerError::archiveUnsupported));
}

TEST_F(ExtractionTest, RefusesTooManyEntries) {
    std::vector<RawEntry> entries = goodEntries();
    for (int number = 0; number < 60; ++number) {
        entries.push_back(RawEntry::stored("Name.app/" + std::to_string(number), ""));
    }
    limits.entries = 63; // with the app's folder
    EXPECT_EQ(refusalOf(rawArchive(entries)), 0) << reason;
    limits.entries = 62;
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::archiveTooLarge));
    EXPECT_NE(reason.find("it has more than 62 files and folders"), std::string::npos) << reason;
    limits.entries = 61;
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::archiveTooLarge));
    EXPECT_NE(reason.find("it has more than 61 entries"), std::string::npos) << reason;
    EXPECT_FALSE(exists("Name.app"));
}

TEST_F(ExtractionTest, FoldersThatAreOnlyNamedInPathsCountAsEntriesDo) {
    limits.entries = 100;
    std::vector<RawEntry> entries = goodEntries();
    for (int number = 0; number < 3; ++number) {
        std::string path = "Name.app/" + std::to_string(number);
        for (int depth = 0; depth < 30; ++depth) {
            path += "/d";
        }
        entries.push_back(RawEntry::stored(path, ""));
    }
    EXPECT_EQ(refusalOf(rawArchive(entries)), 0) << reason;
    entries.push_back(RawEntry::stored("Name.app/3/d/d/d/d", ""));
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::archiveTooLarge)) << reason;
    limits.entries = 65'535;
    DiskRoom room([] { return std::optional<std::uint64_t>(100 * 4'608); }); // each folder takes a block
    DiskRoom::Share share(room);
    request.room = &share;
    EXPECT_EQ(refusalOf(rawArchive(entries)), code(InstallerError::notEnoughSpace)) << reason;
}

TEST_F(ExtractionTest, RefusesAHundredThousandEntries) {
    ArchiveBuilder builder = app();
    for (int number = 0; number < 100'000; ++number) {
        builder.file("Name.app/" + std::to_string(number), "");
    }
    EXPECT_EQ(refusalOf(builder.stored().bytes()), code(InstallerError::archiveTooLarge));
    EXPECT_NE(reason.find("it has more than 65535 entries"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesArchiveThatUnpacksToTooMuch) {
    limits.unpackedBytes = 10'000;
    EXPECT_EQ(refusalOf(withEntry(RawEntry::deflated("Name.app/large", std::string(11'000, 'x')))),
              code(InstallerError::archiveTooLarge));
    EXPECT_NE(reason.find("it unpacks to more than 10000 bytes"), std::string::npos) << reason;
    EXPECT_FALSE(exists("Name.app"));
}

TEST_F(ExtractionTest, RefusesHighRatiosBeyondTheFreeAmount) {
    const std::string archive = withEntry(RawEntry::deflated("Name.app/zeros", std::string(1'000'000, '\0')));
    EXPECT_EQ(refusalOf(archive), 0) << reason;
    limits.freeBytes = 900'000;
    EXPECT_EQ(refusalOf(archive), code(InstallerError::archiveTooLarge));
    EXPECT_NE(reason.find("times its size; at most 200 times is taken"), std::string::npos) << reason;
}

TEST_F(ExtractionTest, RefusesBombThatUnderstatesItsSize) {
    // Says 100 bytes and unpacks to a million; no more than the 100 may be written.
    RawEntry bomb = RawEntry::deflated("Name.app/bomb", std::string(1'000'000, '\0'));
    bomb.unpackedBytes = 100;
    EXPECT_EQ(refusalOf(withEntry(bomb)), code(InstallerError::archiveDamaged));
    EXPECT_LE(std::filesystem::file_size(folder / "container/Name.app/bomb"), 100U);
}

TEST_F(ExtractionTest, RefusesSizesThatLieInTheExtraField) {
    RawEntry entry = RawEntry::stored("Name.app/large", "content");
    entry.unpackedBytes = 0xffffffff;
    EXPECT_NE(refusalOf(withEntry(entry)), 0);
    entry.extra = std::string("\1\0\4\0\1\1\1\1", 8); // too short for a number
    EXPECT_EQ(refusalOf(withEntry(entry)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find("has a damaged size"), std::string::npos) << reason;
    entry.extra = std::string("\1\0\x8\0", 4) + std::string(8, '\x7f');
    EXPECT_NE(refusalOf(withEntry(entry)), 0);
}

TEST_F(ExtractionTest, RefusesFilesBesideTheAppThatAreNoSmallFiles) {
    EXPECT_EQ(refusalOf(app().folder("TamblinArtwork").bytes()), code(InstallerError::unsupportedEntry));
    EXPECT_EQ(refusalOf(app().link("TamblinMetadata.plist", "Name.app/Info.plist").bytes()),
              code(InstallerError::unsupportedEntry));
    limits.listBytes = 5'000;
    EXPECT_EQ(refusalOf(app().file("TamblinMetadata.plist", std::string(5'001, 'x')).bytes()),
              code(InstallerError::archiveTooLarge));
    EXPECT_EQ(refusalOf(app().file("TamblinArtwork", std::string(5'001, 'x')).bytes()), 0) << reason;
    limits.pictureBytes = 5'000;
    EXPECT_EQ(refusalOf(app().file("TamblinArtwork", std::string(5'001, 'x')).bytes()),
              code(InstallerError::archiveTooLarge));
}

TEST_F(ExtractionTest, RefusesADirectoryThatLiesNowhere) {
    const std::string archive = rawArchive(goodEntries());
    const std::size_t end = archive.size() - 22;
    for (const std::uint64_t start : {std::uint64_t{1} << 40, ~std::uint64_t{0}, std::uint64_t{1} << 63}) {
        EXPECT_EQ(refusalOf(withEnd64(archive.substr(0, end), goodEntries().size(), start)),
                  code(InstallerError::archiveDamaged));
        EXPECT_NE(reason.find("its directory is not where its end says"), std::string::npos) << reason;
    }
}

TEST_F(ExtractionTest, ReasonsShowUntrustedNamesHarmlessly) {
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("../\n\x1b[31m\xff", "x"))), code(InstallerError::unsafePath));
    EXPECT_NE(reason.find("its entry \"../ \uFFFD[31m\uFFFD\" "), std::string::npos) << reason;
    EXPECT_EQ(refusalOf(withEntry(RawEntry::stored("../" + std::string(5'000, 'n'), "x"))),
              code(InstallerError::unsafePath));
    EXPECT_LT(reason.size(), 500U);
}

TEST_F(ExtractionTest, RandomBytesNeverDoHarm) {
    constexpr unsigned seed = 20'240'817;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string archive = app().file("Name.app/more", std::string(500, 'x')).link("Name.app/l", "Name").bytes();
    for (int round = 0; round < 2'000; ++round) {
        std::string damaged = archive;
        for (unsigned count = random() % 8 + 1; count > 0; --count) {
            damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        (void)refusalOf(damaged);
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            EXPECT_TRUE(entry.path().filename() == "container" || entry.path().filename() == "app.zip");
        }
    }
}

} // namespace
} // namespace appsync::device
