// Archives that are so large that several threads unpack them.
#include "ExtractionFixture.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

namespace appsync::device {
namespace {

class LargeArchive : public ExtractionTest {
  protected:
    static std::string name(std::size_t number) { return "file" + std::to_string(number); }
    static std::string contentOf(std::size_t number) {
        return std::string(megabyte, static_cast<char>('a' + number % 26)) + name(number);
    }
    /// Files in several folders, among which the app's own stand.
    static std::vector<RawEntry> entries() {
        std::vector<RawEntry> entries;
        for (std::size_t i = 0; i < count; ++i) {
            if (i == count / 2) {
                entries.push_back(RawEntry::stored("Name.app/Info.plist", infoList(identifier)));
            }
            entries.push_back(RawEntry::deflated(pathOf(i), contentOf(i)));
        }
        return entries;
    }
    static std::string pathOf(std::size_t number) {
        return "Name.app/folder" + std::to_string(number % 3) + "/" + name(number);
    }
    /// Which of the entries holds a file.
    static std::size_t placeOf(std::size_t number) { return number < count / 2 ? number : number + 1; }

    static constexpr std::size_t megabyte = std::size_t{1} << 20;
    static constexpr std::size_t count = 40;
};

TEST_F(LargeArchive, IsUnpackedWholeByAllCoresOrByOne) {
    for (const std::size_t number : {3U, 1U}) {
        places.emplace(number);
        const auto result = extract(rawArchive(entries()));
        ASSERT_TRUE(result) << errorText(result.error());
        std::uint64_t bytes = infoList(identifier).size();
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(content(pathOf(i)), contentOf(i)) << i;
            bytes += contentOf(i).size();
        }
        EXPECT_EQ(result->bytes, bytes);
        EXPECT_EQ(result->info.string("BXBundleIdentifier"), identifier);
    }
}

TEST_F(LargeArchive, GivesThePlacesBack) {
    ASSERT_TRUE(extract(rawArchive(entries())));
    const auto first = places->takeSpare();
    const auto second = places->takeSpare();
    EXPECT_TRUE(first && second);
    EXPECT_TRUE(extract(rawArchive(entries()))) << "others have all but one";
}

TEST_F(LargeArchive, IsRefusedForItsFirstDamagedFile) {
    auto damaged = entries();
    for (const std::size_t file : {37U, 21U, 5U, 6U}) {
        damaged[placeOf(file)].checksum ^= 1;
    }
    EXPECT_EQ(refusalOf(rawArchive(damaged)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find(pathOf(5) + "\""), std::string::npos) << reason;
    damaged = entries();
    damaged[placeOf(count - 1)].checksum ^= 1;
    EXPECT_EQ(refusalOf(rawArchive(damaged)), code(InstallerError::archiveDamaged));
    EXPECT_NE(reason.find(pathOf(count - 1) + "\""), std::string::npos) << reason;
}

TEST_F(LargeArchive, OfAnotherAppIsRefusedBeforeItsFilesAreUnpacked) {
    request.identifier = "org.example.other";
    EXPECT_EQ(refusalOf(rawArchive(entries())), code(InstallerError::identifierMismatch));
    EXPECT_FALSE(exists(pathOf(0)));
}

TEST_F(LargeArchive, IsUnpackedByMoreThanOneThread) {
    class TwoThreads final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view path) noexcept override {
            if (operation == "create" && path.find("/file") != std::string_view::npos) {
                std::unique_lock lock(_mutex);
                _threads.insert(std::this_thread::get_id());
                _came.notify_all();
                _came.wait(lock, [&] { return _threads.size() >= 2; }); // for ever when there is only one
            }
            return 0;
        }

      private:
        std::mutex _mutex;
        std::condition_variable _came;
        std::set<std::thread::id> _threads;
    };
    TwoThreads twoThreads;
    EXPECT_TRUE(extract(rawArchive(entries()), &twoThreads));
}

TEST_F(LargeArchive, ReportsItsProgressByOneThreadAtATime) {
    std::vector<double> reported;
    std::atomic<int> reporting = 0;
    request.progress = [&](double fraction) {
        EXPECT_EQ(++reporting, 1);
        reported.push_back(fraction);
        --reporting;
    };
    ASSERT_TRUE(extract(rawArchive(entries())));
    ASSERT_GE(reported.size(), count);
    EXPECT_TRUE(std::ranges::is_sorted(reported));
    EXPECT_EQ(reported.back(), 1.0);
}

TEST_F(LargeArchive, EndsOnAllThreadsWhenItIsCancelled) {
    class Cancels final : public FaultPoint {
      public:
        int before(std::string_view operation, std::string_view /*path*/) noexcept override {
            if (operation == "write" && ++_writes == 10) {
                source.request_stop();
            }
            return 0;
        }
        std::stop_source source;

      private:
        std::atomic<int> _writes = 0;
    };
    Cancels cancels;
    request.cancel = cancels.source.get_token();
    const auto result = extract(rawArchive(entries()), &cancels);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error()->code(), code(InstallerError::cancelled));
}

TEST_F(LargeArchive, FindsTheDiskFullOnAnyThread) {
    const std::string archive = rawArchive(entries());
    faults->forget();
    ASSERT_TRUE(extract(archive));
    const std::size_t changes = faults->count();
    for (const std::size_t change : {changes / 4, changes / 2, changes - 1}) {
        faults->forget();
        faults->failAt = static_cast<int>(change);
        faults->failure = ENOSPC;
        EXPECT_EQ(refusalOf(archive), code(InstallerError::notEnoughSpace)) << change;
    }
}

} // namespace
} // namespace appsync::device
