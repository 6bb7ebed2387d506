#include "platform/sync.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testing/mutex_waiters.h"

namespace tsm {
namespace {

TEST(CMutexTest, OwnerReentersAndReleasesLevelByLevel) {
  CMutex mutex;
  mutex.Lock();
  mutex.Lock();
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 2);
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 1);
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 0);
}

TEST(CMutexTest, UnlockByThreadThatDoesNotOwnItDoesNothing) {
  CMutex mutex;
  mutex.Lock();
  bool other_unlocked = true;
  std::thread other([&] { other_unlocked = mutex.Unlock(); });
  other.join();
  EXPECT_FALSE(other_unlocked);
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 1);
  EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutexTest, UnlockWithoutLockDoesNothing) {
  CMutex mutex;
  EXPECT_FALSE(mutex.Unlock());
  mutex.Lock();
  EXPECT_TRUE(mutex.Unlock());
}

TEST(CMutexTest, LockTakenInOneCallIsReleasedInALaterCallOnTheSameThread) {
  CMutex mutex;
  auto first_call = [&] { mutex.Lock(); };
  auto second_call = [&] { return mutex.Unlock(); };
  first_call();
  std::atomic<bool> other_got_it{false};
  std::thread other([&] {
    mutex.Lock();
    other_got_it = true;
    mutex.Unlock();
  });
  EXPECT_TRUE(WaitForWaiter(mutex));
  EXPECT_FALSE(other_got_it.load());
  EXPECT_TRUE(second_call());
  other.join();
  EXPECT_TRUE(other_got_it.load());
}

TEST(CMutexTest, WaitingCountsOnlyThreadsBlockedInLock) {
  CMutex mutex;
  EXPECT_EQ(mutex.Waiting(), 0);
  mutex.Lock();
  mutex.Lock();  // the owner re-enters without waiting
  EXPECT_EQ(mutex.Waiting(), 0);
  std::thread other([&] {
    ScopedLock<CMutex> guard(mutex);
  });
  EXPECT_TRUE(WaitForWaiter(mutex));
  EXPECT_EQ(mutex.Waiting(), 1);
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_EQ(mutex.Waiting(), 1);  // one level is still held
  EXPECT_TRUE(mutex.Unlock());
  other.join();
  EXPECT_EQ(mutex.Waiting(), 0);
}

// Four threads each add 1 to a counter `per_thread` times, each time holding
// `levels` nested levels of one mutex; returns the count.
int CountFromFourThreads(int per_thread, int levels) {
  CMutex mutex;
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < per_thread; ++i) {
        for (int level = 0; level < levels; ++level) mutex.Lock();
        const int before = counter;
        counter = before + 1;
        for (int level = 0; level < levels; ++level) mutex.Unlock();
      }
    });
  }
  for (auto& t : threads) t.join();
  return counter;
}

TEST(CMutexTest, ExcludesOtherThreads) { EXPECT_EQ(CountFromFourThreads(2000, 1), 8000); }

TEST(CMutexTest, NextOwnerStartsAtOneLevelAfterANestedOwnerLetsGo) {
  CMutex mutex;
  mutex.Lock();
  mutex.Lock();
  std::atomic<int> levels_seen{-1};
  std::thread other([&] {
    mutex.Lock();
    levels_seen = mutex.LevelsHeldByCaller();
    mutex.Unlock();
  });
  EXPECT_TRUE(mutex.Unlock());
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 1);
  EXPECT_TRUE(mutex.Unlock());
  other.join();
  EXPECT_EQ(levels_seen.load(), 1);
  EXPECT_EQ(mutex.LevelsHeldByCaller(), 0);
}

TEST(CMutexTest, NestedLevelsExcludeOtherThreads) { EXPECT_EQ(CountFromFourThreads(1000, 2), 4000); }

TEST(CEventTest, AutoResetEventIsTakenByOneWait) {
  CEvent event(false, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
}

TEST(CEventTest, ManualResetEventStaysSignalledUntilReset) {
  CEvent event(true, false);
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(0));
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(CEventTest, WaitReturnsWhenAnotherThreadSets) {
  CEvent event(false, false);
  std::thread setter([&] { event.Set(); });
  EXPECT_TRUE(event.Wait(-1));
  setter.join();
}

TEST(CEventTest, IsSignalledFollowsSetResetAndAutoResetWaits) {
  CEvent manual(true, false);
  EXPECT_FALSE(manual.IsSignalled());
  manual.Set();
  EXPECT_TRUE(manual.IsSignalled());
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.IsSignalled());  // a manual-reset event stays set
  manual.Reset();
  EXPECT_FALSE(manual.IsSignalled());
  CEvent automatic(false, true);
  EXPECT_TRUE(automatic.IsSignalled());
  EXPECT_TRUE(automatic.Wait(0));
  EXPECT_FALSE(automatic.IsSignalled());  // the wait took it
}

TEST(CCriticalSectionTest, IsRecursive) {
  CCriticalSection cs;
  EXPECT_TRUE(cs.Lock());
  EXPECT_TRUE(cs.Lock());
  EXPECT_TRUE(cs.Unlock());
  EXPECT_TRUE(cs.Unlock());
}

TEST(CCriticalSectionTest, WaitingCountsOnlyThreadsThatFoundItTaken) {
  CCriticalSection section;
  section.Lock();
  section.Lock();  // the owner re-enters without waiting
  EXPECT_EQ(section.Waiting(), 0);
  std::atomic<bool> entered{false};
  std::thread other([&] {
    ScopedLock<CCriticalSection> guard(section);
    entered = true;
  });
  EXPECT_TRUE(WaitForWaiter(section, &entered));
  EXPECT_FALSE(entered.load());
  section.Unlock();
  section.Unlock();
  other.join();
  EXPECT_TRUE(entered.load());
  EXPECT_EQ(section.Waiting(), 0);
}

}  // namespace
}  // namespace tsm
