// Cancellation of sliced orders on the host's request: the single cancel and
// the cancel of a parent with all its children, each ExecType branch of both
// (they differ on purpose), the spread prefixes, waiting orders, the group
// report lookup and the cancelled slice map that turns later sends into
// failed orders.
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "testing/manager_fixture.h"
#include "testing/component_binding.h"

namespace tsm {
namespace {

// Names of the tracked records that have been deleted; shared with the
// records, which may go after the test's fixture.
struct DeletedNames {
  std::mutex lock;  // guards names
  std::set<std::wstring> names;
};

// A record that notes its own deletion, so a test can tell "removed and
// deleted" from "removed".
class TrackedRecord : public CBaseData {
 public:
  TrackedRecord(IClock* clock, std::shared_ptr<DeletedNames> deleted, std::wstring name)
      : CBaseData(clock), deleted_(std::move(deleted)), name_(std::move(name)) {}
  ~TrackedRecord() override {
    std::lock_guard<std::mutex> guard(deleted_->lock);
    deleted_->names.insert(name_);
  }

 private:
  std::shared_ptr<DeletedNames> deleted_;
  std::wstring name_;
};

class SliceCancelTest : public ManagerTest {
 protected:
  SliceCancelTest() { Start(); }

  // A registry-owned record on a new host object.
  CBaseData* Tracked(const std::wstring& name, const sim::FieldList& fields) {
    auto* record = new TrackedRecord(&clock_, deleted_, name);
    record->Initialize(nullptr, BindingOf(Record(name, fields)));
    return record;
  }
  bool Deleted(const std::wstring& name) {
    std::lock_guard<std::mutex> guard(deleted_->lock);
    return deleted_->names.count(name) != 0;
  }

  // A parent as the registry holds it after being taken in.
  void AddParent(const std::wstring& key, const std::wstring& slice) {
    peer_.OrderData().SetAt(key, Tracked(key, {{L"LevelKey", Variant::Text(key)}, {L"SliceID", Variant::Text(slice)}}));
    peer_.OrderIndex().SetAt(key, 7);
    peer_.GroupCount().SetAt(key, 2);
    peer_.SliceIdToLevelKey().SetAt(slice, key);
    peer_.SliceParams().SetAt(slice, L"1,5,1");
    peer_.SlicedOrders().SetAt(key, key);
  }
  // A child sent for `slice` and taken in from the host.
  void AddChild(const std::wstring& key, const std::wstring& slice) {
    peer_.OrderData().SetAt(key, Tracked(key, {{L"LevelKey", Variant::Text(key)}, {L"SliceID", Variant::Text(slice)}}));
    peer_.OrderIndex().SetAt(key, 8);
    peer_.GroupCount().SetAt(key, 1);
    peer_.SliceToListened().Append(slice, key);
  }
  // An order parked until its session opens, on a record of its own.
  void AddWaiting(const std::wstring& key, const std::wstring& record_name) {
    auto* wait = new stcWaitOrder{Tracked(record_name, {{L"LevelKey", Variant::Text(key)}}), 93000, key};
    peer_.WaitOpenOrders().SetAt(key, wait);
  }

  // The host's cancel request: its record, published.
  IBaseData* Request(const sim::FieldList& fields) { return Record(L"request", fields); }
  void Cancel(IBaseData* request, const std::wstring& level_key, int32_t param2) {
    host_.ClearEvents();
    Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, param2, level_key,
          Variant::I4(static_cast<int32_t>(host_.Publish(request))));
  }
  void CancelOne(const std::wstring& level_key, const sim::FieldList& fields) {
    Cancel(Request(fields), level_key, 1);
  }
  void CancelAll(const std::wstring& level_key, const sim::FieldList& fields) {
    Cancel(Request(fields), level_key, 2);
  }

  static int32_t ReadLong(IBaseData* record, const std::wstring& field) {
    const Variant value = sim::SimHost::Read(record, field);
    return value.type() == VarType::I4 ? value.i4() : -1;
  }

