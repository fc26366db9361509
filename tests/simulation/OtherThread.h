// A thread that runs a task when it is told to, so that the order of everything is known.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace appsync::simulation {

class OtherThread {
  public:
    OtherThread();
    ~OtherThread();
    OtherThread(const OtherThread&) = delete;
    OtherThread& operator=(const OtherThread&) = delete;

    /// Runs the task and waits for its end.
    void run(std::function<void()> task);
    /// Lets the task run while the caller goes on. One at a time.
    void start(std::function<void()> task);
    /// Lets the task run once `tell` is called.
    void startWhenTold(std::function<void()> task);
    void tell();
    /// Waits for the end of a task that was started.
    void join();

  private:
    void _work();

    std::mutex _mutex;
    std::condition_variable _changed;
    std::function<void()> _task;
    bool _busy = false;
    bool _told = true;
    bool _stopped = false;
    std::thread _thread;
};

} // namespace appsync::simulation
