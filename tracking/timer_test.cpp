#include "tracking/timer.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cwchar>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/system_text.h"
#include "platform/thread.h"
#include "platform/virtual_clock.h"

namespace tsm {
namespace {

// Records every expiry: which id, at which clock time.
struct Recorder {
  explicit Recorder(IClock& clock) : clock(clock) {}

  IClock& clock;
  CTimer* timer = nullptr;
  std::mutex lock;  // guards fired
  std::vector<std::pair<unsigned, int64_t>> fired;

  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<Recorder*>(context);
    std::lock_guard<std::mutex> guard(self->lock);
    self->fired.emplace_back(id, self->clock.NowMs());
  }
  // As the slice manager does: stop at once, then work.
  static void OnOneShot(unsigned id, void* context) {
    auto* self = static_cast<Recorder*>(context);
    self->timer->StopTimer(id);
    OnTick(id, context);
  }

  std::vector<int64_t> Times() {
    std::lock_guard<std::mutex> guard(lock);
    std::vector<int64_t> times;
    for (const auto& f : fired) times.push_back(f.second);
    return times;
  }
  int Count() {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<int>(fired.size());
  }
};

// Collects the failure messages instead of showing them.
class MessageCapture {
 public:
  MessageCapture() {
    SetFailureMessageSinkForTesting([this](const std::wstring& text) {
      std::lock_guard<std::mutex> guard(lock_);
      messages_.push_back(text);
    });
  }
  ~MessageCapture() { SetFailureMessageSinkForTesting(nullptr); }
  MessageCapture(const MessageCapture&) = delete;
  MessageCapture& operator=(const MessageCapture&) = delete;

  std::vector<std::wstring> Messages() {
    std::lock_guard<std::mutex> guard(lock_);
    return messages_;
  }

 private:
  std::mutex lock_;  // guards messages_
  std::vector<std::wstring> messages_;
};

// Makes thread creation fail for the life of the object.
class ThreadStartFailure {
 public:
  explicit ThreadStartFailure(uint32_t code) { SetThreadStartFailureForTesting(code); }
  ~ThreadStartFailure() { SetThreadStartFailureForTesting(0); }
  ThreadStartFailure(const ThreadStartFailure&) = delete;
  ThreadStartFailure& operator=(const ThreadStartFailure&) = delete;
};

// A virtual clock that lets thread creation succeed again after a number of
// retry sleeps.
class RecoveringClock final : public IClock {
 public:
  RecoveringClock(VirtualClock& inner, int failing_sleeps) : inner_(inner), failing_sleeps_(failing_sleeps) {}

  int64_t NowMs() override { return inner_.NowMs(); }
  int64_t UtcSeconds() override { return inner_.UtcSeconds(); }
  void Sleep(int64_t ms) override {
    inner_.Sleep(ms);
    if (--failing_sleeps_ == 0) SetThreadStartFailureForTesting(0);
  }
  std::unique_ptr<ITimerWait> CreateTimerWait(const std::wstring& name) override {
    return inner_.CreateTimerWait(name);
  }
  bool ToUtc(int64_t seconds, std::tm* out) override { return inner_.ToUtc(seconds, out); }
  bool ToLocal(int64_t seconds, std::tm* out) override { return inner_.ToLocal(seconds, out); }
  int64_t FromLocal(std::tm* in) override { return inner_.FromLocal(in); }

 private:
  VirtualClock& inner_;
  std::atomic<int> failing_sleeps_;
};

// Spins (without a time bound that could make the test flaky) until `done`.
template <typename Predicate>
void WaitUntil(Predicate done) {
  while (!done()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(TimerTest, KeyIsLowerCaseHexOfTheInstanceAndTheSignedId) {
  VirtualClock clock;
  CTimer timer(&clock);
  const auto instance = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&timer));
  wchar_t expected[32];
  std::swprintf(expected, 32, L"%x.103", instance);
  EXPECT_EQ(timer.KeyFor(103).wstr(), std::wstring(expected));
  const std::wstring key = timer.KeyFor(3001).wstr();
  const std::size_t dot = key.find(L'.');
  ASSERT_NE(dot, std::wstring::npos);
  EXPECT_LE(dot, 8u);
  EXPECT_EQ(key.find_first_not_of(L"0123456789abcdef"), dot);
  EXPECT_EQ(key.substr(dot), L".3001");
  const std::wstring all_ones = timer.KeyFor(0xFFFFFFFFu).wstr();
  EXPECT_EQ(all_ones.substr(all_ones.find(L'.')), L".-1");

  CTimer other(&clock);
  EXPECT_FALSE(timer.KeyFor(101) == other.KeyFor(101));
}

TEST(TimerTest, ArmingAnArmedIdReturnsZeroAndKeepsItsInterval) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  EXPECT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  EXPECT_EQ(timer.StartTimer(101, 30, &Recorder::OnTick, &rec), 0);
  EXPECT_EQ(timer.ActiveCount(), 1);

