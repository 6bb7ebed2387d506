#include "manager/trade_slice_manager.h"

#include <atomic>
#include <functional>
#include <thread>

#include "testing/manager_fixture.h"
#include "testing/mutex_waiters.h"

namespace tsm {
namespace {

using TradeSliceManagerTest = ManagerTest;

std::vector<std::string> Kinds(const std::vector<sim::HostEvent>& events) {
  std::vector<std::string> kinds;
  for (const auto& e : events) kinds.push_back(e.ev + ":" + Utf8FromWide(e.topic));
  return kinds;
}

TEST_F(TradeSliceManagerTest, Stage1RegistersTheSixTopicsInOrderAndSizesTheTables) {
  EXPECT_EQ(manager_->SetStage(1, 1), kS_OK);
  EXPECT_EQ(Kinds(host_.Events()),
            (std::vector<std::string>{"RegisterTopic:TRADE.HOT.MONTH", "RegisterTopic:TRADE.SLICE.MANAGER",
                                      "RegisterTopic:TRADE.SLICE.MANAGER.CANCEL", "RegisterTopic:TRADE.SLICE.ORDER",
                                      "RegisterTopic:ORDERSET.LOCK", "RegisterTopic:ORDERSET.UNLOCK"}));
  EXPECT_EQ(peer_.SliceIdToLevelKey().GetHashTableSize(), 1009u);
  EXPECT_EQ(peer_.OrderData().GetHashTableSize(), 1009u);
  EXPECT_EQ(peer_.ListenedSlice().GetHashTableSize(), 1009u);
  EXPECT_EQ(peer_.ListenedOrders().GetHashTableSize(), 1009u);
  EXPECT_EQ(peer_.OrderIndex().GetHashTableSize(), 1009u);
  EXPECT_EQ(peer_.GroupCount().GetHashTableSize(), 1009u);
}

TEST_F(TradeSliceManagerTest, Stage2FetchesTheThreeRecordsInOrder) {
  host_.Write(host_.Topic(L"Security.Info"), {{L"VAULT", Variant::I4(1)}});
  host_.Write(host_.Topic(L"PERMISSIONS.General"), {{L"LoginType", Variant::Text(L"7")}});
  host_.Topic(L"NordaSystemTime");
  manager_->SetStage(1, 2);
  EXPECT_EQ(Kinds(host_.Events()),
            (std::vector<std::string>{"GetTopicData:NordaSystemTime", "GetTopicData:Security.Info",
                                      "GetTopicData:PERMISSIONS.General"}));
  EXPECT_EQ(peer_.VaultMode(), 1);
  EXPECT_EQ(peer_.LoginType(), 7);
  EXPECT_NE(peer_.SystemTime(), nullptr);
  EXPECT_NE(peer_.SecurityInfo(), nullptr);
}

TEST_F(TradeSliceManagerTest, Stage2WithoutHostRecordsLeavesVaultAndLoginAtZero) {
  manager_->SetStage(1, 2);
  EXPECT_EQ(peer_.VaultMode(), 0);
  EXPECT_EQ(peer_.LoginType(), 0);
  EXPECT_EQ(peer_.SystemTime(), nullptr);
}

TEST_F(TradeSliceManagerTest, Stage4StopsTheWorkerAndFreesTheKeptRecords) {
  host_.Topic(L"NordaSystemTime");
  host_.Topic(L"Security.Info");
  Start();
  host_.ClearEvents();
  EXPECT_EQ(manager_->SetStage(1, 4), kS_OK);
  EXPECT_EQ(peer_.Running(), 0);
  EXPECT_EQ(peer_.SystemTime(), nullptr);
  EXPECT_EQ(peer_.SecurityInfo(), nullptr);
  EXPECT_TRUE(host_.Events().empty());
}

void IgnoreTick(unsigned, void*) {}

TEST_F(TradeSliceManagerTest, Stage4KillsTimers101To104) {
  Start();
  for (unsigned id : {101u, 102u, 103u, 104u}) ASSERT_EQ(peer_.Timer().StartTimer(id, 1 << 30, &IgnoreTick, nullptr), 1);
  manager_->SetStage(1, 4);
  for (unsigned id : {101u, 102u, 103u, 104u}) EXPECT_FALSE(peer_.TimerArmed(id)) << id;
}

TEST_F(TradeSliceManagerTest, StagesOneTwoAndFourRaiseExactlyTheListedEvents) {
  host_.Topic(L"NordaSystemTime");
  host_.Topic(L"Security.Info");
  host_.Topic(L"PERMISSIONS.General");
  manager_->SetStage(1, 1);
  manager_->SetStage(1, 2);
  manager_->SetStage(1, 4);
  EXPECT_EQ(Kinds(host_.Events()),
            (std::vector<std::string>{"RegisterTopic:TRADE.HOT.MONTH", "RegisterTopic:TRADE.SLICE.MANAGER",
                                      "RegisterTopic:TRADE.SLICE.MANAGER.CANCEL", "RegisterTopic:TRADE.SLICE.ORDER",
                                      "RegisterTopic:ORDERSET.LOCK", "RegisterTopic:ORDERSET.UNLOCK",
                                      "GetTopicData:NordaSystemTime", "GetTopicData:Security.Info",
                                      "GetTopicData:PERMISSIONS.General"}));
}

TEST_F(TradeSliceManagerTest, StageWithKindOtherThanOneDoesNothing) {
  EXPECT_EQ(manager_->SetStage(2, 1), kS_OK);
  EXPECT_EQ(manager_->SetStage(0, 2), kS_OK);
  EXPECT_EQ(manager_->SetStage(-1, 4), kS_OK);
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_NE(peer_.SliceIdToLevelKey().GetHashTableSize(), 1009u) << "stage 1 work was not done";
  EXPECT_TRUE(peer_.Worker().expired()) << "stage 2 work was not done";
  EXPECT_EQ(peer_.Running(), 1) << "stage 4 work was not done";
}

TEST_F(TradeSliceManagerTest, UnknownStageDoesNothing) {
  EXPECT_EQ(manager_->SetStage(1, 3), kS_OK);
  EXPECT_TRUE(host_.Events().empty());
}

TEST_F(TradeSliceManagerTest, EverySetTopicLogsTopicAndText) {
  Topic(L"SOMETHING.ELSE", 0, 0, L"abc", Variant());
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:SOMETHING.ELSE, abc")}));
}

TEST_F(TradeSliceManagerTest, LowerCaseTopicIsOnlyLogged) {
  Start();
  const uint32_t cookie = Publish(L"o", {{L"SlicedType", Variant::I4(5)}, {L"LevelKey", Variant::Text(L"K")}});
  host_.ClearEvents();
  Topic(L"trade.slice.order", 0, 0, L"", Variant::I4(static_cast<int32_t>(cookie)));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:trade.slice.order, ")}));
  EXPECT_EQ(host_.Events().size(), 1u) << "nothing but the log line";
  EXPECT_EQ(peer_.SliceAllSet().GetCount(), 0);
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
}

TEST_F(TradeSliceManagerTest, CancelWithParam2ThreeIsOnlyLogged) {
  Start();
  const uint32_t cookie = Publish(L"o", {{L"LevelKey", Variant::Text(L"K")}});
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 0, 3, L"K", Variant::I4(static_cast<int32_t>(cookie)));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER.CANCEL, K")}));
  EXPECT_TRUE(host_.Sent(L"TRADE.PRICE.TRIGGER.CANCEL").empty());
}

TEST_F(TradeSliceManagerTest, CancelAllLogsCancelAllFirst) {
  Start();
  const uint32_t cookie = Publish(L"o", {{L"LevelKey", Variant::Text(L"K")}});
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 0, 2, L"K", Variant::I4(static_cast<int32_t>(cookie)));
  const auto logs = Logs();
  ASSERT_GE(logs.size(), 2u);
  EXPECT_EQ(logs[1], Log(L"SetTopic:Cancel ALL"));
}