  std::shared_ptr<DeletedNames> deleted_ = std::make_shared<DeletedNames>();
};

sim::FieldList Fields(const std::wstring& key, const std::wstring& slice, const std::wstring& order_id,
                      int32_t exec_type) {
  return {{L"LevelKey", Variant::Text(key)},
          {L"SliceID", Variant::Text(slice)},
          {L"OrderID", Variant::Text(order_id)},
          {L"ExecType", Variant::I4(exec_type)},
          {L"CumQty", Variant::I4(40)},
          {L"OrderQty", Variant::I4(100)},
          {L"LeavesQty", Variant::I4(60)}};
}

// ---- Cancel all of a parent ----

TEST_F(SliceCancelTest, CancelAllSendsParentRequestThenReportIdOfEachChildInListOrder) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  AddChild(L"B", L"S");
  IBaseData* request = Request(Fields(L"P", L"S", L"O1", 0));
  Cancel(request, L"P", 2);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=A",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=B"}));
  const auto parent_requests = Sent(L"TRADE.PRICE.TRIGGER.CANCEL");
  ASSERT_EQ(parent_requests.size(), 1u);
  ASSERT_EQ(parent_requests[0].data.type(), VarType::I4);
  EXPECT_EQ(static_cast<uint32_t>(parent_requests[0].data.i4()), host_.Publish(request));
  for (const auto& e : Sent(L"TRADE.CANCELORDER")) EXPECT_TRUE(e.data.IsEmpty());
  EXPECT_TRUE(Logged(L"SetTopic:Cancel ALL"));
  EXPECT_TRUE(Logged(L"CancelOrderList :A,B"));
  EXPECT_TRUE(Logged(L"Send CancelOrder :LevelKey=P"));
  EXPECT_TRUE(Logged(L"Send CancelOrder :REPORTID=A"));
  EXPECT_TRUE(Logged(L"Send CancelOrder :REPORTID=B"));
}

TEST_F(SliceCancelTest, CancelAllRemovesParentAndChildrenFromRegistryAndDeletesTheirRecords) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  AddChild(L"B", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  for (const wchar_t* key : {L"P", L"A", L"B"}) {
    EXPECT_FALSE(peer_.OrderData().Contains(key)) << key;
    EXPECT_TRUE(Deleted(key)) << key;
    int32_t value = 0;
    EXPECT_FALSE(peer_.OrderIndex().Lookup(key, value)) << key;
    EXPECT_FALSE(peer_.GroupCount().Lookup(key, value)) << key;
  }
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S"));
  EXPECT_FALSE(peer_.SliceParams().Contains(L"S"));
  EXPECT_TRUE(peer_.CancelledSlices().Contains(L"S"));
}

TEST_F(SliceCancelTest, CancelAllWritesNoCancelledOrderAndNoSummaryLine) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_EQ(peer_.CancelledOrders().GetCount(), 0);
  for (const auto& line : Logs()) EXPECT_EQ(line.find(L"CancelSliceOrder:P,"), std::wstring::npos) << line;
}

TEST_F(SliceCancelTest, ChildCancelledOneByOneIsSkippedByLaterCancelAll) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  AddChild(L"B", L"S");
  peer_.OrderToTimer().SetAt(L"A", L"3001");  // A keeps its record through its own cancel
  CancelOne(L"A", Fields(L"A", L"S", L"OA", 0));
  ASSERT_TRUE(peer_.CancelledOrders().Contains(L"A"));
  ASSERT_TRUE(peer_.OrderData().Contains(L"A"));
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=B"}));
  EXPECT_TRUE(peer_.OrderData().Contains(L"A"));
  EXPECT_FALSE(Deleted(L"A"));
}

TEST_F(SliceCancelTest, CancelAllSkipsListedChildrenWithoutRecordAndEmptyItems) {
  AddParent(L"P", L"S");
  // One listed text holding empty items and a child without a record.
  for (const wchar_t* key : {L"A", L"B"}) {
    peer_.OrderData().SetAt(key, Tracked(key, {{L"LevelKey", Variant::Text(key)}, {L"SliceID", Variant::Text(L"S")}}));
  }
  peer_.SliceToListened().Append(L"S", L"A,,GONE,B,");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=A",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=B"}));
}