  clock.Advance(99);
  EXPECT_EQ(rec.Count(), 0);
  clock.Advance(101);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100, 200}));
  timer.StopTimer(101);
}

TEST(TimerTest, ArmingAnArmedIdKeepsItsCallbackAndContext) {
  VirtualClock clock;
  Recorder first(clock);
  Recorder second(clock);
  CTimer timer(&clock);
  first.timer = &timer;
  second.timer = &timer;
  ASSERT_EQ(timer.StartTimer(3001, 100, &Recorder::OnTick, &first), 1);
  EXPECT_EQ(timer.StartTimer(3001, 100, &Recorder::OnOneShot, &second), 0);

  clock.Advance(300);
  EXPECT_EQ(first.Times(), (std::vector<int64_t>{100, 200, 300}));
  EXPECT_EQ(second.Count(), 0);
  EXPECT_EQ(timer.ActiveCount(), 1);
  timer.StopTimer(3001);
}

TEST(TimerTest, TimerOf100MsFiresAt100AndEvery100UntilStopped) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(7, 100, &Recorder::OnTick, &rec), 1);

  clock.Advance(99);
  EXPECT_EQ(rec.Count(), 0);
  clock.Advance(1);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100}));
  clock.Advance(350);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100, 200, 300, 400}));
  {
    std::lock_guard<std::mutex> guard(rec.lock);
    for (const auto& f : rec.fired) EXPECT_EQ(f.first, 7u);
  }

  timer.StopTimer(7);
  clock.Advance(1000);
  EXPECT_EQ(rec.Count(), 4);
  EXPECT_EQ(timer.ActiveCount(), 0);
}

TEST(TimerTest, OneShotOwnerCallbackRunsOnce) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(101, 100, &Recorder::OnOneShot, &rec), 1);

  clock.Advance(1000);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100}));
  EXPECT_EQ(timer.ActiveCount(), 0);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
}

// Fills `depth` frames of 2 KiB each with a pattern and adds them up on the
// way back: what the stack holds below the frame the timer thread gave back
// must be usable memory, and hold what was written.
int64_t DeepStackSum(int depth) {
  volatile unsigned char frame[2048];
  for (std::size_t i = 0; i < sizeof frame; ++i) frame[i] = static_cast<unsigned char>(i + depth);
  int64_t sum = depth > 1 ? DeepStackSum(depth - 1) : 0;
  for (std::size_t i = 0; i < sizeof frame; ++i) sum += frame[i];
  return sum;
}

int64_t ExpectedDeepStackSum(int depth) {
  int64_t sum = 0;
  for (int level = 1; level <= depth; ++level) {
    for (std::size_t i = 0; i < 2048; ++i) sum += static_cast<unsigned char>(i + level);
  }
  return sum;
}

// A timer thread gives back the stack its start left below its frame before
// it first waits; callbacks that go deep (the slice manager's go into the
// host) still have all of it, on every expiry.
TEST(TimerTest, CallbacksUsingDeepStackRunOnEveryExpiryAfterTheThreadGaveItsStackBack) {
  constexpr int kDepth = 24;  // 48 KiB, well inside the timer thread's stack
  struct DeepWork {
    std::mutex lock;  // guards sums
    std::vector<int64_t> sums;
    static void OnTick(unsigned /*id*/, void* context) {
      auto* self = static_cast<DeepWork*>(context);
      const int64_t sum = DeepStackSum(kDepth);
      std::lock_guard<std::mutex> guard(self->lock);
      self->sums.push_back(sum);
    }
  };
  VirtualClock clock;
  DeepWork work;
  CTimer timer(&clock);
  ASSERT_EQ(timer.StartTimer(3001, 100, &DeepWork::OnTick, &work), 1);

  clock.Advance(300);
  timer.StopTimer(3001);
  std::lock_guard<std::mutex> guard(work.lock);
  EXPECT_EQ(work.sums, std::vector<int64_t>(3, ExpectedDeepStackSum(kDepth)));
}

