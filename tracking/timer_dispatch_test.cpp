#include "manager/trade_slice_manager.h"
#include "slicehost/exchange.h"
#include "testing/manager_fixture.h"

namespace tsm {
namespace {

constexpr const wchar_t* kSymbol = L"QX.F.TW.TXF";

Variant T(const wchar_t* text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

// References held on a component object (the test's, the interface table's
// and one per bound record).
uint32_t RefCount(IBaseData* object) {
  object->AddRef();
  return object->Release();
}

class TimerDispatchTest : public ManagerTest {
 protected:
  struct Made {
    IBaseData* object;
    CBaseData* record;  // owned by whichever map of the manager it is put in
  };

  Made Owned(const sim::FieldList& fields, CBaseDataEventReceiver* receiver = nullptr) {
    IBaseData* object = Record(L"order", fields);
    return {object, CBaseData::FromCookie(host_.Publish(object), receiver, &clock_)};
  }

  void Arm(unsigned id, int interval_ms) {
    peer_.Timer().StartTimer(id, interval_ms, &CTradeSliceManager::OnTimerTick, manager_);
  }

  // A registered parent "P1" of slice "S1" with 1,000 to slice in 300s.
  Made Parent(int32_t sliced_type, int32_t leftover_action, const wchar_t* level_key = L"P1",
              const wchar_t* slice_id = L"S1", int32_t index = 4) {
    Made parent = Owned({{L"LevelKey", T(level_key)},
                         {L"SliceID", T(slice_id)},
                         {L"OrderQty", I4(1000)},
                         {L"LeavesQty", I4(1000)},
                         {L"SlicedType", I4(sliced_type)},
                         {L"DiscloseQty", I4(300)},
                         {L"SecurityType", T(L"F")},
                         {L"Symbol", T(kSymbol)},
                         {L"LeftoverAction", I4(leftover_action)},
                         {L"Interval", I4(5000)}});
    peer_.OrderData().SetAt(level_key, parent.record);
    peer_.OrderIndex().SetAt(level_key, index);
    peer_.SliceIdToLevelKey().SetAt(slice_id, level_key);
    peer_.SliceParams().SetAt(slice_id, CString::Formatted(L"%ld,%ld,%ld", sliced_type, 5000, leftover_action));
    return parent;
  }

  // A child "C1" of slice "S1" with its per-order timer 3001 armed.
  Made TimedChild(int32_t exec_type, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", T(L"C1")},    {L"SliceID", T(L"S1")},  {L"ExecType", I4(exec_type)},
                             {L"OriginalQty", I4(300)},  {L"CumQty", I4(100)},    {L"Symbol", T(kSymbol)},
                             {L"TimeInForce", I4(0)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    Made child = Owned(fields);
    peer_.OrderData().SetAt(L"C1", child.record);
    peer_.TimerToOrder().SetAt(L"3001", L"C1");
    peer_.OrderToTimer().SetAt(L"C1", L"3001");
    Arm(3001, 5000);
    return child;
  }

  void CloseSessionsOf(const wchar_t* symbol) {
    // One session far from the test's 09:30 UTC: the market is closed.
    peer_.SessionTimes().SetAt(symbol, new std::vector<stcOCTime>{{1300, 1400}});
  }
};

TEST_F(TimerDispatchTest, SendTimerSendsTheQueuedCommandsInOrderAndEmptiesTheQueue) {
  peer_.SendQueue().push_back(L"QTY=1,SlicedID=S1,Sliced=1");
  peer_.SendQueue().push_back(L"QTY=2,SlicedID=S1,Sliced=1");
  Arm(CTradeSliceManager::kTimerSendQueue, 100);
  Advance(100);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, L"QTY=1,SlicedID=S1,Sliced=1");
  EXPECT_EQ(sent[1].text, L"QTY=2,SlicedID=S1,Sliced=1");
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(TimerDispatchTest, BatchTimerSendsItsBatchOnceAndForgetsIt) {
  peer_.SliceAllBatches().SetAt(L"1001", new CStringArray{L"QTY=3,SlicedID=S9,A=1", L"QTY=4,SlicedID=S9,A=2"});
  Arm(1001, 50);
  Advance(50);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, L"QTY=3,SlicedID=S9,A=1");
  EXPECT_EQ(sent[1].text, L"QTY=4,SlicedID=S9,A=2");
  EXPECT_FALSE(peer_.SliceAllBatches().Contains(L"1001"));
}

TEST_F(TimerDispatchTest, BatchTimerWithoutABatchDoesNothing) {
  Arm(1002, 50);
  Advance(50);
  EXPECT_TRUE(host_.Events().empty());
}

TEST_F(TimerDispatchTest, TwoParentsQueuedForOneExpiryAreBothClosed) {
  Parent(1, 0, L"P1", L"S1", 4);
  Parent(1, 0, L"P2", L"S2", 7);
  peer_.FinishList() = {L"P1", L"P2"};
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  const auto sent = Sent(L"TRADE.HOT.MONTH");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].text, L"4");
  EXPECT_EQ(sent[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 1);
  EXPECT_EQ(sent[1].text, L"7");
  EXPECT_EQ(sent[1].data_json, "{\"record\":\"P2\"}");
  EXPECT_TRUE(Logged(L"[Sliced Send End order] P1"));
  EXPECT_TRUE(Logged(L"[Sliced Send End order] P2"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"P2"));
  EXPECT_TRUE(peer_.FinishLevelKey().Contains(L"P1"));
  EXPECT_TRUE(peer_.FinishLevelKey().Contains(L"P2"));
  EXPECT_TRUE(peer_.FinishList().empty());
}

TEST_F(TimerDispatchTest, AnAlreadyFinishedParentIsNotSentTwice) {
  Parent(5, 0);
  peer_.FinishList() = {L"P1", L"P1"};
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH").size(), 1u);
  EXPECT_TRUE(Logged(L"[Sliced Send End order] m_mapFinishLevelKey exist."));
}

TEST_F(TimerDispatchTest, ParentOfTypeFiveStaysRegisteredAfterItsEnd) {
  Made parent = Parent(5, 0);
  peer_.FinishList() = {L"P1"};
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH").size(), 1u);
  void* slot = nullptr;
  EXPECT_TRUE(peer_.OrderData().Lookup(L"P1", slot));
  EXPECT_EQ(slot, parent.record);
  int32_t index = -1;
  EXPECT_TRUE(peer_.OrderIndex().Lookup(L"P1", index));
}

TEST_F(TimerDispatchTest, ReleasedSliceAllParentEndsWithAPositionTransfer) {
  Made parent = Parent(5, 0);
  peer_.SliceAllSet().SetAt(L"S1", L"S1");
  peer_.FinishList() = {L"P1"};
  const uint32_t refs = RefCount(parent.object);
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  const auto sent = Sent(L"TRADE.TRANSFER.POSITION");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 1);
  EXPECT_EQ(sent[0].text, L"");
  EXPECT_EQ(sent[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_TRUE(Sent(L"TRADE.HOT.MONTH").empty());
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  int32_t index = -1;
  EXPECT_FALSE(peer_.OrderIndex().Lookup(L"P1", index));
  EXPECT_TRUE(peer_.FinishLevelKey().Contains(L"P1"));
  // The parent record is freed after the transfer.
  EXPECT_EQ(RefCount(parent.object), refs - 1);
}

TEST_F(TimerDispatchTest, EndWithoutAnOrderIndexLogsTheErrorAndStillCloses) {
  Parent(1, 0);
  peer_.OrderIndex().RemoveKey(L"P1");
  peer_.FinishList() = {L"P1"};
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  EXPECT_TRUE(Logged(L"[Sliced Send End order] error:P1, -1, 0, 1"));
  const auto sent = Sent(L"TRADE.HOT.MONTH");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text, L"-1");
}

TEST_F(TimerDispatchTest, EndWithoutAParentRecordLogsAndSkipsTheKey) {
  peer_.FinishList() = {L"P9"};
  Arm(CTradeSliceManager::kTimerFinish, 10);
  Advance(10);

  EXPECT_TRUE(Logged(L"[Sliced Send End order] error:P9, -1, 0, 0"));
  EXPECT_TRUE(Logged(L"[Sliced Send End order] OriginalData is null."));
  EXPECT_TRUE(Sent(L"TRADE.HOT.MONTH").empty());
}

TEST_F(TimerDispatchTest, RetirementDisconnectsTheListenedRecordsOnTheCleanUpList) {
  Made listened = Owned({{L"LevelKey", T(L"C1")}, {L"SliceID", T(L"S1")}}, manager_);
  peer_.ListenedOrders().SetAt(L"C1", listened.record);
  peer_.ListenedSlice().SetAt(L"C1", L"S1");
  peer_.Cleanup() = {L"C1", L"C-unknown"};
  Arm(CTradeSliceManager::kTimerRetire, 10000);
  Advance(10000);

  EXPECT_FALSE(peer_.ListenedOrders().Contains(L"C1"));
  EXPECT_TRUE(peer_.Cleanup().empty());
  ASSERT_EQ(peer_.RetiredRecords().size(), 1u);
  EXPECT_EQ(peer_.RetiredRecords()[0], listened.record);

  // Disconnected: its changes no longer reach the manager.
  sim::SimHost::Write(listened.object, {{L"ExecType", I4(3)}});
  Advance(0);
  for (const std::wstring& line : Logs()) EXPECT_EQ(line.find(L"OnDataUpdate"), std::wstring::npos) << line;
}

TEST_F(TimerDispatchTest, RetiredRecordsAreFreedTenSecondsAfterTheirRetirement) {
  Made listened = Owned({{L"LevelKey", T(L"C1")}}, manager_);
  peer_.ListenedOrders().SetAt(L"C1", listened.record);
  peer_.Cleanup() = {L"C1"};
  const uint32_t refs = RefCount(listened.object);
  Arm(CTradeSliceManager::kTimerRetire, 10000);
  Advance(10000);
  Advance(9999);
  EXPECT_EQ(peer_.RetiredRecords().size(), 1u);
  EXPECT_EQ(RefCount(listened.object), refs);
  Advance(1);
  EXPECT_TRUE(peer_.RetiredRecords().empty());
  EXPECT_EQ(RefCount(listened.object), refs - 1);
}

TEST_F(TimerDispatchTest, WaitingChildIsGivenAFiftyMillisecondStep) {
  Parent(2, 0);
  Made child = Owned({{L"LevelKey", T(L"C1")},
                      {L"SliceID", T(L"S1")},
                      {L"ExecType", I4(0)},
                      {L"OriginalQty", I4(300)},
                      {L"TimeInForce", I4(6)}});
  peer_.OrderData().SetAt(L"C1", child.record);
  peer_.WaitOpenOrders().SetAt(L"C1", new stcWaitOrder{child.record, 90000, L"C1"});
  peer_.DueWaitOrders() = {L"C1"};
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000);

