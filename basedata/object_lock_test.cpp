#include "basedata/object_lock.h"

#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tsm::basedata {
namespace {

TEST(ObjectLockTest, TryLockFailsWhileHeldAndSucceedsAfter) {
  ObjectLock lock;
  ASSERT_TRUE(lock.try_lock());
  EXPECT_FALSE(lock.try_lock());
  lock.unlock();
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

// Threads that meet on the lock sleep and are woken: no increment is lost
// and every thread finishes.
TEST(ObjectLockTest, ContendedIncrementsAreNeitherLostNorStuck) {
  ObjectLock lock;
  int64_t counter = 0;  // guarded by lock
  constexpr int kThreads = 4;
  constexpr int kRounds = 50000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        std::lock_guard<ObjectLock> guard(lock);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::lock_guard<ObjectLock> guard(lock);
  EXPECT_EQ(counter, int64_t{kThreads} * kRounds);
}

}  // namespace
}  // namespace tsm::basedata
