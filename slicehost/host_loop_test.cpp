#include "slicehost/host_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/virtual_clock.h"
#include "tracking/timer.h"

namespace tsm::sim {
namespace {

// A manager stand-in that records the calls it gets and the thread they come on.
class RecordingManager final : public INordaManager {
 public:
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HResult SetStage(int32_t kind, int32_t stage) override {
    calls.push_back("SetStage " + std::to_string(kind) + " " + std::to_string(stage));
    threads.push_back(std::this_thread::get_id());
    return kS_OK;
  }
  HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                   Variant* data) override {
    calls.push_back("SetTopic " + Narrow(topic) + " " + std::to_string(param1) + " " + std::to_string(param2) +
                    " " + Narrow(text) + " " + std::to_string(data != nullptr ? data->i4() : -1));
    threads.push_back(std::this_thread::get_id());
    return kS_OK;
  }
  HResult Advise(INordaManagerEvents*, uint32_t*) override { return kS_OK; }
  HResult Unadvise(uint32_t) override { return kS_OK; }

  static std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

  std::vector<std::string> calls;
  std::vector<std::thread::id> threads;
};

uint32_t RefCount(IBaseData* object) {
  object->AddRef();
  return object->Release();
}

class HostLoopTest : public ::testing::Test {
 public:
  void Mark(const std::string& what) {
    std::lock_guard<std::mutex> guard(lock_);
    order_.push_back(what + "@" + std::to_string(clock_.NowMs() - 1000000));
  }
  std::vector<std::string> Order() {
    std::lock_guard<std::mutex> guard(lock_);
    return order_;
  }

 protected:
  HostLoopTest() : clock_(1000000), loop_(clock_) {}