  EXPECT_TRUE(Logged(L"Timer Order: C1, 3001"));
  CString key;
  EXPECT_TRUE(peer_.TimerToOrder().Lookup(L"3001", key));
  EXPECT_EQ(key, L"C1");
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"C1"));
  // The waiting entry is freed; the registered record stays.
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));

  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
  EXPECT_FALSE(peer_.TimerToOrder().Contains(L"3001"));
}

TEST_F(TimerDispatchTest, WaitingParentNotRegisteredIsTakenInAnew) {
  IBaseData* object = Record(L"order", {{L"LevelKey", T(L"P1")},
                                        {L"SliceID", T(L"S1")},
                                        {L"LeavesQty", I4(1000)},
                                        {L"SlicedType", I4(1)},
                                        {L"DiscloseQty", I4(300)},
                                        {L"SecurityType", T(L"F")},
                                        {L"Symbol", T(kSymbol)}});
  auto* parked = CBaseData::FromCookie(host_.Publish(object), nullptr, &clock_);
  peer_.OrderIndex().SetAt(L"P1", 5);
  peer_.WaitOpenOrders().SetAt(L"P1", new stcWaitOrder{parked, 90000, L"P1"});
  peer_.DueWaitOrders() = {L"P1"};
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000);

  EXPECT_TRUE(Logged(L"KeepSliceOrder(1):P1,1,-2147483648,-2147483648, lOrdIndex=5"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));
  Advance(100);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(TimerDispatchTest, WaitingChildThatHasAStepKeepsIt) {
  Parent(2, 0);
  Made child = TimedChild(0);
  peer_.WaitOpenOrders().SetAt(L"C1", new stcWaitOrder{child.record, 90000, L"C1"});
  peer_.DueWaitOrders() = {L"C1"};
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000);
  // The order keeps the one per-order timer it has.
  EXPECT_FALSE(Logged(L"Timer Order: C1, 3002"));
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
}

