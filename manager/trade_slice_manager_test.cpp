#include "manager/trade_slice_manager.h"

#include <thread>

#include "testing/manager_fixture.h"

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
