// A system that has no thread to give.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

namespace appsync {

/// From now on the system has no thread to give, until the object goes.
class NoMoreThreads {
  public:
    NoMoreThreads() {
        pthread_attr_init(&_usual);
        pthread_getattr_default_np(&_usual);
        pthread_attr_t huge;
        pthread_attr_init(&huge);
        pthread_attr_setstacksize(&huge, std::size_t{1} << 46); // more than can be reserved
        EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
        pthread_attr_destroy(&huge);
    }
    ~NoMoreThreads() {
        pthread_setattr_default_np(&_usual);
        pthread_attr_destroy(&_usual);
    }
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

  private:
    pthread_attr_t _usual{};
};

} // namespace appsync