TEST_F(TimerDispatchTest, PerOrderIdAfter5000Is3001) {
  Parent(2, 0);
  Made child = Owned({{L"LevelKey", T(L"C1")}, {L"SliceID", T(L"S1")}, {L"TimeInForce", I4(6)}});
  peer_.OrderData().SetAt(L"C1", child.record);
  peer_.WaitOpenOrders().SetAt(L"C1", new stcWaitOrder{child.record, 90000, L"C1"});
  peer_.DueWaitOrders() = {L"C1"};
  peer_.OrderTimerId() = 5000;
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000);

  EXPECT_TRUE(Logged(L"Timer Order: C1, 3001"));
  EXPECT_EQ(peer_.OrderTimerId(), 3001);
  CString key;
  EXPECT_TRUE(peer_.TimerToOrder().Lookup(L"3001", key));
  EXPECT_EQ(key, L"C1");
  CString id;
  EXPECT_TRUE(peer_.OrderToTimer().Lookup(L"C1", id));
  EXPECT_EQ(id, L"3001");
  EXPECT_FALSE(peer_.TimerToOrder().Contains(L"5001"));
  // Timer 3001 is the one armed: its step takes the order off both maps.
  Advance(50);
  EXPECT_FALSE(peer_.TimerToOrder().Contains(L"3001"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
}

TEST_F(TimerDispatchTest, PerOrderExpiryWhoseIdIsGoneDoesNothing) {
  Parent(2, 1);
  Arm(3005, 50);
  Advance(50);
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));
}

