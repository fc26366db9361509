// What becomes of a client for which there is no memory.
#include "tests/inmemory/ClientTest.h"

#include <new>

namespace {

thread_local bool refuseMemory = false;

} // namespace

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

} // namespace
} // namespace appsync
