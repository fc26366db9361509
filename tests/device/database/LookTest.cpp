// Looking at a device's database beside the process that has it open, and without one.
#include "device/database/Database.h"
#include "device/root/Root.h"
#include "tests/device/root/TemporaryFolder.h"
#include "tests/device/root/Tree.h"

#include <sys/wait.h>

#include <array>

namespace appsync::device {
namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 1> plainTable{"CREATE TABLE numbers (n INTEGER PRIMARY KEY)"};

class DatabaseLook : public testing::Test {
  protected:
    void SetUp() override {
        const auto root = Root::create(folder.path());
        path = (*root)->databasePath();
        auto opened = open(**root);
        ASSERT_TRUE(opened->registerSchema("numbers", plainTable));
        insert(*opened, 1);
    }
    static std::unique_ptr<Database> open(Root& root) {
        auto opened = Database::open(root);
        EXPECT_TRUE(opened) << errorText(opened.error());
        return std::move(*opened);
    }
    std::unique_ptr<Database> look() {
        auto looked = Database::look(*looking);
        EXPECT_TRUE(looked) << errorText(looked.error());
        return std::move(*looked);
    }
    static void insert(Database& database, int number) {
        Database::Transaction transaction(database);
        transaction.run("INSERT INTO numbers VALUES (?)", number);
        ASSERT_TRUE(transaction.commit());
    }
    static std::int64_t count(Database& database) {
        Database::Transaction transaction(database);
        auto rows = transaction.query("SELECT count(*) FROM numbers");
        return rows.next() ? rows.first<std::int64_t>() : -1;
    }
    /// A process that has the device open ends in the midst of it.
    void endAProcessThatInserts(int number) {
        const pid_t child = ::fork();
        if (child == 0) {
            const auto root = Root::open(folder.path());
            insert(**Database::open(**root), number);
            const auto kept = Database::open(**root);
            insert(**kept, number + 1);
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(WEXITSTATUS(status), 0);
        ASSERT_GT(fs::file_size(path + "-wal"), 0U);
    }

    TemporaryFolder folder;
    std::string path;
    std::unique_ptr<Root> looking = [this] {
        (void)Root::create(folder.path());
        return std::move(*Root::look(folder.path()));
    }();
};

TEST_F(DatabaseLook, SeesTheMomentOfOpeningBesideOneWhoWrites) {
    const auto root = Root::open(folder.path());
    const auto writer = open(**root);
    const auto first = look();
    insert(*writer, 2);
    EXPECT_EQ(count(*first), 1);
    EXPECT_EQ(count(*look()), 2);
    EXPECT_EQ(count(*first), 1);
    EXPECT_EQ(count(*writer), 2);
}

TEST_F(DatabaseLook, FindsTheLogAndTheSharedMemoryThatItCannotMake) {
    EXPECT_EQ(fs::file_size(path + "-wal"), 0U);
    EXPECT_TRUE(fs::exists(path + "-shm"));
}

TEST_F(DatabaseLook, ChangesNothingOnTheDisk) {
    const Tree before(folder.path());
    EXPECT_EQ(count(*look()), 1);
    EXPECT_EQ(Tree(folder.path()), before);
}

TEST_F(DatabaseLook, SeesWhatAKilledProcessHasCommittedAndChangesNothing) {
    endAProcessThatInserts(2);
    const Tree before(folder.path());
    EXPECT_EQ(count(*look()), 3);
    EXPECT_EQ(Tree(folder.path()), before);
}

TEST_F(DatabaseLook, DoesNotKeepTheOwnerFromOpeningWritingAndClosing) {
    endAProcessThatInserts(2);
    std::array<int, 2> begin{};
    ASSERT_EQ(::pipe(begin.data()), 0);
    const pid_t owner = ::fork(); // before there is anything open here that it would share
    if (owner == 0) {
        char byte = 0;
        (void)!::read(begin[0], &byte, 1);
        const auto root = Root::open(folder.path());
        auto writer = open(**root);
        for (int number = 10; number < 2'000; ++number) {
            insert(*writer, number);
        }
        writer.reset();
        ::_exit(HasFailure() ? 1 : 0);
    }
    const auto first = look();
    EXPECT_EQ(count(*first), 3);
    ASSERT_EQ(::write(begin[1], "x", 1), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(owner, &status, 0), owner);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(count(*first), 3);
    EXPECT_EQ(count(*look()), 1'993);
}

TEST_F(DatabaseLook, NeedsNoLogAndNoSharedMemoryAfterACleanEnd) {
    fs::remove(path + "-wal");
    fs::remove(path + "-shm");
    EXPECT_EQ(count(*look()), 1);
    EXPECT_FALSE(fs::exists(path + "-wal"));
    EXPECT_FALSE(fs::exists(path + "-shm"));
}

TEST_F(DatabaseLook, SaysThatALogWithoutItsSharedMemoryCannotBeRead) {
    endAProcessThatInserts(2);
    fs::remove(path + "-shm");
    const auto looked = Database::look(*looking);
    ASSERT_FALSE(looked);
    EXPECT_NE(errorText(looked.error()).find("\"-shm\", which is missing; have a command that changes the device open"),
              std::string::npos)
        << errorText(looked.error());
    EXPECT_EQ(count(*open(**Root::open(folder.path()))), 3);
    EXPECT_EQ(count(*look()), 3);
}

TEST_F(DatabaseLook, RefusesToWrite) {
    const auto looked = look();
    EXPECT_TRUE(looked->isReadOnly());
    {
        Database::Transaction transaction(*looked);
        transaction.run("INSERT INTO numbers VALUES (2)");
        EXPECT_FALSE(transaction.commit());
    }
    EXPECT_EQ(count(*looked), 1);
}

TEST_F(DatabaseLook, BringsNoTablesUpToDate) {
    const auto looked = look();
    EXPECT_TRUE(looked->registerSchema("numbers", plainTable));
    constexpr std::array<std::string_view, 2> later{plainTable[0], "ALTER TABLE numbers ADD COLUMN extra"};
    EXPECT_TRUE(
        isError(looked->registerSchema("numbers", later).error(), databaseErrorDomain, DatabaseError::olderSchema));
    EXPECT_TRUE(
        isError(looked->registerSchema("others", plainTable).error(), databaseErrorDomain, DatabaseError::olderSchema));
}

TEST_F(DatabaseLook, MakesNoDatabase) {
    fs::remove(path);
    EXPECT_NE(errorText(Database::look(*looking).error()).find("it is missing; put a copy of it back"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(path));
}

} // namespace
} // namespace appsync::device