TEST_F(TimerDispatchTest, PerOrderExpiryOfAChildWhoseTimerEntryWasDroppedDoesNothing) {
  Parent(2, 1);
  TimedChild(0);
  // The child's final update drops its timer entries; the armed id runs out.
  peer_.TimerToOrder().RemoveKey(L"3001");
  peer_.OrderToTimer().RemoveKey(L"C1");
  host_.ClearEvents();
  Advance(5000);
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(TimerDispatchTest, ChildWithExecTypeEightIsRemovedAndFreedAfterItsStep) {
  Parent(2, 1);
  Made child = TimedChild(8);
  const uint32_t refs = RefCount(child.object);
  Advance(5000);

  EXPECT_FALSE(peer_.OrderData().Contains(L"C1"));
  EXPECT_EQ(RefCount(child.object), refs - 1);
  // Its step still cut the next child; a finished child has no leftover
  // action applied to it.
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(TimerDispatchTest, LeftoverActionOneSendsTheCancelRequest) {
  Parent(2, 1);
  TimedChild(0);
  Advance(5000);

  EXPECT_TRUE(Logged(L"[Sliced Info] :C1, 2,5000,1"));
  const auto cancels = Sent(L"TRADE.CANCELORDER");
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0].text, L"REPORTID=C1");
  EXPECT_EQ(cancels[0].p1, 2);
  EXPECT_EQ(cancels[0].p2, 1);
  EXPECT_EQ(cancels[0].data_json, "null");
  EXPECT_TRUE(Sent(L"TRADE.REPLACEORDER").empty());
  // The next slice went out at once, with the child's unfilled 200 rolled in.
  const auto orders = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(orders.size(), 1u);
  EXPECT_EQ(sim::CommandValue(orders[0].text, L"QTY"), L"500");
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
}

