#include "device/database/Database.h"
#include "device/root/Root.h"

#include "tests/device/root/Faults.h"
#include "tests/device/root/TemporaryFolder.h"

#include <sys/wait.h>

#include <array>
#include <thread>

namespace appsync::device {
namespace {

constexpr std::array<std::string_view, 1> numbersTable{"CREATE TABLE numbers (n INTEGER PRIMARY KEY, t TEXT, d BLOB)"};

class DatabaseTest : public testing::Test {
  protected:
    void SetUp() override { open(); }
    void open() {
        auto opened = Database::open(*root);
        ASSERT_TRUE(opened) << errorText(opened.error());
        database = std::move(*opened);
        const auto registered = database->registerSchema("numbers", numbersTable);
        ASSERT_TRUE(registered) << errorText(registered.error());
    }
    std::int64_t count() {
        Database::Transaction transaction(*database);
        auto rows = transaction.query("SELECT count(*) FROM numbers");
        return rows.next() ? rows.first<std::int64_t>() : -1;
    }
    Result<void> insert(int number, Durability durability = Durability::ordinary) {
        Database::Transaction transaction(*database, durability);
        transaction.run("INSERT INTO numbers (n) VALUES (?)", number);
        return transaction.commit();
    }

    TemporaryFolder folder;
    std::shared_ptr<RecordingFaults> faults = std::make_shared<RecordingFaults>();
    std::unique_ptr<Root> root = std::move(*Root::create(folder.path(), {faults}));
    const std::string path = root->databasePath();
    std::unique_ptr<Database> database;
};

TEST_F(DatabaseTest, GivesBackWhatWasBound) {
    Database::Transaction transaction(*database);
    const Data bytes(std::string("a\0b", 3));
    const std::vector<std::optional<std::string>> texts(1);
    transaction.run("INSERT INTO numbers VALUES (?, ?, ?)", std::int64_t{1} << 40, std::string("text"), bytes);
    transaction.run("INSERT INTO numbers VALUES (?, ?, ?)", 2, texts[0], std::optional<Data>());
    transaction.run("INSERT INTO numbers VALUES (?, ?, ?)", 3, "", Data());
    EXPECT_EQ(transaction.lastRowIdentifier(), 3);
    auto rows = transaction.query("SELECT n, t, d, 0.5 FROM numbers ORDER BY n DESC");
    std::uint64_t number = 0;
    std::string plainText;
    std::optional<std::string> text;
    std::optional<Data> data;
    double half = 0;
    ASSERT_TRUE(rows.next());
    rows.read(number, text, data, half);
    EXPECT_EQ(number, std::uint64_t{1} << 40);
    EXPECT_EQ(text, "text");
    EXPECT_EQ(data, bytes);
    EXPECT_EQ(half, 0.5);
    ASSERT_TRUE(rows.next());
    rows.read(number, text, data);
    EXPECT_EQ(rows.first<Durability>(), static_cast<Durability>(3));
    EXPECT_EQ(text, std::string());
    EXPECT_EQ(data, Data());
    ASSERT_TRUE(rows.next());
    rows.read(number, text, data);
    EXPECT_EQ(text, std::nullopt);
    EXPECT_EQ(data, std::nullopt);
    rows.read(number, plainText);
    EXPECT_EQ(plainText, "");
    EXPECT_FALSE(rows.next());
    EXPECT_FALSE(rows.next());
    EXPECT_EQ(transaction.error(), nullptr);
}

TEST_F(DatabaseTest, KeepsWhatWasCommitted) {
    ASSERT_TRUE(insert(1));
    ASSERT_TRUE(insert(2, Durability::durable));
    database.reset();
    open();
    EXPECT_EQ(count(), 2);
}

TEST_F(DatabaseTest, TransactionThatIsNotCommittedChangesNothing) {
    {
        Database::Transaction transaction(*database);
        transaction.run("INSERT INTO numbers (n) VALUES (1)");
    }
    EXPECT_EQ(count(), 0);
}

TEST_F(DatabaseTest, FirstFailureStopsTheTransactionAndIsReported) {
    ASSERT_TRUE(insert(1));
    Database::Transaction transaction(*database);
    transaction.run("INSERT INTO numbers (n) VALUES (2)");
    transaction.run("INSERT INTO numbers (n) VALUES (1)");
    transaction.run("INSERT INTO numbers (n) VALUES (3)");
    auto rows = transaction.query("SELECT n FROM numbers");
    EXPECT_FALSE(rows.next());
    const auto committed = transaction.commit();
    ASSERT_FALSE(committed);
    EXPECT_TRUE(isError(committed.error(), databaseErrorDomain, DatabaseError::failed));
    EXPECT_NE(errorText(committed.error()).find("UNIQUE constraint failed"), std::string::npos);
    EXPECT_NE(errorText(committed.error()).find(path), std::string::npos);
}

TEST_F(DatabaseTest, NothingOfAFailedTransactionIsKept) {
    ASSERT_TRUE(insert(1));
    {
        Database::Transaction transaction(*database);
        transaction.run("INSERT INTO numbers (n) VALUES (2)");
        transaction.run("INSERT INTO numbers (n) VALUES (1)");
        EXPECT_FALSE(transaction.commit());
    }
    EXPECT_EQ(count(), 1);
    EXPECT_TRUE(insert(5)) << "a failure must not outlast its transaction";
}

TEST_F(DatabaseTest, StatementWithTooFewOrTooManyArgumentsFails) {
    for (const bool tooMany : {false, true}) {
        Database::Transaction transaction(*database);
        if (tooMany) {
            transaction.run("INSERT INTO numbers (n) VALUES (?)", 1, 2);
        } else {
            transaction.run("INSERT INTO numbers (n, t) VALUES (?, ?)", 1);
        }
        EXPECT_NE(transaction.error(), nullptr);
    }
}

TEST_F(DatabaseTest, QueryArgumentsNeedNotOutliveTheCall) {
    ASSERT_TRUE(insert(1));
    Database::Transaction transaction(*database);
    transaction.run("UPDATE numbers SET t = 'a longer text that is not stored inline'");
    auto rows = transaction.query("SELECT n FROM numbers WHERE t = ?",
                                  std::string("a longer text ") + "that is not stored inline");
    EXPECT_TRUE(rows.next());
}

TEST_F(DatabaseTest, SameQueryCanRunInsideItself) {
    ASSERT_TRUE(insert(1) && insert(2));
    Database::Transaction transaction(*database);
    int pairs = 0;
    auto outer = transaction.query("SELECT n FROM numbers WHERE n > ?", 0);
    while (outer.next()) {
        auto inner = transaction.query("SELECT n FROM numbers WHERE n > ?", 0);
        while (inner.next()) {
            ++pairs;
        }
    }
    EXPECT_EQ(pairs, 4);
}

TEST_F(DatabaseTest, FailedCommitRollsBack) {
    faults->forget();
    faults->failAt = 0;
    faults->failure = EIO;
    const auto failed = insert(1);
    ASSERT_FALSE(failed);
    EXPECT_NE(errorText(failed.error()).find("Input/output error"), std::string::npos);
    EXPECT_EQ(count(), 0);
    EXPECT_TRUE(insert(2));
}

TEST_F(DatabaseTest, SchemaStepsAreDoneOnce) {
    constexpr std::array<std::string_view, 2> steps{numbersTable[0], "ALTER TABLE numbers ADD COLUMN extra; "
                                                                     "INSERT INTO numbers (n) VALUES (7)"};
    ASSERT_TRUE(database->registerSchema("numbers", steps));
    ASSERT_TRUE(database->registerSchema("numbers", steps));
    EXPECT_EQ(count(), 1);
}

TEST_F(DatabaseTest, FailedSchemaStepLeavesTheOldVersion) {
    constexpr std::array<std::string_view, 2> broken{numbersTable[0], "INSERT INTO numbers (n) VALUES (7); nonsense"};
    const auto failed = database->registerSchema("numbers", broken);
    ASSERT_FALSE(failed);
    EXPECT_NE(errorText(failed.error()).find("nonsense"), std::string::npos);
    EXPECT_EQ(count(), 0);
    EXPECT_TRUE(database->registerSchema("numbers", numbersTable));
}

TEST_F(DatabaseTest, RefusesTablesOfALaterProgram) {
    const auto failed = database->registerSchema("numbers", {});
    ASSERT_FALSE(failed);
    EXPECT_TRUE(isError(failed.error(), databaseErrorDomain, DatabaseError::newerSchema));
    EXPECT_NE(errorText(failed.error()).find("\"numbers\" have version 1"), std::string::npos);
}

TEST_F(DatabaseTest, RefusesFormatOfALaterProgram) {
    {
        Database::Transaction transaction(*database);
        transaction.run("PRAGMA user_version=9");
        ASSERT_TRUE(transaction.commit());
    }
    database.reset();
    const auto opened = Database::open(*root);
    ASSERT_FALSE(opened);
    EXPECT_TRUE(isError(opened.error(), databaseErrorDomain, DatabaseError::newerSchema));
}

TEST_F(DatabaseTest, FileThatIsNoDatabaseIsReportedAsDamaged) {
    database.reset();
    writeHostFile(path, std::string(5'000, 'x'));
    const auto opened = Database::open(*root);
    ASSERT_FALSE(opened);
    EXPECT_TRUE(isError(opened.error(), databaseErrorDomain, DatabaseError::damaged));
    EXPECT_NE(errorText(opened.error()).find(path), std::string::npos);
    EXPECT_NE(errorText(opened.error()).find("put a copy of it back"), std::string::npos);
    EXPECT_EQ(opened.error()->userInfo().string(errorPathKey), path);
}

TEST_F(DatabaseTest, DamageAnywhereGivesAnErrorOrTheData) {
    for (int number = 0; number < 300; ++number) {
        ASSERT_TRUE(insert(number));
    }
    database.reset();
    const std::string whole = readHostFile(path);
    for (std::size_t place = 0; place < whole.size(); place += 97) {
        std::string damaged = whole;
        damaged[place] = static_cast<char>(damaged[place] ^ 0x5a);
        writeHostFile(path, damaged);
        const auto opened = Database::open(*root);
        if (!opened) {
            continue;
        }
        Database::Transaction transaction(**opened);
        auto rows = transaction.query("SELECT n, t, d FROM numbers");
        while (rows.next()) {
            std::int64_t number = 0;
            std::optional<std::string> text;
            std::optional<Data> data;
            rows.read(number, text, data);
        }
    }
}

TEST_F(DatabaseTest, TruncatedDatabaseIsReportedAsDamaged) {
    for (int number = 0; number < 2'000; ++number) {
        ASSERT_TRUE(insert(number));
    }
    database.reset();
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    const auto opened = Database::open(*root);
    if (opened) {
        Database::Transaction transaction(**opened);
        auto rows = transaction.query("SELECT n FROM numbers");
        while (rows.next()) {
        }
        EXPECT_TRUE(isError(transaction.error(), databaseErrorDomain, DatabaseError::damaged));
    } else {
        EXPECT_TRUE(isError(opened.error(), databaseErrorDomain, DatabaseError::damaged));
    }
}

TEST_F(DatabaseTest, CommittedTransactionsOutlastTheProcess) {
    database.reset();
    const pid_t child = ::fork();
    if (child == 0) {
        auto opened = Database::open(*root);
        Database::Transaction transaction(**opened);
        for (int number = 0; number < 10; ++number) {
            transaction.run("INSERT INTO numbers (n) VALUES (?)", number);
        }
        ::_exit(transaction.commit() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_EQ(WEXITSTATUS(status), 0);
    open();
    EXPECT_EQ(count(), 10);
}

TEST_F(DatabaseTest, ThreadsTakeTurns) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int number = 0; number < 50; ++number) {
                EXPECT_TRUE(
                    insert(thread * 1'000 + number, number % 10 == 0 ? Durability::durable : Durability::ordinary));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count(), 200);
}

} // namespace
} // namespace appsync::device
