#include "platform/virtual_clock.h"

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/thread.h"

namespace tsm {
namespace {

// A timer thread as the timer service runs it: arm, then wait and call back
// until stopped.
struct TimerThread {
  std::unique_ptr<ITimerWait> wait;
  std::atomic<int> fired{0};
  std::atomic<bool> done{false};
  std::function<void(TimerThread&)> on_fire;

  void Start(int64_t due, int64_t period) {
    StartThread(
        [this, due, period] {
          wait->Arm(due, period);
          while (wait->Wait() != 0) {
            ++fired;
            if (on_fire) on_fire(*this);
          }
          wait.reset();
          done = true;
        },
        0);
  }
};

TEST(VirtualClockTest, TimeStandsStillUntilAdvanced) {
  VirtualClock clock(1'000'000);
  EXPECT_EQ(clock.NowMs(), 1'000'000);
  EXPECT_EQ(clock.UtcSeconds(), 1000);
  clock.Advance(1500);
  EXPECT_EQ(clock.NowMs(), 1'001'500);
}

TEST(VirtualClockTest, AdvanceFiresDueTimersAndWaitsForTheirCallbacks) {
  VirtualClock clock;
  TimerThread t;
  t.wait = clock.CreateTimerWait(L"t");
  std::atomic<int64_t> seen_at{-1};
  t.on_fire = [&](TimerThread& self) {
    seen_at = clock.NowMs();
    self.wait->SignalStop();
  };
  t.Start(100, 100);
  clock.Advance(99);
  EXPECT_EQ(t.fired.load(), 0);
  clock.Advance(1);
  EXPECT_EQ(t.fired.load(), 1);
  EXPECT_EQ(seen_at.load(), 100);
  clock.Advance(1000);
  EXPECT_EQ(t.fired.load(), 1);
  while (!t.done) std::this_thread::yield();
}

TEST(VirtualClockTest, NegativePeriodIsRefusedAndNeverFires) {
  VirtualClock clock;
  TimerThread t;
  t.wait = clock.CreateTimerWait(L"t");
  t.Start(INT32_MIN, INT32_MIN);
  clock.WaitForArming();
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
  clock.Advance(10'000'000);
  EXPECT_EQ(t.fired.load(), 0);
  t.wait->SignalStop();
  while (!t.done.load()) std::this_thread::yield();
  EXPECT_EQ(t.fired.load(), 0);
}

TEST(VirtualClockTest, PeriodicTimerFiresEveryPeriodInOneAdvance) {
  VirtualClock clock;
  TimerThread t;
  t.wait = clock.CreateTimerWait(L"p");
  t.Start(10, 10);
  clock.Advance(55);
  EXPECT_EQ(t.fired.load(), 5);
  t.wait->SignalStop();
  clock.Advance(0);
  while (!t.done) std::this_thread::yield();
}

TEST(VirtualClockTest, ExpiriesRunInTimeOrder) {
  VirtualClock clock;
  std::mutex order_lock;
  std::vector<int> order;
  std::vector<std::unique_ptr<TimerThread>> timers;
  const int delays[] = {30, 10, 20, 10};
  for (int i = 0; i < 4; ++i) {
    auto t = std::make_unique<TimerThread>();
    t->wait = clock.CreateTimerWait(L"o");
    t->on_fire = [&, i](TimerThread& self) {
      std::lock_guard<std::mutex> guard(order_lock);
      order.push_back(i);
      self.wait->SignalStop();
    };
    t->Start(delays[i], delays[i]);
    clock.Advance(0);  // lets each thread arm before the next is made
    timers.push_back(std::move(t));
  }
  clock.Advance(100);
  EXPECT_EQ(order, (std::vector<int>{1, 3, 2, 0}));
  for (auto& t : timers) {
    while (!t->done) std::this_thread::yield();
  }
}

TEST(VirtualClockTest, TimerArmedFromCallbackFiresInTheSameAdvance) {
  VirtualClock clock;
  TimerThread second;
  TimerThread first;
  first.wait = clock.CreateTimerWait(L"a");
  first.on_fire = [&](TimerThread& self) {
    second.wait = clock.CreateTimerWait(L"b");
    second.on_fire = [](TimerThread& s) { s.wait->SignalStop(); };
    second.Start(50, 50);
    self.wait->SignalStop();
  };
  first.Start(100, 100);
  clock.Advance(149);
  EXPECT_EQ(second.fired.load(), 0);
  clock.Advance(1);
  EXPECT_EQ(second.fired.load(), 1);
  while (!first.done || !second.done) std::this_thread::yield();
}

TEST(VirtualClockTest, SleepOnlyCounts) {
  VirtualClock clock(5000);
  clock.Sleep(50);
  clock.Sleep(50);
  EXPECT_EQ(clock.SleptMs(), 100);
  EXPECT_EQ(clock.NowMs(), 5000);
}

TEST(VirtualClockTest, QuiescersRunBeforeEachStep) {
  VirtualClock clock;
  int calls = 0;
  clock.AddQuiescer([&] { ++calls; });
  clock.Advance(10);
  EXPECT_GE(calls, 1);
}

TEST(VirtualClockTest, LocalTimeUsesTheConfiguredOffset) {
  VirtualClock clock;
  clock.SetLocalOffsetSeconds(8 * 3600);
  std::tm tm{};
  ASSERT_TRUE(clock.ToLocal(3600, &tm));
  EXPECT_EQ(tm.tm_hour, 9);
  EXPECT_EQ(clock.FromLocal(&tm), 3600);
  ASSERT_TRUE(clock.ToUtc(3600, &tm));
  EXPECT_EQ(tm.tm_hour, 1);
}

}  // namespace
}  // namespace tsm
