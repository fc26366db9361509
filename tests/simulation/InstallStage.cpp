#include "tests/simulation/InstallStage.h"

#include <algorithm>
#include <utility>

namespace appsync::simulation {

InstallStage& InstallStage::instance() {
    static InstallStage stage;
    return stage;
}

void InstallStage::add(const OperationQueue* queue, std::function<void()> operation) {
    ++added;
    Label itsLabel = label;
    if (retrying && !retries.empty()) {
        itsLabel = retries.front();
        retries.pop_front();
    }
    _waiting.push_back({queue, itsLabel, std::move(operation)});
}

std::size_t InstallStage::drop(const OperationQueue* queue) {
    const std::size_t count =
        std::erase_if(_waiting, [queue](const Operation& operation) { return operation.queue == queue; });
    dropped += count;
    return count;
}

void InstallStage::scheduleRetry() {
    unscheduled -= std::min<std::size_t>(unscheduled, 1);
    retries.push_back(label);
}

void InstallStage::run(std::size_t position) {
    const auto operation = std::move(_waiting[position].work);
    _waiting.erase(_waiting.begin() + static_cast<std::ptrdiff_t>(position));
    operation();
}

bool StagedQueue::addOperation(std::function<void()> operation) {
    if (_isStopped) {
        return false;
    }
    InstallStage::instance().add(this, std::move(operation));
    return true;
}

void StagedQueue::stop() {
    _isStopped = true;
    InstallStage::instance().drop(this);
}

} // namespace appsync::simulation