// A negative interval (a timed parent without "Interval" gives -2147483648)
// is refused as the kernel's waitable timer refuses a negative period: the
// timer is armed in the service's maps but never expires.
TEST(TimerTest, NegativeIntervalTimerNeverFires) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(3001, INT32_MIN, &Recorder::OnOneShot, &rec), 1);
  ASSERT_EQ(timer.StartTimer(3002, -1, &Recorder::OnOneShot, &rec), 1);
  clock.Advance(100000);
  EXPECT_EQ(rec.Count(), 0);
  EXPECT_EQ(timer.ActiveCount(), 2);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
  timer.StopTimer(3001);
  timer.StopTimer(3002);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(rec.Count(), 0);
}

// Stops itself and arms the same id again with 250 ms, once.
struct Rearmer {
  explicit Rearmer(IClock& clock) : rec(clock) {}
  Recorder rec;
  std::atomic<int> rearms{0};
  std::atomic<int> rearm_result{-1};

  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<Rearmer*>(context);
    self->rec.timer->StopTimer(id);
    Recorder::OnTick(id, &self->rec);
    if (self->rearms++ == 0) self->rearm_result = self->rec.timer->StartTimer(id, 250, &Rearmer::OnTick, self);
  }
};

TEST(TimerTest, RearmingFromItsOwnCallbackFiresOnceMoreAfterItsInterval) {
  VirtualClock clock;
  Rearmer rearmer(clock);
  CTimer timer(&clock);
  rearmer.rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(102, 100, &Rearmer::OnTick, &rearmer), 1);

  clock.Advance(100);
  EXPECT_EQ(rearmer.rearm_result.load(), 1);
  EXPECT_EQ(timer.ActiveCount(), 1);
  clock.Advance(1000);
  EXPECT_EQ(rearmer.rec.Times(), (std::vector<int64_t>{100, 350}));
  EXPECT_EQ(timer.ActiveCount(), 0);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
}

TEST(TimerTest, DestroyingTheServiceWithArmedTimersEndsThemWithoutCallingBack) {
  VirtualClock clock;
  Recorder rec(clock);
  {
    CTimer timer(&clock);
    rec.timer = &timer;
    for (unsigned id = 101; id <= 105; ++id) ASSERT_EQ(timer.StartTimer(id, 100, &Recorder::OnTick, &rec), 1);
    clock.Advance(100);
    EXPECT_EQ(rec.Count(), 5);
  }
  // Every timer thread has let go of its timer before the destructor returned.
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
  clock.Advance(10'000);
  EXPECT_EQ(rec.Count(), 5);
}

TEST(TimerTest, DestroyingTheServiceBeforeAnyExpiryNeverCallsBack) {
  VirtualClock clock;
  Recorder rec(clock);
  {
    CTimer timer(&clock);
    rec.timer = &timer;
    ASSERT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
    ASSERT_EQ(timer.StartTimer(103, 10'000, &Recorder::OnOneShot, &rec), 1);
    ASSERT_EQ(timer.StartTimer(3001, 1, &Recorder::OnTick, &rec), 1);
    // A stopped timer whose thread may still be finishing goes as well.
    timer.StopTimer(3001);
    clock.WaitForArming();
    EXPECT_EQ(timer.ActiveCount(), 2);
  }
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
  clock.Advance(20'000);
  EXPECT_EQ(rec.Count(), 0);
}

TEST(TimerTest, StartTimerAfterShutdownReturnsOneWithoutArming) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  timer.Shutdown();
  EXPECT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  EXPECT_EQ(timer.ActiveCount(), 0);
  EXPECT_EQ(timer.ThreadCount(), 0);
  clock.Advance(1000);
  EXPECT_EQ(rec.Count(), 0);
  timer.StopTimer(101);
}

TEST(TimerTest, StoppingAnIdThatIsNotArmedDoesNothing) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  timer.StopTimer(55);
  EXPECT_EQ(timer.RetiredCount(), 0);
  ASSERT_EQ(timer.StartTimer(56, 100, &Recorder::OnTick, &rec), 1);
  timer.StopTimer(55);
  EXPECT_EQ(timer.ActiveCount(), 1);
  clock.Advance(100);
  EXPECT_EQ(rec.Count(), 1);
}

TEST(TimerTest, SameIdOnTwoInstancesAreSeparateTimers) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer first(&clock);
  CTimer second(&clock);
  EXPECT_EQ(first.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  EXPECT_EQ(second.StartTimer(101, 150, &Recorder::OnTick, &rec), 1);
  clock.Advance(150);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100, 150}));
  first.StopTimer(101);
  clock.Advance(150);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100, 150, 300}));
}