  VirtualClock clock_;
  HostLoop loop_;
  std::mutex lock_;  // guards order_
  std::vector<std::string> order_;
};

TEST_F(HostLoopTest, ActionsRunInTimeOrderWithTiesInPostingOrder) {
  loop_.Post(30, [this] { Mark("c"); });
  loop_.Post(10, [this] { Mark("a"); });
  loop_.Post(30, [this] { Mark("d"); });
  loop_.Post(10, [this] { Mark("b"); });
  clock_.Advance(29);
  EXPECT_EQ(Order(), (std::vector<std::string>{"a@10", "b@10"}));
  clock_.Advance(1);
  EXPECT_EQ(Order(), (std::vector<std::string>{"a@10", "b@10", "c@30", "d@30"}));
  EXPECT_EQ(loop_.ActionsRun(), 4u);
  EXPECT_EQ(loop_.Pending(), 0u);
}

TEST_F(HostLoopTest, ActionPostedNowRunsAtTheNextAdvanceNotInsidePost) {
  loop_.RunNow([this] { Mark("now"); });
  EXPECT_TRUE(Order().empty());
  EXPECT_EQ(loop_.NextDueMs(), clock_.NowMs());
  clock_.Advance(0);
  EXPECT_EQ(Order(), (std::vector<std::string>{"now@0"}));
}

TEST_F(HostLoopTest, NegativeDelayCountsAsNow) {
  loop_.Post(-50, [this] { Mark("late"); });
  clock_.Advance(0);
  EXPECT_EQ(Order(), (std::vector<std::string>{"late@0"}));
}

TEST_F(HostLoopTest, ActionsRunOnTheLoopsOwnThread) {
  std::atomic<bool> on_loop{false};
  std::thread::id id;
  loop_.RunNow([&] {
    on_loop = loop_.IsLoopThread();
    id = std::this_thread::get_id();
  });
  clock_.Advance(0);
  EXPECT_TRUE(on_loop);
  EXPECT_NE(id, std::this_thread::get_id());
  EXPECT_FALSE(loop_.IsLoopThread());
}

TEST_F(HostLoopTest, ActionsInterleaveWithOtherTimersOfTheClockInTimeOrder) {
  struct Context {
    HostLoopTest* test;
    CTimer* timer;
  };
  CTimer timer(&clock_);
  Context context{this, &timer};
  loop_.Post(30, [this] { Mark("loop"); });
  loop_.Post(70, [this] { Mark("loop"); });
  timer.StartTimer(
      7, 50,
      [](unsigned id, void* c) {
        auto* ctx = static_cast<Context*>(c);
        ctx->timer->StopTimer(id);
        ctx->test->Mark("timer");
      },
      &context);
  clock_.Advance(100);
  EXPECT_EQ(Order(), (std::vector<std::string>{"loop@30", "timer@50", "loop@70"}));
}

TEST_F(HostLoopTest, ActionPostedByAnActionRunsAfterIt) {
  loop_.Post(10, [this] {
    Mark("first");
    loop_.Post(0, [this] { Mark("second"); });
    loop_.Post(5, [this] { Mark("third"); });
  });
  clock_.Advance(10);
  EXPECT_EQ(Order(), (std::vector<std::string>{"first@10", "second@10"}));
  clock_.Advance(5);
  EXPECT_EQ(Order(), (std::vector<std::string>{"first@10", "second@10", "third@15"}));
}

// Actions due at once and actions due later wait apart; a tie between the two
// still goes to the one posted first.
TEST_F(HostLoopTest, ActionsDueAtOnceAndLaterKeepTimeThenPostingOrder) {
  loop_.Post(10, [this] {
    Mark("a");
    loop_.Post(0, [this] { Mark("b"); });
  });
  loop_.Post(0, [this] { Mark("now"); });
  loop_.Post(10, [this] { Mark("c"); });
  loop_.Post(5, [this] { Mark("d"); });
  clock_.Advance(10);
  EXPECT_EQ(Order(), (std::vector<std::string>{"now@0", "d@5", "a@10", "c@10", "b@10"}));
  EXPECT_EQ(loop_.Pending(), 0u);
  EXPECT_EQ(loop_.NextDueMs(), -1);
}

TEST_F(HostLoopTest, EarlierPostFromAnotherThreadMovesTheWakeUpForward) {
  loop_.Post(500, [this] { Mark("late"); });
  std::thread poster([this] { loop_.Post(20, [this] { Mark("early"); }); });
  poster.join();
  clock_.Advance(500);
  EXPECT_EQ(Order(), (std::vector<std::string>{"early@20", "late@500"}));
}

TEST_F(HostLoopTest, HostCallsArePostedToTheManager) {
  RecordingManager manager;
  loop_.PostSetStage(&manager, 1, 2);
  loop_.PostSetTopic(&manager, L"ORDERSET.LOCK", 0, 0, L"", Variant());
  loop_.PostSetTopic(&manager, L"TRADE.SLICE.MANAGER", 0, 1, L"3", Variant::I4(77), 10);
  loop_.PostSetTopic(&manager, L"ORDERSET.UNLOCK", 0, 0, L"", Variant(), 10);
  clock_.Advance(10);
  EXPECT_EQ(manager.calls, (std::vector<std::string>{"SetStage 1 2", "SetTopic ORDERSET.LOCK 0 0  0",
                                                     "SetTopic TRADE.SLICE.MANAGER 0 1 3 77",
                                                     "SetTopic ORDERSET.UNLOCK 0 0  0"}));
  // All on one thread, as the order-set lock needs.
  ASSERT_EQ(manager.threads.size(), 4u);
  for (const auto& id : manager.threads) EXPECT_EQ(id, manager.threads.front());
}

TEST_F(HostLoopTest, PostedWriteLandsInTheRecordAtItsTime) {
  IBaseData* record = SimHost::NewRecord(L"order");
  loop_.PostWrite(record, {{L"ExecType", Variant::I4(3)}}, 40);
  clock_.Advance(39);
  EXPECT_TRUE(SimHost::Read(record, L"ExecType").IsEmpty());
  clock_.Advance(1);
  EXPECT_EQ(SimHost::Read(record, L"ExecType"), Variant::I4(3));
  record->Release();
}

TEST_F(HostLoopTest, StopDropsWaitingActionsAndReleasesWhatTheyHold) {
  IBaseData* record = SimHost::NewRecord(L"order");
  const uint32_t refs = RefCount(record);
  loop_.PostWrite(record, {{L"ExecType", Variant::I4(3)}}, 40);
  loop_.Post(10, [this] { Mark("never"); });
  EXPECT_EQ(RefCount(record), refs + 1);
  loop_.Stop();
  EXPECT_EQ(loop_.ActionsDropped(), 2u);
  EXPECT_EQ(RefCount(record), refs);
  EXPECT_EQ(loop_.Post(0, [this] { Mark("after"); }), 0u);
  clock_.Advance(100);
  EXPECT_TRUE(Order().empty());
  record->Release();
}

TEST_F(HostLoopTest, PostAndWaitFromTheLoopRunsInPlace) {
  bool ran = false;
  loop_.RunNow([&] { EXPECT_TRUE(loop_.PostAndWait([&] { ran = true; })); });
  clock_.Advance(0);
  EXPECT_TRUE(ran);
}

TEST(HostLoopRealTime, ActionsRunOnTheWallClockAndPostAndWaitReturnsAfterTheAction) {
  HostLoop loop(RealClock());
  std::atomic<int> ran{0};
  const auto start = std::chrono::steady_clock::now();
  loop.Post(30, [&] { ran += 10; });
  EXPECT_TRUE(loop.PostAndWait([&] { ran += 1; }));
  EXPECT_EQ(ran.load() % 10, 1);
  EXPECT_TRUE(loop.PostAndWait([] {}));
  while (ran.load() < 11 && std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(ran.load(), 11);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

}  // namespace
}  // namespace tsm::sim