TEST_F(SliceCancelTest, CancelAllOfParentWithoutChildrenSendsOnlyTheParentRequest) {
  AddParent(L"P", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_TRUE(Logged(L"CancelOrderList :"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, CancelAllFindsParentThroughSlicedOrderSetWhenSliceIdGivesNone) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  peer_.SliceIdToLevelKey().RemoveKey(L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=A"}));
  EXPECT_TRUE(peer_.CancelledSlices().Contains(L"S"));
}

TEST_F(SliceCancelTest, CancelAllOfNonParentLogsFailureAndCancelsTheOrderItself) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  CancelAll(L"A", Fields(L"A", L"S", L"OA", 0));
  EXPECT_TRUE(Logged(L"Cancel All SliceOrder Fail:A != P"));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:A, OA, 0, 0, 0"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=A"}));
  CString slice;
  EXPECT_TRUE(peer_.CancelledOrders().Lookup(L"A", slice));
  EXPECT_EQ(slice, L"S");
  EXPECT_FALSE(peer_.CancelledSlices().Contains(L"S"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P"));
}

TEST_F(SliceCancelTest, CancelAllWithExecType20OfParentNotFinishingRewritesRecordInsteadOfRequest) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 20));
  Cancel(request, L"P", 2);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.CANCELORDER 1,1 REPORTID=A"}));
  EXPECT_EQ(ReadLong(request, L"ExecType"), 8);
  EXPECT_EQ(ReadLong(request, L"LeavesQty"), 0);
  EXPECT_EQ(ReadLong(request, L"OrderQty"), 40);
}

TEST_F(SliceCancelTest, CancelAllWithExecType20OfFinishingParentSendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  peer_.FinishLevelKey().SetAt(L"P", L"P");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 20));
  Cancel(request, L"P", 2);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
  EXPECT_EQ(ReadLong(request, L"ExecType"), 20);
}

TEST_F(SliceCancelTest, CancelAllWithExecType20OfFinishingWaitingParentRewritesRecord) {
  AddParent(L"P", L"S");
  peer_.FinishLevelKey().SetAt(L"P", L"P");
  AddWaiting(L"P", L"waitP");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 20));
  Cancel(request, L"P", 2);
  EXPECT_TRUE(Requests().empty());
  EXPECT_EQ(ReadLong(request, L"ExecType"), 8);
  EXPECT_EQ(ReadLong(request, L"OrderQty"), 40);
}

TEST_F(SliceCancelTest, CancelAllWithExecType16SendsChasePriceCancel) {
  AddParent(L"P", L"S");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 16));
  Cancel(request, L"P", 2);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.CHASE.PRICE.CANCEL 1,1 LevelKey=P"}));
  const auto sent = Sent(L"TRADE.CHASE.PRICE.CANCEL");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(static_cast<uint32_t>(sent[0].data.i4()), host_.Publish(request));
}