struct Thrower {
  std::atomic<int> calls{0};
  static void OnTick(unsigned /*id*/, void* context) {
    auto* self = static_cast<Thrower*>(context);
    if (++self->calls % 2 == 1) throw std::runtime_error("owner failed");
    throw 42;
  }
};

TEST(TimerTest, CallbackExceptionIsSwallowedAndTheTimerKeepsFiring) {
  VirtualClock clock;
  Thrower thrower;
  CTimer timer(&clock);
  ASSERT_EQ(timer.StartTimer(9, 50, &Thrower::OnTick, &thrower), 1);
  clock.Advance(200);
  EXPECT_EQ(thrower.calls.load(), 4);
  EXPECT_EQ(timer.ActiveCount(), 1);
}

TEST(TimerTest, ThreadCreationFailingSixTimesReportsTheFailureAndArmsNothing) {
  constexpr uint32_t kCode = 11;
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  MessageCapture capture;
  {
    ThreadStartFailure failure(kCode);
    EXPECT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  }
  EXPECT_EQ(clock.SleptMs(), 50);
  const std::wstring text = SystemErrorText(kCode);
  const std::wstring expected =
      text.empty() ? L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : 11"
                   : L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : 11\r\nDecription : " + text;
  EXPECT_EQ(capture.Messages(), std::vector<std::wstring>{expected});
  EXPECT_EQ(timer.ActiveCount(), 0);
  EXPECT_EQ(timer.RetiredCount(), 0);
  EXPECT_EQ(timer.ThreadCount(), 0);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);

  // Nothing was left armed, so the id arms normally afterwards.
  EXPECT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  clock.Advance(100);
  EXPECT_EQ(rec.Count(), 1);
}