TEST_F(TradeSliceManagerTest, SliceOrderWithTextDataDoesNothing) {
  Start();
  // A slice-all order that the same topic with a VT_I4 cookie would release.
  const uint32_t cookie = Publish(L"o", {{L"SlicedType", Variant::I4(5)}, {L"LevelKey", Variant::Text(L"K")},
                                         {L"SliceID", Variant::Text(L"S")}, {L"LeavesQty", Variant::I4(100)}});
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.ORDER", 0, 0, L"", Variant::Text(std::to_wstring(cookie)));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.ORDER, ")}));
  EXPECT_EQ(host_.Events().size(), 1u) << "nothing but the log line";
  EXPECT_EQ(peer_.SliceAllSet().GetCount(), 0);
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
}

TEST_F(TradeSliceManagerTest, RecordTopicWithUnresolvableCookieOnlyLogs) {
  Start();
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER", 0, 0, L"3", Variant::I4(987654));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER, 3")}));
}

TEST_F(TradeSliceManagerTest, OrderSetLockHoldsTheOrderMutexAcrossCalls) {
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 1);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
}

TEST_F(TradeSliceManagerTest, OrderSetLockEmptiesTheOrderIndexMap) {
  peer_.OrderIndex().SetAt(L"A", 4);
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderIndex().GetCount(), 0);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
}

