// The plug-in's install queue as a life needs it: without threads of its own.
#include "concurrency/OperationQueue.h"
#include "tests/simulation/InstallStage.h"

namespace appsync {

OperationQueue::OperationQueue(std::size_t maxConcurrentOperationCount, WithoutThread withoutThread)
    : _maxConcurrent(maxConcurrentOperationCount), _withoutThread(withoutThread) {}

OperationQueue::~OperationQueue() {
    stop();
}

bool OperationQueue::addOperation(std::function<void()> operation) {
    if (_stopped) {
        return false;
    }
    simulation::InstallStage::instance().add(this, std::move(operation));
    return true;
}

void OperationQueue::stop() {
    _stopped = true;
    simulation::InstallStage::instance().drop(this);
}

} // namespace appsync
