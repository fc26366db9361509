// What stands on disk when a write fails or the process ends in the middle of it.
#include "device/root/Root.h"

#include "Faults.h"
#include "TemporaryFolder.h"

#include <fcntl.h>
#include <sys/wait.h>

namespace appsync::device {
namespace {

constexpr std::string_view listPath = "/tmp/list";

TEST(Durability, AtomicWriteSyncsDataThenRenamesThenSyncsTheFolder) {
    const TemporaryFolder folder;
    const auto faults = std::make_shared<RecordingFaults>();
    const auto root = Root::create(folder.path(), {faults});
    ASSERT_TRUE(root);
    faults->forget();
    ASSERT_TRUE((*root)->files().writeFileAtomically(listPath, "new", nullptr));
    EXPECT_EQ(faults->operations(), (std::vector<std::string>{"create", "write", "sync", "rename", "sync folder"}));
}

TEST(Durability, FailureOfAnyStepLeavesTheOldContentOrTheNewAndNoLitter) {
    const TemporaryFolder folder;
    const auto faults = std::make_shared<RecordingFaults>();
    const auto root = Root::create(folder.path(), {faults});
    ASSERT_TRUE(root);
    DeviceFileSystem& files = (*root)->files();
    for (int step = 0; step < 5; ++step) {
        faults->failAt = -1;
        ASSERT_TRUE(files.writeFileAtomically(listPath, "old", nullptr));
        faults->forget();
        faults->failAt = step;
        faults->failure = EIO;
        ErrorPtr error;
        EXPECT_FALSE(files.writeFileAtomically(listPath, "new", &error)) << step;
        EXPECT_EQ(error->code(), EIO);
        EXPECT_EQ(files.readFile(listPath, nullptr), Data(step < 4 ? "old" : "new")) << step;
        EXPECT_EQ(*files.list("/tmp"), std::vector<std::string>{"list"}) << step;
    }
}

TEST(Durability, ProcessThatEndsAnywhereLeavesTheOldContentOrTheNewAndNoLitterAfterOpening) {
    const TemporaryFolder folder;
    for (int step = 0; step <= 5; ++step) {
        {
            const auto root = Root::create(folder.path());
            ASSERT_TRUE(root && (*root)->files().writeFileAtomically(listPath, "old", nullptr));
        }
        const pid_t child = ::fork();
        if (child == 0) {
            auto root = Root::open(folder.path());
            // Only the write itself is to be cut short, so the fault point comes in after opening.
            DeviceFileSystem files(std::move(*(*root)->files().open("/", O_RDONLY | O_DIRECTORY)),
                                   std::make_shared<EndingFaults>(step));
            ::_exit(files.writeFileAtomically(listPath, "new", nullptr) ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(EndingFaults::hasEnded(status), step < 5) << step;
        const auto root = Root::open(folder.path());
        ASSERT_TRUE(root);
        EXPECT_EQ((*root)->files().readFile(listPath, nullptr), Data(step < 4 ? "old" : "new")) << step;
        EXPECT_EQ(*(*root)->files().list("/tmp"), std::vector<std::string>{"list"}) << step;
    }
}

TEST(Durability, FailedCopyAndCreationLeaveWhatWasThere) {
    const TemporaryFolder folder;
    const auto faults = std::make_shared<RecordingFaults>();
    const auto root = Root::create(folder.path(), {faults});
    ASSERT_TRUE(root);
    DeviceFileSystem& files = (*root)->files();
    ASSERT_TRUE(files.createFile("/tmp/source", "source", {}));
    faults->failure = EIO;
    // A new file is created and filled; one that takes the place of another is renamed, too.
    const auto expectLeft = [&](int steps, const std::optional<Data>& target, const std::vector<std::string>& names) {
        for (int step = 0; step < steps; ++step) {
            faults->forget();
            faults->failAt = step;
            EXPECT_FALSE(files.copyItem("/tmp/source", "/tmp/target", nullptr)) << step;
            faults->forget();
            EXPECT_FALSE(files.createFile("/tmp/target", "x", {})) << step;
            EXPECT_EQ(files.readFile("/tmp/target", nullptr), target) << step;
            EXPECT_EQ(*files.list("/tmp"), names) << step;
        }
    };
    expectLeft(2, std::nullopt, {"source"});
    faults->failAt = -1;
    ASSERT_TRUE(files.createFile("/tmp/target", "target", {}));
    expectLeft(3, Data("target"), {"source", "target"});
}

} // namespace
} // namespace appsync::device
