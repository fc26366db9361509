// The install queue of a simulated life: operations wait here until the life lets one run.
#pragma once

#include "concurrency/OperationQueue.h"

#include <cstddef>
#include <deque>
#include <functional>

namespace appsync::simulation {

/// Used by one thread at a time.
class InstallStage {
  public:
    /// A number that the caller of `addOperation` wants to find with the operation.
    using Label = std::size_t;

    [[nodiscard]] static InstallStage& instance();

    void add(const OperationQueue* queue, std::function<void()> operation);
    /// Drops what waits in a queue; returns how many that were.
    std::size_t drop(const OperationQueue* queue);
    [[nodiscard]] std::size_t size() const { return _waiting.size(); }
    [[nodiscard]] std::size_t retryCount() const { return unscheduled + retries.size(); }
    [[nodiscard]] Label labelOf(std::size_t position) const { return _waiting[position].label; }
    /// What runs is to be tried again.
    void scheduleRetry();
    /// Runs one and forgets it.
    void run(std::size_t position);

    /// The label of what is added next, or of what runs.
    Label label = 0;
    /// How many installs are to be tried again, and have not been scheduled yet.
    std::size_t unscheduled = 0;
    /// The labels of those that have, the next one first. While `retrying`, what is added takes its label from there.
    std::deque<Label> retries;
    bool retrying = false;
    /// How many operations have been added.
    std::size_t added = 0;
    /// How many operations have been dropped because their queue was stopped.
    std::size_t dropped = 0;

  private:
    struct Operation {
        const OperationQueue* queue;
        Label label;
        std::function<void()> work;
    };
    std::deque<Operation> _waiting;
};

/// A client's install queue whose operations wait on the stage. Has no threads.
class StagedQueue final : public OperationQueue {
  public:
    StagedQueue() : OperationQueue(0) {}
    ~StagedQueue() override { StagedQueue::stop(); }

    bool addOperation(std::function<void()> operation) override;
    void stop() override;

  private:
    bool _isStopped = false;
};

} // namespace appsync::simulation
