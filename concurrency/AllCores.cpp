#include "concurrency/AllCores.h"

#include "concurrency/OperationQueue.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace appsync {

std::size_t coreCount() noexcept {
    return std::max(1U, std::thread::hardware_concurrency());
}

void forEachNumber(std::size_t count, const std::function<void(std::size_t)>& work, std::size_t threads) {
    std::atomic<std::size_t> next = 0;
    const auto workOff = [&] {
        for (std::size_t number = next++; number < count; number = next++) {
            work(number);
        }
    };
    OperationQueue others(std::max<std::size_t>(threads, 1));
    for (std::size_t thread = 1; thread < std::min(threads, count); ++thread) {
        others.addOperation(workOff);
    }
    workOff();
    others.stop(); // what has not begun by now has nothing left to do
}

} // namespace appsync