TEST_F(SliceCancelTest, CancelAllWithExecType15IsNotTreatedAsChaseOrder) {
  AddParent(L"P", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"", 15));
  EXPECT_FALSE(Logged(L"CancelSliceOrder:P"));
  EXPECT_TRUE(Logged(L"Send CancelOrder :LevelKey=P"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, CancelAllWithOrderIdAndExecType20SendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  IBaseData* request = Request(Fields(L"P", L"S", L"O1", 20));
  Cancel(request, L"P", 2);
  EXPECT_TRUE(Logged(L"Send CancelOrder :LevelKey=P"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
  EXPECT_EQ(ReadLong(request, L"ExecType"), 20);
}

TEST_F(SliceCancelTest, CancelAllOfParentStartingWithSpaGoesToSpreadManagerCancel) {
  AddParent(L"SPA_P", L"S");
  CancelAll(L"SPA_P", Fields(L"SPA_P", L"S", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.SPREAD.MANAGER.CANCEL 1,1 LevelKey=SPA_P"}));
}

TEST_F(SliceCancelTest, CancelAllOfParentHoldingSpbLaterGoesToPriceTriggerCancel) {
  AddParent(L"P_SPB_1", L"S");
  CancelAll(L"P_SPB_1", Fields(L"P_SPB_1", L"S", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P_SPB_1"}));
}

TEST_F(SliceCancelTest, CancelAllRemovesAndFreesWaitingEntriesOfParentAndChildren) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  AddWaiting(L"P", L"waitP");
  AddWaiting(L"A", L"waitA");
  peer_.WaitOpenOrders().SetAt(L"OTHER", new stcWaitOrder{nullptr, 93000, L"OTHER"});
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"P"));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"A"));
  EXPECT_TRUE(peer_.WaitOpenOrders().Contains(L"OTHER"));
  // The parked records leave through the retired records and timer 104.
  Advance(10000);
  EXPECT_TRUE(Deleted(L"waitP"));
  EXPECT_TRUE(Deleted(L"waitA"));
}

TEST_F(SliceCancelTest, CancelledSliceTurnsLaterSendsIntoFailedOrders) {
  AddParent(L"P", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  host_.ClearEvents();
  const CString command = L"TYPE=F,QTY=100,SlicedID=S,SlicedPriceField=0,Sliced=1";
  manager_->SendSlicedOrder(command);
  manager_->SendSlicedOrder(command);  // the entry stays: every later command fails too
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.FAILORDER 1,1 " + command.wstr(),
                                                   L"TRADE.FAILORDER 1,1 " + command.wstr()}));
  EXPECT_TRUE(Logged(L"[OnTimer] SlicedID=S"));
  EXPECT_TRUE(Logged(L"[Sliced Send delete order] " + command.wstr()));
  for (const auto& e : Sent(L"TRADE.FAILORDER")) EXPECT_TRUE(e.data.IsEmpty());
}

TEST_F(SliceCancelTest, CancelledSliceLeavesOtherSlicesSendingNewOrders) {
  AddParent(L"P", L"S");
  CancelAll(L"P", Fields(L"P", L"S", L"O1", 0));
  host_.ClearEvents();
  const CString command = L"TYPE=F,QTY=100,SlicedID=T,SlicedPriceField=0,Sliced=1";
  manager_->SendSlicedOrder(command);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.NEWORDER 1,2 " + command.wstr()}));
  EXPECT_TRUE(Logged(L"[OnTimer] SlicedID=T"));
}

// ---- Single cancel ----

TEST_F(SliceCancelTest, SingleCancelOfParentRemovesItsSliceAndRemembersIt) {
  AddParent(L"P", L"S");
  CancelOne(L"P", Fields(L"P", L"S", L"OP", 0));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P, OP, 1, 0, 0"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
  EXPECT_FALSE(peer_.OrderData().Contains(L"P"));
  EXPECT_TRUE(Deleted(L"P"));
  int32_t value = 0;
  EXPECT_FALSE(peer_.OrderIndex().Lookup(L"P", value));
  EXPECT_FALSE(peer_.GroupCount().Lookup(L"P", value));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S"));
  EXPECT_FALSE(peer_.SliceParams().Contains(L"S"));
  CString slice;
  EXPECT_TRUE(peer_.CancelledOrders().Lookup(L"P", slice));
  EXPECT_EQ(slice, L"S");
  EXPECT_FALSE(peer_.CancelledSlices().Contains(L"S"));
}

TEST_F(SliceCancelTest, SingleCancelOfChildWithoutTimerDeletesItsRecord) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  CancelOne(L"A", Fields(L"A", L"S", L"OA", 0));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:A, OA, 0, 0, 0"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"A"));
  EXPECT_TRUE(Deleted(L"A"));
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Contains(L"S"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P"));
}

TEST_F(SliceCancelTest, SingleCancelOfChildWithOrderTimerKeepsItsRecordForTheTimerStep) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  peer_.OrderToTimer().SetAt(L"A", L"3001");
  CancelOne(L"A", Fields(L"A", L"S", L"OA", 0));
  EXPECT_TRUE(peer_.OrderData().Contains(L"A"));
  EXPECT_FALSE(Deleted(L"A"));
  int32_t value = 0;
  EXPECT_FALSE(peer_.OrderIndex().Lookup(L"A", value));
  EXPECT_FALSE(peer_.GroupCount().Lookup(L"A", value));
  EXPECT_TRUE(peer_.CancelledOrders().Contains(L"A"));
}

