// A lock that the compiler checks: each member says what guards it, each function which lock it needs, and clang
// refuses what does not keep to that (-Wthread-safety). Other compilers see nothing of it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define APPSYNC_THREAD_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define APPSYNC_THREAD_ANNOTATION(...)
#endif

/// A type whose objects can be held.
#define CAPABILITY(name) APPSYNC_THREAD_ANNOTATION(capability(name))
/// A type whose objects hold a lock as long as they live.
#define SCOPED_CAPABILITY APPSYNC_THREAD_ANNOTATION(scoped_lockable)
/// A member that may be used only while that lock is held.
#define GUARDED_BY(...) APPSYNC_THREAD_ANNOTATION(guarded_by(__VA_ARGS__))
/// A function, or a lambda, that is called with the lock held, or without it.
#define REQUIRES(...) APPSYNC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) APPSYNC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// A function that takes the lock and returns with it, or lets go of it.
#define ACQUIRE(...) APPSYNC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) APPSYNC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NOT_CHECKED_FOR_LOCKS APPSYNC_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace appsync {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { _mutex.lock(); }
    void unlock() RELEASE() { _mutex.unlock(); }

  private:
    friend class Condition;
    std::mutex _mutex;
};

class SCOPED_CAPABILITY Lock {
  public:
    explicit Lock(Mutex& mutex) ACQUIRE(mutex) : _mutex(mutex) { mutex.lock(); }
    ~Lock() RELEASE() { _mutex.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    Mutex& _mutex;
};

/// What a thread waits for while it has let go of a mutex. It may wake for no reason: ask again in a loop.
class Condition {
  public:
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock lock(mutex._mutex, std::adopt_lock);
        _condition.wait(lock);
        lock.release();
    }
    /// False: the time came first.
    template <class Clock, class Duration>
    bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& time) REQUIRES(mutex) {
        std::unique_lock lock(mutex._mutex, std::adopt_lock);
        const bool isInTime = _condition.wait_until(lock, time) == std::cv_status::no_timeout;
        lock.release();
        return isInTime;
    }
    void notifyOne() noexcept { _condition.notify_one(); }
    void notifyAll() noexcept { _condition.notify_all(); }

  private:
    std::condition_variable _condition;
};

} // namespace appsync
