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

TEST_F(TradeSliceManagerTest, StageWithKindOtherThanOneDoesNothing) {
  EXPECT_EQ(manager_->SetStage(2, 1), kS_OK);
  EXPECT_EQ(manager_->SetStage(0, 2), kS_OK);
  EXPECT_TRUE(host_.Events().empty());
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
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.ORDER", 0, 0, L"", Variant::Text(L"12"));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.ORDER, ")}));
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

TEST_F(TradeSliceManagerTest, OrderSetLockStallsOtherThreadsUntilUnlock) {
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  std::atomic<bool> entered{false};
  std::thread other([&] {
    ScopedLock<CMutex> guard(peer_.OrderMutex());
    entered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // real time: the other thread must wait
  EXPECT_FALSE(entered.load());
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  other.join();
  EXPECT_TRUE(entered.load());
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