TEST_F(SliceCancelTest, SingleCancelOfParentDeletesItEvenWithAnOrderTimerEntry) {
  AddParent(L"P", L"S");
  peer_.OrderToTimer().SetAt(L"P", L"3001");  // only non-parents look their timer up
  CancelOne(L"P", Fields(L"P", L"S", L"OP", 0));
  EXPECT_FALSE(peer_.OrderData().Contains(L"P"));
  EXPECT_TRUE(Deleted(L"P"));
}

TEST_F(SliceCancelTest, SingleCancelWithExecType20OfParentNotFinishingRewritesRecordAndSendsNothing) {
  AddParent(L"P", L"S");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 20));
  Cancel(request, L"P", 1);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P, , 1, 0, 0"));
  EXPECT_TRUE(Requests().empty());
  EXPECT_EQ(ReadLong(request, L"ExecType"), 8);
  EXPECT_EQ(ReadLong(request, L"LeavesQty"), 0);
  EXPECT_EQ(ReadLong(request, L"OrderQty"), 40);
}

TEST_F(SliceCancelTest, SingleCancelWithExecType20OfFinishingParentSendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  peer_.FinishLevelKey().SetAt(L"P", L"P");
  IBaseData* request = Request(Fields(L"P", L"S", L"", 20));
  Cancel(request, L"P", 1);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P, , 1, 1, 0"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
  EXPECT_EQ(ReadLong(request, L"ExecType"), 20);
}

TEST_F(SliceCancelTest, SingleCancelWithExecType20OfChildSendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  IBaseData* request = Request(Fields(L"A", L"S", L"", 20));
  Cancel(request, L"A", 1);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=A"}));
  const auto sent = Sent(L"TRADE.PRICE.TRIGGER.CANCEL");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(static_cast<uint32_t>(sent[0].data.i4()), host_.Publish(request));
  EXPECT_EQ(ReadLong(request, L"ExecType"), 20);
}

TEST_F(SliceCancelTest, SingleCancelWithExecType20OfWaitingOrderRewritesRecord) {
  AddWaiting(L"W", L"waitW");
  IBaseData* request = Request(Fields(L"W", L"", L"", 20));
  Cancel(request, L"W", 1);
  EXPECT_TRUE(Logged(L"CancelSliceOrder:W, , 0, 0, 1"));
  EXPECT_TRUE(Requests().empty());
  EXPECT_EQ(ReadLong(request, L"ExecType"), 8);
}