TEST_F(TradeSliceManagerTest, OrderSetUnlockWithoutLockStillReleasesOnce) {
  peer_.OrderMutex().Lock();  // held by this thread already
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());  // nothing held: nothing happens
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
}

TEST_F(TradeSliceManagerTest, OrderSetUnlockWithoutLockReleasesExactlyOneLevel) {
  peer_.OrderMutex().Lock();
  peer_.OrderMutex().Lock();
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 1);
  peer_.OrderMutex().Unlock();
}

TEST_F(TradeSliceManagerTest, TwoLocksAndOneUnlockLeaveTheMutexHeld) {
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 1);
  bool other_got_it = false;
  std::thread other([&] {
    // Another thread cannot take it; an unlock from there does nothing.
    other_got_it = peer_.OrderMutex().Unlock();
  });
  other.join();
  EXPECT_FALSE(other_got_it);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
}

TEST_F(TradeSliceManagerTest, OrderSetWithEmptySecondLevelKeyMapsFirstAndThird) {
  IBaseData* set = host_.Topic(L"TRADE.ORDERSET");
  IBaseData* a = Record(L"a", {{L"LevelKey", Variant::Text(L"A")}});
  IBaseData* b = Record(L"b", {{L"LevelKey", Variant::Text(L"")}});
  IBaseData* c = Record(L"c", {{L"LevelKey", Variant::Text(L"C")}});
  TsmAppendChild(set, a);
  TsmAppendChild(set, b);
  TsmAppendChild(set, c);
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderIndex().GetCount(), 2);
  int32_t index = -1;
  EXPECT_TRUE(peer_.OrderIndex().Lookup(L"A", index));
  EXPECT_EQ(index, 0);
  EXPECT_TRUE(peer_.OrderIndex().Lookup(L"C", index));
  EXPECT_EQ(index, 2);
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
}

TEST_F(TradeSliceManagerTest, OrderSetLockKeepsOtherThreadsOutUntilUnlock) {
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  int other_levels = -1;
  bool other_released = true;
  std::thread([&] {
    // The host's thread owns the mutex: this thread holds nothing and cannot release it.
    other_levels = peer_.OrderMutex().LevelsHeldByCaller();
    other_released = peer_.OrderMutex().Unlock();
  }).join();
  EXPECT_EQ(other_levels, 0);
  EXPECT_FALSE(other_released);
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 1);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  int levels_after = -1;
  std::thread([&] {
    ScopedLock<CMutex> guard(peer_.OrderMutex());  // free again: taken without waiting on the host
    levels_after = peer_.OrderMutex().LevelsHeldByCaller();
  }).join();
  EXPECT_EQ(levels_after, 1);
}

// The host's last Release of an object whose timer work is under way. The
// test makes and releases its own object.
class ReleaseTest : public ::testing::Test {
 protected:
  ReleaseTest() : clock_(Clock()), host_(clock_) {}
  ~ReleaseTest() override { TsmWaitEventsDelivered(); }

  // One clock for these tests, kept for the process: a timer thread whose
  // callback deleted the object finishes with its clock after the test.
  static VirtualClock& Clock() {
    static VirtualClock* clock = [] {
      auto* made = new VirtualClock(kDefaultStartUtcMs);
      made->AddQuiescer([] { TsmWaitEventsDelivered(); });
      return made;
    }();
    return *clock;
  }

  // Started, with parents "P1".."Pn" waiting for timer 102 to end them.
  CTradeSliceManager* Make(int parents) {
    auto* manager = new CTradeSliceManager(&clock_);
    manager->AddRef();
    manager->Advise(&host_, &cookie_);
    manager->SetStage(1, 1);
    manager->SetStage(1, 2);
    CTradeSliceManagerPeer peer(manager);
    for (int i = 1; i <= parents; ++i) {
      const std::wstring key = L"P" + std::to_wstring(i);
      IBaseData* record = sim::SimHost::NewRecord(L"order", {{L"LevelKey", Variant::Text(key)},
                                                             {L"SliceID", Variant::Text(L"S" + key)},
                                                             {L"SlicedType", Variant::I4(1)}});
      peer.OrderData().SetAt(key, CBaseData::FromCookie(host_.Publish(record), nullptr, &clock_));
      record->Release();
      peer.OrderIndex().SetAt(key, i);
      peer.FinishList().push_back(key);
    }
    peer.Timer().StartTimer(CTradeSliceManager::kTimerFinish, 10, &CTradeSliceManager::OnTimerTick, manager);
    worker_ = peer.Worker();
    return manager;
  }

  // The object is gone once the block its worker shares with it is.
  bool Destroyed() {
    for (long i = 0; i < 50000000 && !worker_.expired(); ++i) std::this_thread::yield();
    return worker_.expired();
  }

