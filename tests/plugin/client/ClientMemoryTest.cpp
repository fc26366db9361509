// What becomes of a client for which there is no memory.
#include "tests/inmemory/ClientTest.h"

#include <sys/wait.h>

#include <cstdlib>
#include <new>

namespace {

thread_local bool refuseMemory = false; // to who can do without
thread_local int untilRefusal = -1;     // so many allocations go well before one does not; none is refused below 0

} // namespace

// Not inline, or the compiler takes its own for mismatched with these.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = untilRefusal >= 0 && untilRefusal-- == 0 ? nullptr : std::malloc(size);
    if (!memory) {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (refuseMemory) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace appsync {
namespace {

class ClientMemory : public inmemory::ClientTest {};

TEST_F(ClientMemory, WithoutItThereIsNoClientAndNoServiceIsTouched) {
    refuseMemory = true;
    const auto client = AppsClient::init(world.platform());
    refuseMemory = false;
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(journal(), inmemory::Lines{});
}

TEST_F(ClientMemory, WhereverItRunsOutNoServiceKnowsAClientThatIsGone) {
    enum Outcome { made, forgotten, leftBehind };
    const Platform platform = world.platform();
    const auto makeClient = [&](int allocations) {
        std::unique_ptr<AppsClient> client;
        untilRefusal = allocations;
        try {
            client = AppsClient::init(platform);
        } catch (const std::bad_alloc&) {
        }
        untilRefusal = -1;
        std::_Exit(client ? made : world.registry.observers().empty() ? forgotten : leftBehind);
    };
    bool isMade = false;
    world.journal.setRecording(false);
    for (int allocations = 0; !isMade; ++allocations) {
        ASSERT_LT(allocations, 1'000);
        EXPECT_EXIT(
            makeClient(allocations),
            [&](int status) {
                isMade = WIFEXITED(status) && WEXITSTATUS(status) == made;
                return !WIFEXITED(status) || WEXITSTATUS(status) != leftBehind;
            },
            "");
    }
}

} // namespace
} // namespace appsync