TEST_F(SliceCancelTest, SingleCancelWithExecType16SendsChasePriceCancel) {
  AddParent(L"P", L"S");
  CancelOne(L"P", Fields(L"P", L"S", L"", 16));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.CHASE.PRICE.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, SingleCancelWithExecType15SendsChasePriceCancel) {
  AddParent(L"P", L"S");
  CancelOne(L"P", Fields(L"P", L"S", L"", 15));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.CHASE.PRICE.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, SingleCancelWithOrderIdAndExecType16SendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  CancelOne(L"P", Fields(L"P", L"S", L"OP", 16));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, SingleCancelWithOtherExecTypeSendsPriceTriggerCancel) {
  AddParent(L"P", L"S");
  CancelOne(L"P", Fields(L"P", L"S", L"", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
}

TEST_F(SliceCancelTest, LevelKeyStartingWithSpaGoesToSpreadManagerCancel) {
  CancelOne(L"SPA_1", Fields(L"SPA_1", L"", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.SPREAD.MANAGER.CANCEL 1,1 LevelKey=SPA_1"}));
}

TEST_F(SliceCancelTest, LevelKeyStartingWithSpbGoesToSpreadManagerCancel) {
  CancelOne(L"SPB_1", Fields(L"SPB_1", L"", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.SPREAD.MANAGER.CANCEL 1,1 LevelKey=SPB_1"}));
}

TEST_F(SliceCancelTest, LevelKeyHoldingSpaLaterDoesNotGoToSpreadManagerCancel) {
  CancelOne(L"X_SPA_1", Fields(L"X_SPA_1", L"", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=X_SPA_1"}));
}

TEST_F(SliceCancelTest, LowerCaseSpreadPrefixDoesNotGoToSpreadManagerCancel) {
  CancelOne(L"spa_1", Fields(L"spa_1", L"", L"O1", 0));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=spa_1"}));
}

TEST_F(SliceCancelTest, SingleCancelRemovesAndFreesTheWaitingEntry) {
  AddParent(L"P", L"S");
  AddWaiting(L"P", L"waitP");
  CancelOne(L"P", Fields(L"P", L"S", L"OP", 0));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:P, OP, 1, 0, 1"));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"P"));
  Advance(10000);
  EXPECT_TRUE(Deleted(L"waitP"));
}

TEST_F(SliceCancelTest, WaitingEntryOnTheRegistryRecordLeavesTheRecordToTheRegistry) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  peer_.OrderToTimer().SetAt(L"A", L"3001");  // A's record stays registered
  void* slot = nullptr;
  ASSERT_TRUE(peer_.OrderData().Lookup(L"A", slot));
  peer_.WaitOpenOrders().SetAt(L"A", new stcWaitOrder{static_cast<CBaseData*>(slot), 93000, L"A"});
  CancelOne(L"A", Fields(L"A", L"S", L"OA", 0));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"A"));
  EXPECT_TRUE(peer_.RetiredRecords().empty());
  Advance(10000);
  EXPECT_FALSE(Deleted(L"A"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"A"));
}

TEST_F(SliceCancelTest, GroupReportLookupFindsNothingSoNoReportIsCancelled) {
  AddParent(L"P", L"S");
  CancelOne(L"P", {{L"LevelKey", Variant::Text(L"P")},
                   {L"SliceID", Variant::Text(L"S")},
                   {L"OrderID", Variant::Text(L"OP")},
                   {L"GroupPrefix", Variant::Text(L"GP")},
                   {L"GroupID", Variant::Text(L"G1")}});
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P"}));
  EXPECT_EQ(peer_.GroupReport().GetCount(), 0);
}

TEST_F(SliceCancelTest, GroupReportEntryOfCancelledParentIsCancelledByReportId) {
  AddParent(L"P", L"S");
  peer_.GroupReport().SetAt(L"GPG1", L"R9");
  CancelOne(L"P", {{L"LevelKey", Variant::Text(L"P")},
                   {L"SliceID", Variant::Text(L"S")},
                   {L"OrderID", Variant::Text(L"OP")},
                   {L"GroupPrefix", Variant::Text(L"GP")},
                   {L"GroupID", Variant::Text(L"G1")}});
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P",
                                                   L"TRADE.CANCELORDER 1,1 REPORTID=R9"}));
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER")[0].data.IsEmpty());
}

TEST_F(SliceCancelTest, GroupReportIsNotLookedUpForChildren) {
  AddParent(L"P", L"S");
  AddChild(L"A", L"S");
  peer_.GroupReport().SetAt(L"GPG1", L"R9");
  CancelOne(L"A", {{L"LevelKey", Variant::Text(L"A")},
                   {L"SliceID", Variant::Text(L"S")},
                   {L"OrderID", Variant::Text(L"OA")},
                   {L"GroupPrefix", Variant::Text(L"GP")},
                   {L"GroupID", Variant::Text(L"G1")}});
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=A"}));
}

TEST_F(SliceCancelTest, CancelWithUnresolvableCookieDoesNothing) {
  AddParent(L"P", L"S");
  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 1, L"P", Variant::I4(987654));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER.CANCEL, P")}));
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 2, L"P", Variant::I4(987654));
  EXPECT_TRUE(Requests().empty());
  EXPECT_TRUE(peer_.OrderData().Contains(L"P"));
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Contains(L"S"));
}

TEST_F(SliceCancelTest, CancelOfUnknownOrderStillTellsTheHostAndRemembersIt) {
  CancelOne(L"NOPE", Fields(L"NOPE", L"S9", L"O1", 0));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:NOPE, O1, 0, 0, 0"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=NOPE"}));
  EXPECT_TRUE(peer_.CancelledOrders().Contains(L"NOPE"));
}

}  // namespace
}  // namespace tsm