TEST_F(TimerDispatchTest, LeftoverActionTwoSendsTheReplaceRequest) {
  Parent(2, 2);
  TimedChild(1);
  Advance(5000);

  const auto replaces = Sent(L"TRADE.REPLACEORDER");
  ASSERT_EQ(replaces.size(), 1u);
  EXPECT_EQ(replaces[0].text, L"REPORTID=C1,TYPE=6,TIMEINFORCE=1");
  EXPECT_EQ(replaces[0].p1, 2);
  EXPECT_EQ(replaces[0].p2, 1);
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(TimerDispatchTest, LeftoverActionZeroSendsNoRequest) {
  Parent(2, 0);
  TimedChild(0);
  Advance(5000);

  EXPECT_TRUE(Logged(L"[Sliced Info] :C1, 2,5000,0"));
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
  EXPECT_TRUE(Sent(L"TRADE.REPLACEORDER").empty());
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(TimerDispatchTest, StepOfAnUnregisteredOrderLogsIt) {
  peer_.TimerToOrder().SetAt(L"3001", L"C1");
  peer_.OrderToTimer().SetAt(L"C1", L"3001");
  Arm(3001, 50);
  Advance(50);
  EXPECT_TRUE(Logged(L"m_mapLevelKeyToOrderData does not exist: LevelKey=C1"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
}

TEST_F(TimerDispatchTest, StepOfARecordUnderAnotherKeyLogsTheMismatch) {
  Parent(2, 1);
  TimedChild(0, {{L"LevelKey", T(L"C2")}});
  Advance(5000);
  EXPECT_TRUE(Logged(L"OrderData LevelKey:C2 != C1"));
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(TimerDispatchTest, StepOfAChildWhoseSliceEndedLogsIt) {
  Parent(2, 1);
  TimedChild(0);
  peer_.SliceIdToLevelKey().RemoveKey(L"S1");
  Advance(5000);
  EXPECT_TRUE(Logged(L"m_mapSliceIDToLevelKey not exist:C1 ,S1"));
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(TimerDispatchTest, StepOfAChildWhoseParentIsGoneLogsItAndStillAppliesTheLeftoverAction) {
  Parent(2, 1);
  TimedChild(0);
  void* parent = nullptr;
  peer_.OrderData().Lookup(L"P1", parent);
  peer_.OrderData().RemoveKey(L"P1");
  peer_.RetiredRecords().push_back(static_cast<CBaseData*>(parent));
  Advance(5000);
  EXPECT_TRUE(Logged(L"m_mapLevelKeyToOrderData not exist:C1 ,P1"));
  EXPECT_EQ(Sent(L"TRADE.CANCELORDER").size(), 1u);
}

// A timed child "C1" taken in through the host, parked by its step while its
// session is closed, ended by the host's own replacement and delivered again
// (a replacement carries ClientModifyNew, so it gets no step of its own).
// The wait entry still names the record the registry held when it parked.
class ParkedRecordTest : public TimerDispatchTest {
 protected:
  void ParkEndAndDeliverAgain() {
    Parent(2, 1);
    CloseSessionsOf(kSymbol);
    child_ = Record(L"order", {{L"LevelKey", T(L"C1")},
                               {L"SliceID", T(L"S1")},
                               {L"SlicedType", I4(0)},
                               {L"ExecType", I4(0)},
                               {L"OriginalQty", I4(300)},
                               {L"CumQty", I4(100)},
                               {L"Symbol", T(kSymbol)}});
    Deliver();
    Advance(5000);  // the step parks it
    ASSERT_TRUE(peer_.WaitOpenOrders().Contains(L"C1"));
    sim::SimHost::Write(child_, {{L"ExecType", I4(8)}, {L"ClientModify", I4(1)}});
    Advance(0);
    sim::SimHost::Write(child_, {{L"ExecType", I4(0)}, {L"ClientModify", I4(0)}, {L"ClientModifyNew", I4(1)}});
    Deliver();
    // Long enough for timer 104 to have run on what the second delivery dropped.
    Advance(25000);
    OpenSessionsOf(kSymbol);
    host_.ClearEvents();
  }

  void Deliver() {
    Topic(L"TRADE.HOT.MONTH", 0, 0, L"3", I4(static_cast<int32_t>(host_.Publish(child_))));
  }

  void OpenSessionsOf(const wchar_t* symbol) {
    void* table = nullptr;
    peer_.SessionTimes().Lookup(symbol, table);
    *static_cast<std::vector<stcOCTime>*>(table) = {{900, 1500}};
  }

  IBaseData* child_ = nullptr;
};

TEST_F(ParkedRecordTest, ParkedChildTakenInAgainIsReleasedWhenItsSessionOpens) {
  ParkEndAndDeliverAgain();
  peer_.DueWaitOrders() = {L"C1"};
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000);
  EXPECT_TRUE(Logged(L"Timer Order: C1, 3002"));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"C1"));
  Advance(50);
  // The step works on the record taken in last: next slice, then the
  // leftover action on the child.
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
  const auto cancels = Sent(L"TRADE.CANCELORDER");
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0].text, L"REPORTID=C1");
  // Everything dropped on the way is freed once nothing names it.
  Advance(20000);
  EXPECT_TRUE(peer_.RetiredRecords().empty());
}

TEST_F(ParkedRecordTest, ParkedChildTakenInAgainCanBeCancelled) {
  ParkEndAndDeliverAgain();
  IBaseData* request = Record(L"order", {{L"LevelKey", T(L"C1")}, {L"SliceID", T(L"S1")}, {L"ExecType", I4(0)}});
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 1, L"C1", I4(static_cast<int32_t>(host_.Publish(request))));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"C1"));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:C1, , 0, 0, 1"));
  const auto cancels = Sent(L"TRADE.PRICE.TRIGGER.CANCEL");
  ASSERT_EQ(cancels.size(), 1u);
  EXPECT_EQ(cancels[0].text, L"LevelKey=C1");
  Advance(20000);
  EXPECT_TRUE(peer_.RetiredRecords().empty());
}