  VirtualClock& clock_;
  sim::SimHost host_;
  uint32_t cookie_ = 0;
  std::weak_ptr<void> worker_;
};

TEST_F(ReleaseTest, ReleaseBetweenOrderSetLockAndUnlockWhileATimerWaitsForTheOrderMutexReturns) {
  CTradeSliceManager* manager = Make(1);
  CTradeSliceManagerPeer peer(manager);
  Variant none;
  manager->SetTopic(L"ORDERSET.LOCK", 0, 0, L"", &none);
  std::thread advancing([this] { clock_.Advance(10); });
  ASSERT_TRUE(WaitForWaiter(peer.OrderMutex()));
  // The host lets go without "ORDERSET.UNLOCK": the waiting callback goes on
  // and ends, and the object goes after it.
  manager->Release();
  advancing.join();
  EXPECT_EQ(host_.Sent(L"TRADE.HOT.MONTH").size(), 1u);
  EXPECT_TRUE(Destroyed());
}

TEST_F(ReleaseTest, LastReleaseOnATimerThreadLetsItsCallbackFinishFirst) {
  CTradeSliceManager* manager = Make(2);
  std::atomic<int> releases{0};
  host_.on_send = [manager, &releases](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*,
                                       Variant*) {
    if (topic == L"TRADE.HOT.MONTH" && releases++ == 0) manager->Release();
  };
  clock_.Advance(10);
  // The callback that released the object still ended the second parent.
  const auto sent = host_.Sent(L"TRADE.HOT.MONTH");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].data_json, "{\"record\":\"P2\"}");
  EXPECT_TRUE(Destroyed());
  host_.on_send = nullptr;
}

TEST_F(ReleaseTest, RealTimeReleaseWhileACallbackWaitsInAHostEventForTheReleasingThreadReturns) {
  CTradeSliceManager* manager = Make(1);
  std::atomic<bool> in_event{false};
  std::atomic<bool> host_free{false};
  // The host answers the request only once its own thread is free again.
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant*) {
    if (topic != L"TRADE.HOT.MONTH") return;
    in_event = true;
    while (!host_free.load()) std::this_thread::yield();
  };
  std::thread advancing([this] { clock_.Advance(10); });
  while (!in_event.load()) std::this_thread::yield();
  // Returns after the object's bounded wait for its callbacks; the object
  // goes when the callback ends.
  manager->Release();
  host_free = true;
  advancing.join();
  EXPECT_TRUE(Destroyed());
  host_.on_send = nullptr;
}

TEST_F(TradeSliceManagerTest, LogGoesThroughWriteLogWithThePrefix) {
  manager_->Log(L"hello");
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{L"<CTradeSliceManager>hello"}));
}

TEST_F(TradeSliceManagerTest, WithoutSinkNothingIsRaisedAndFetchesGiveNull) {
  manager_->Unadvise(sink_cookie_);
  host_.Topic(L"Security.Info");
  Start();
  EXPECT_EQ(peer_.SecurityInfo(), nullptr);
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
  EXPECT_TRUE(host_.Events().empty());
  manager_->Advise(&host_, &sink_cookie_);
}

TEST_F(TradeSliceManagerTest, EveryAdvisedSinkHearsEachEventAndTheLastResultWins) {
  sim::SimHost second(clock_);
  uint32_t second_cookie = 0;
  ASSERT_EQ(manager_->Advise(&second, &second_cookie), kS_OK);
  manager_->Log(L"both");
  EXPECT_EQ(host_.Logs().size(), 1u);
  EXPECT_EQ(second.Logs().size(), 1u);
  second.Topic(L"NordaSystemTime");
  std::unique_ptr<CBaseData> record(manager_->GetTopicRecord(L"NordaSystemTime", nullptr));
  EXPECT_NE(record, nullptr) << "the last sink's record is used";
  manager_->Unadvise(second_cookie);
}

TEST_F(TradeSliceManagerTest, FactoryExportCreatesAReferenceCountedManager) {
  INordaManager* created = nullptr;
  ASSERT_EQ(TsmCreateTradeSliceManager(&clock_, &created), kS_OK);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->AddRef(), 2u);
  EXPECT_EQ(created->Release(), 1u);
  uint32_t cookie = 0;
  ASSERT_EQ(created->Advise(&host_, &cookie), kS_OK);
  EXPECT_EQ(created->SetStage(1, 1), kS_OK);
  EXPECT_EQ(host_.Events().size(), 6u);
  EXPECT_EQ(created->Unadvise(cookie), kS_OK);
  EXPECT_EQ(created->Release(), 0u);
}

}  // namespace
}  // namespace tsm