TEST(TimerTest, ThreadFailureMessageHasTheDescriptionOnlyWithSystemText) {
  EXPECT_EQ(CTimer::ThreadFailureMessage(8, L"Not enough memory.").wstr(),
            L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : 8\r\nDecription : Not enough memory.");
  EXPECT_EQ(CTimer::ThreadFailureMessage(8, L"").wstr(), L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : 8");
}

TEST(TimerTest, ThreadCreationFailingThenSucceedingArmsTheTimerSilently) {
  VirtualClock inner;
  RecoveringClock clock(inner, 2);
  Recorder rec(inner);
  CTimer timer(&clock);
  rec.timer = &timer;
  MessageCapture capture;
  SetThreadStartFailureForTesting(11);
  EXPECT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  SetThreadStartFailureForTesting(0);
  EXPECT_EQ(inner.SleptMs(), 20);
  EXPECT_TRUE(capture.Messages().empty());
  EXPECT_EQ(timer.ActiveCount(), 1);
  inner.Advance(100);
  EXPECT_EQ(rec.Times(), (std::vector<int64_t>{100}));
}

TEST(TimerTest, RemoveRetiredForgetsTheRetiredEntry) {
  VirtualClock clock;
  Recorder rec(clock);
  CTimer timer(&clock);
  rec.timer = &timer;
  timer.RemoveRetired(101);
  ASSERT_EQ(timer.StartTimer(101, 100, &Recorder::OnTick, &rec), 1);
  timer.RemoveRetired(101);
  EXPECT_EQ(timer.ActiveCount(), 1);
  timer.StopTimer(101);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
}

// Shuts its own service down from inside the callback.
struct SelfShutdown {
  CTimer* timer = nullptr;
  std::atomic<int> calls{0};
  static void OnTick(unsigned /*id*/, void* context) {
    auto* self = static_cast<SelfShutdown*>(context);
    ++self->calls;
    self->timer->Shutdown();
  }
};

TEST(TimerTest, ShutdownFromInsideACallbackReturnsAndStopsEverything) {
  VirtualClock clock;
  SelfShutdown owner;
  Recorder rec(clock);
  {
    CTimer timer(&clock);
    owner.timer = &timer;
    ASSERT_EQ(timer.StartTimer(1, 100, &SelfShutdown::OnTick, &owner), 1);
    ASSERT_EQ(timer.StartTimer(2, 200, &Recorder::OnTick, &rec), 1);
    clock.Advance(100);
    EXPECT_EQ(owner.calls.load(), 1);
    EXPECT_EQ(timer.ActiveCount(), 0);
    EXPECT_EQ(timer.RetiredCount(), 0);
  }
  clock.Advance(1000);
  EXPECT_EQ(owner.calls.load(), 1);
  EXPECT_EQ(rec.Count(), 0);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
}

// Holds its callback until Shutdown, running on another thread, has stopped
// every timer; then stops its own timer, as the slice manager does.
struct StopDuringShutdown {
  CTimer* timer = nullptr;
  std::atomic<bool> entered{false};
  std::atomic<int> calls{0};
  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<StopDuringShutdown*>(context);
    ++self->calls;
    self->entered = true;
    WaitUntil([self] { return self->timer->ActiveCount() == 0; });
    self->timer->StopTimer(id);
  }
};

TEST(TimerTest, StopTimerInsideACallbackAndShutdownFromAnotherThreadDoNotDeadlock) {
  VirtualClock clock;
  StopDuringShutdown owner;
  Recorder rec(clock);
  CTimer timer(&clock);
  owner.timer = &timer;
  rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(101, 100, &StopDuringShutdown::OnTick, &owner), 1);
  ASSERT_EQ(timer.StartTimer(103, 10'000, &Recorder::OnTick, &rec), 1);

  std::thread advancer([&clock] { clock.Advance(100); });
  WaitUntil([&] { return owner.entered.load(); });
  timer.Shutdown();
  // Shutdown returned, so the callback has returned too.
  EXPECT_EQ(timer.ThreadCount(), 0);
  advancer.join();
  clock.Advance(20'000);
  EXPECT_EQ(owner.calls.load(), 1);
  EXPECT_EQ(rec.Count(), 0);
}

// Arms and stops the same ids from several threads at once.
struct Contender {
  static void OnTick(unsigned /*id*/, void* /*context*/) {}
};

TEST(TimerTest, FourThreadsArmingAndStoppingAThousandIdsLeaveNothingBehind) {
  constexpr unsigned kIds = 1000;
  VirtualClock clock;
  CTimer timer(&clock);
  std::atomic<int> armed{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (unsigned i = 0; i < kIds; ++i) {
        // Each thread walks the ids from another starting point, so that
        // armings, refusals and stops of one id interleave.
        const unsigned id = 3001 + (i + static_cast<unsigned>(t) * kIds / 4) % kIds;
        if (timer.StartTimer(id, 1000, &Contender::OnTick, nullptr) == 1) {
          ++armed;
        } else {
          ++refused;
        }
        timer.StopTimer(id);
      }
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_GE(armed.load(), static_cast<int>(kIds));
  EXPECT_EQ(armed.load() + refused.load(), static_cast<int>(4 * kIds));
  EXPECT_EQ(timer.ActiveCount(), 0);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
}

// Counts its expiries and stops its timer at once, as the slice manager does.
struct OneShotCounter {
  CTimer* timer = nullptr;
  std::atomic<int> calls{0};
  static void OnTick(unsigned id, void* context) {
    auto* self = static_cast<OneShotCounter*>(context);
    self->timer->StopTimer(id);
    ++self->calls;
  }
};

TEST(TimerTest, FourThreadsArmingAndStoppingIdsWhileTheyFireLeaveNothingBehind) {
  constexpr unsigned kIds = 200;
  VirtualClock clock;
  OneShotCounter owner;
  CTimer timer(&clock);
  owner.timer = &timer;
  std::atomic<int> armed{0};
  std::atomic<int> arming_threads_left{4};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (unsigned i = 0; i < kIds; ++i) {
        const unsigned id = 3001 + (i + static_cast<unsigned>(t) * kIds / 4) % kIds;
        if (timer.StartTimer(id, 1 + static_cast<int>(i % 3), &OneShotCounter::OnTick, &owner) == 1) ++armed;
        // Every other arming is left to fire and stop itself.
        if (i % 2 == 0) timer.StopTimer(id);
      }
      --arming_threads_left;
    });
  }
  // Expiries fall due while the ids are armed and stopped.
  std::thread advancer([&] {
    while (arming_threads_left.load() > 0) clock.Advance(1);
  });
  for (auto& thread : threads) thread.join();
  advancer.join();
  // Whatever is still armed fires once and stops itself.
  clock.Advance(10);
  const int calls = owner.calls.load();
  EXPECT_GT(calls, 0);
  EXPECT_LE(calls, armed.load());
  EXPECT_EQ(timer.ActiveCount(), 0);
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
  EXPECT_EQ(clock.ArmedTimerCount(), 0);
  clock.Advance(1000);
  EXPECT_EQ(owner.calls.load(), calls);
}

TEST(TimerTest, RealTimeTwentyMsTimerFires) {
  Recorder rec(RealClock());
  CTimer timer;
  rec.timer = &timer;
  const int64_t armed_at = RealClock().NowMs();
  ASSERT_EQ(timer.StartTimer(101, 20, &Recorder::OnOneShot, &rec), 1);
  const int64_t give_up_at = armed_at + 500;
  while (rec.Count() == 0 && RealClock().NowMs() < give_up_at) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(rec.Count(), 1);
  // Millisecond readings on two threads; the margin absorbs their rounding and
  // the system timer's granularity.
  EXPECT_GE(rec.Times()[0] - armed_at, 15);
  EXPECT_EQ(timer.ActiveCount(), 0);
}

TEST(TimerTest, RealTimeNegativeIntervalTimerNeverFires) {
  Recorder rec(RealClock());
  CTimer timer;
  rec.timer = &timer;
  ASSERT_EQ(timer.StartTimer(3001, INT32_MIN, &Recorder::OnOneShot, &rec), 1);
  // A timer of 20 ms armed after it fires first and alone.
  ASSERT_EQ(timer.StartTimer(101, 20, &Recorder::OnOneShot, &rec), 1);
  const int64_t give_up_at = RealClock().NowMs() + 500;
  while (rec.Count() == 0 && RealClock().NowMs() < give_up_at) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::lock_guard<std::mutex> guard(rec.lock);
  ASSERT_EQ(rec.fired.size(), 1u);
  EXPECT_EQ(rec.fired[0].first, 101u);
}

// Blocks in its callback until released: lets a test hold an old timer
// thread while the id is armed and stopped again.
struct Gate {
  std::atomic<int> entered{0};
  std::atomic<bool> open{false};
  static void OnTick(unsigned /*id*/, void* context) {
    auto* self = static_cast<Gate*>(context);
    ++self->entered;
    WaitUntil([self] { return self->open.load(); });
  }
};

TEST(TimerTest, RealTimeOldThreadFinishingKeepsTheNewerRetiredEntryOfItsId) {
  CTimer timer;
  Gate first;
  Gate second;
  ASSERT_EQ(timer.StartTimer(7, 1, &Gate::OnTick, &first), 1);
  WaitUntil([&] { return first.entered.load() == 1; });
  timer.StopTimer(7);
  ASSERT_EQ(timer.StartTimer(7, 1, &Gate::OnTick, &second), 1);
  WaitUntil([&] { return second.entered.load() == 1; });
  timer.StopTimer(7);
  EXPECT_EQ(timer.RetiredCount(), 1);
  EXPECT_EQ(timer.ThreadCount(), 2);

  first.open = true;
  WaitUntil([&] { return timer.ThreadCount() == 1; });
  EXPECT_EQ(timer.RetiredCount(), 1);

  second.open = true;
  WaitUntil([&] { return timer.ThreadCount() == 0; });
  EXPECT_EQ(timer.RetiredCount(), 0);
  EXPECT_EQ(first.entered.load(), 1);
  EXPECT_EQ(second.entered.load(), 1);
}

}  // namespace
}  // namespace tsm