TEST_F(ParkedRecordTest, RecordDroppedWhileParkedIsFreedOnlyAfterItsWaitEntry) {
  ParkEndAndDeliverAgain();
  // The record the first delivery registered is still named by the wait
  // entry, so it has not been freed; it is once the entry goes.
  void* slot = nullptr;
  ASSERT_TRUE(peer_.WaitOpenOrders().Lookup(L"C1", slot));
  CBaseData* parked = static_cast<stcWaitOrder*>(slot)->pOrder;
  void* registered = nullptr;
  ASSERT_TRUE(peer_.OrderData().Lookup(L"C1", registered));
  EXPECT_NE(registered, parked);
  EXPECT_EQ(parked->GetString(L"LevelKey"), L"C1");
  peer_.DueWaitOrders() = {L"C1"};
  Arm(CTradeSliceManager::kTimerWaitOrders, 2000);
  Advance(2000 + 10000);
  EXPECT_TRUE(peer_.RetiredRecords().empty());
}

TEST_F(TimerDispatchTest, StepOutsideTheSessionParksTheChild) {
  Parent(2, 1);
  TimedChild(0);
  CloseSessionsOf(kSymbol);
  Advance(5000);
  EXPECT_TRUE(peer_.WaitOpenOrders().Contains(L"C1"));
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(TimerDispatchTest, StepOfAGoodTillDateChildSkipsTheSessionCheck) {
  Parent(2, 1);
  TimedChild(0, {{L"TimeInForce", I4(6)}});
  CloseSessionsOf(kSymbol);
  Advance(5000);
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"C1"));
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
  EXPECT_EQ(Sent(L"TRADE.CANCELORDER").size(), 1u);
}

}  // namespace
}  // namespace tsm
