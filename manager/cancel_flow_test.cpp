// Cancellation end to end on the virtual clock: parents taken in from the
// host, children sent, delivered back and worked by hand on the host's side
// (records published and delivered with "TRADE.HOT.MONTH", fills and cancels
// written into the children's records), and the cancels that end them: the
// volume worker's, the host's cancel of a whole parent, and the host's cancel
// of one timed child.
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

constexpr int64_t kPollDeadlineMs = 60000;

// The value of KEY in a command line of comma-separated KEY=value pairs.
std::wstring CommandValue(const std::wstring& line, const std::wstring& key) {
  const std::wstring prefix = key + L"=";
  size_t at = 0;
  while (at < line.size()) {
    size_t end = line.find(L',', at);
    if (end == std::wstring::npos) end = line.size();
    if (line.compare(at, prefix.size(), prefix) == 0) return line.substr(at + prefix.size(), end - at - prefix.size());
    at = end + 1;
  }
  return std::wstring();
}

void SetVolume(IBaseData* quote, int64_t volume) {
  const int32_t update = quote->BeginUpdate();
  quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
  quote->EndUpdate(update);
}

class CancelFlowTest : public ManagerTest {
 protected:
  CancelFlowTest() { Start(); }

  static sim::FieldList ParentFields(const std::wstring& key, const std::wstring& slice, int32_t sliced_type,
                                     int32_t interval, int32_t leftover_action, const std::wstring& symbol,
                                     int32_t qty) {
    return {{L"LevelKey", Variant::Text(key)},      {L"SliceID", Variant::Text(slice)},
            {L"SlicedType", Variant::I4(sliced_type)}, {L"Interval", Variant::I4(interval)},
            {L"LeftoverAction", Variant::I4(leftover_action)}, {L"Symbol", Variant::Text(symbol)},
            {L"Side", Variant::Text(L"B")},          {L"SecurityType", Variant::Text(L"FUT")},
            {L"Account", Variant::Text(L"ACC1")},    {L"DiscloseQty", Variant::I4(100)},
            {L"Variance", Variant::I4(0)},           {L"OrderQty", Variant::I4(qty)},
            {L"LeavesQty", Variant::I4(qty)},        {L"SendQty", Variant::I4(qty)},
            {L"Price", Variant::I8(250)},            {L"TimeInForce", Variant::I4(6)}};
  }
  // The host takes a parent in and hands it over with "TRADE.SLICE.MANAGER".
  IBaseData* SubmitParent(const sim::FieldList& fields) {
    IBaseData* parent = Record(L"parent", fields);
    Topic(L"TRADE.SLICE.MANAGER", 1, 1, L"0", Variant::I4(static_cast<int32_t>(host_.Publish(parent))));
    return parent;
  }
  // The host turns the latest new-order command into a child record and
  // delivers it with "TRADE.HOT.MONTH".
  IBaseData* DeliverChild(const std::wstring& key) {
    const auto commands = NewOrders();
    EXPECT_FALSE(commands.empty());
    const std::wstring command = commands.empty() ? std::wstring() : commands.back();
    const int32_t qty = std::stoi(L"0" + CommandValue(command, L"QTY"));
    IBaseData* child = Record(key, {{L"LevelKey", Variant::Text(key)},
                                    {L"SliceID", Variant::Text(CommandValue(command, L"SlicedID"))},
                                    {L"Symbol", Variant::Text(CommandValue(command, L"SYMBOL"))},
                                    {L"Side", Variant::Text(CommandValue(command, L"SIDE"))},
                                    {L"OriginalQty", Variant::I4(qty)},
                                    {L"OrderQty", Variant::I4(qty)},
                                    {L"LeavesQty", Variant::I4(qty)},
                                    {L"CumQty", Variant::I4(0)},
                                    {L"OrderID", Variant::Text(L"")},
                                    {L"TimeInForce", Variant::I4(6)}});
    Topic(L"TRADE.HOT.MONTH", 1, 1, std::to_wstring(++order_index_),
          Variant::I4(static_cast<int32_t>(host_.Publish(child))));
    return child;
  }
  // One batch write by the host into an order record, then its events.
  void Write(IBaseData* record, const sim::FieldList& fields) {
    sim::SimHost::Write(record, fields);
    TsmWaitEventsDelivered();
  }
  void Acknowledge(IBaseData* child, const std::wstring& order_id) {
    Write(child, {{L"ExecType", Variant::I4(0)}, {L"OrderID", Variant::Text(order_id)}});
  }

  static int32_t ReadLong(IBaseData* record, const std::wstring& field) {
    const Variant value = sim::SimHost::Read(record, field);
    return value.type() == VarType::I4 ? value.i4() : -1;
  }
  bool WaitForRequest(const std::wstring& request) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPollDeadlineMs);
    for (;;) {
      for (const auto& r : RequestsBesideSecurityQueries()) {
        if (r == request) return true;
      }
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
  }

  int order_index_ = 0;
};

TEST_F(CancelFlowTest, VolumeSliceChildIsCancelledWhenVolumeCrossesAndNextChildIsCutFromTheCancelsFinalUpdate) {
  IBaseData* quote = host_.Topic(L"QX.F.HSI");
  SetVolume(quote, 5000);
  IBaseData* parent = SubmitParent(ParentFields(L"P1", L"S1", 3, 5, 1, L"QX.F.HSI", 300));
  EXPECT_TRUE(peer_.VolumeWatch().Contains(L"QX.F.HSI"));
  Advance(100);
  ASSERT_EQ(NewOrders().size(), 1u);
  EXPECT_EQ(CommandValue(NewOrders()[0], L"QTY"), L"100");
  EXPECT_EQ(CommandValue(NewOrders()[0], L"SlicedID"), L"S1");

  IBaseData* child = DeliverChild(L"C1");
  Acknowledge(child, L"X1");
  EXPECT_TRUE(Logged(L"Volume OrderInfo: Symbol=QX.F.HSI, TradeVolume=5000"));
  Write(child, {{L"ExecType", Variant::I4(1)}, {L"CumQty", Variant::I4(30)}, {L"LeavesQty", Variant::I4(70)}});
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());

  SetVolume(quote, 5003);
  ASSERT_TRUE(WaitForRequest(L"TRADE.CANCELORDER 2,1 REPORTID=C1"));
  EXPECT_TRUE(Logged(L"[Volume Sliced Send Cancel order] C1"));

  // The host cancels the child; its final update cuts the next child, which
  // carries the unfilled 70 on top of the slice size.
  Write(child, {{L"ExecType", Variant::I4(8)}, {L"LeavesQty", Variant::I4(0)}});
  Advance(100);
  ASSERT_EQ(NewOrders().size(), 2u);
  EXPECT_EQ(CommandValue(NewOrders()[1], L"QTY"), L"170");
  EXPECT_EQ(CommandValue(NewOrders()[1], L"SlicedID"), L"S1");
  EXPECT_EQ(ReadLong(parent, L"LeavesQty"), 100);
  EXPECT_EQ(Sent(L"TRADE.CANCELORDER").size(), 1u);
  {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    void* slot = nullptr;
    ASSERT_TRUE(peer_.VolumeWatch().Lookup(L"QX.F.HSI", slot));
    EXPECT_TRUE(static_cast<VolumeWatchEntry*>(slot)->arrLevelKeys.empty());
  }
}

TEST_F(CancelFlowTest, CancelAllOfParentWithTwoLiveChildrenSendsParentRequestThenEachChildsReportId) {
  IBaseData* parent = SubmitParent(ParentFields(L"P2", L"S2", 2, 1000, 0, L"QX.F.MHI", 500));
  Advance(100);
  IBaseData* first = DeliverChild(L"C1");
  Acknowledge(first, L"X1");
  Advance(1000);  // C1's step sends the next child; C1 keeps working
  ASSERT_EQ(NewOrders().size(), 2u);
  IBaseData* second = DeliverChild(L"C2");
  Acknowledge(second, L"X2");

  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 2, L"P2", Variant::I4(static_cast<int32_t>(host_.Publish(parent))));
  EXPECT_EQ(RequestsBesideSecurityQueries(),
            (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P2", L"TRADE.CANCELORDER 1,1 REPORTID=C1",
                                       L"TRADE.CANCELORDER 1,1 REPORTID=C2"}));
  EXPECT_TRUE(Logged(L"CancelOrderList :C1,C2"));

  // C2's own step finds nothing to work on, and the children's final updates
  // cut nothing more.
  Advance(1000);
  EXPECT_TRUE(Logged(L"m_mapLevelKeyToOrderData does not exist: LevelKey=C2"));
  Write(first, {{L"ExecType", Variant::I4(8)}, {L"LeavesQty", Variant::I4(0)}});
  Write(second, {{L"ExecType", Variant::I4(8)}, {L"LeavesQty", Variant::I4(0)}});
  Advance(30000);
  EXPECT_EQ(NewOrders().size(), 0u) << "events were cleared at the cancel";
  EXPECT_TRUE(Sent(L"TRADE.FAILORDER").empty());
  EXPECT_FALSE(peer_.OrderData().Contains(L"P2"));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S2"));
}

TEST_F(CancelFlowTest, CancelledSlicesQueuedChildGoesOutAsFailedOrder) {
  IBaseData* parent = SubmitParent(ParentFields(L"P3", L"S3", 1, 0, 0, L"QX.F.HHI", 300));
  Advance(100);
  IBaseData* child = DeliverChild(L"C1");
  Acknowledge(child, L"X1");
  Write(child, {{L"ExecType", Variant::I4(3)}, {L"CumQty", Variant::I4(100)}, {L"LeavesQty", Variant::I4(0)}});
  ASSERT_EQ(peer_.SendQueue().size(), 1u) << "the fill queued the next child";

  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 2, L"P3", Variant::I4(static_cast<int32_t>(host_.Publish(parent))));
  EXPECT_EQ(RequestsBesideSecurityQueries(),
            (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=P3", L"TRADE.CANCELORDER 1,1 REPORTID=C1"}));
  host_.ClearEvents();
  Advance(100);
  const auto failed = Sent(L"TRADE.FAILORDER");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].p1, 1);
  EXPECT_EQ(failed[0].p2, 1);
  EXPECT_EQ(CommandValue(failed[0].text, L"SlicedID"), L"S3");
  EXPECT_EQ(CommandValue(failed[0].text, L"QTY"), L"100");
  EXPECT_TRUE(Logged(L"[OnTimer] SlicedID=S3"));
  EXPECT_TRUE(Logged(L"[Sliced Send delete order] " + failed[0].text));
  EXPECT_TRUE(NewOrders().empty());

  // A child of the slice that the host delivers late is marked cancelled.
  IBaseData* late = Record(L"C9", {{L"LevelKey", Variant::Text(L"C9")}, {L"SliceID", Variant::Text(L"S3")},
                                   {L"ExecType", Variant::I4(0)}, {L"LeavesQty", Variant::I4(100)}});
  Topic(L"TRADE.HOT.MONTH", 1, 1, L"9", Variant::I4(static_cast<int32_t>(host_.Publish(late))));
  EXPECT_TRUE(Logged(L"Cancel SliceOrder:C9"));
  EXPECT_EQ(ReadLong(late, L"ExecType"), 8);
  EXPECT_EQ(ReadLong(late, L"LeavesQty"), 0);
}

TEST_F(CancelFlowTest, SingleCancelOfTimedChildKeepsItsRecordForItsTimerStep) {
  SubmitParent(ParentFields(L"P4", L"S4", 2, 1000, 0, L"QX.F.MCH", 300));
  Advance(100);
  IBaseData* child = DeliverChild(L"C1");
  Acknowledge(child, L"X1");
  ASSERT_TRUE(peer_.OrderToTimer().Contains(L"C1"));

  host_.ClearEvents();
  Topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 1, L"C1", Variant::I4(static_cast<int32_t>(host_.Publish(child))));
  EXPECT_TRUE(Logged(L"CancelSliceOrder:C1, X1, 0, 0, 0"));
  EXPECT_EQ(RequestsBesideSecurityQueries(), (std::vector<std::wstring>{L"TRADE.PRICE.TRIGGER.CANCEL 1,1 LevelKey=C1"}));
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
  EXPECT_TRUE(peer_.CancelledOrders().Contains(L"C1"));

  // The host cancels it; a timed slice moves on only at the child's step.
  Write(child, {{L"ExecType", Variant::I4(8)}, {L"LeavesQty", Variant::I4(0)}});
  EXPECT_TRUE(NewOrders().empty());
  Advance(1000);
  ASSERT_EQ(NewOrders().size(), 1u);
  EXPECT_EQ(CommandValue(NewOrders()[0], L"QTY"), L"100");
  EXPECT_EQ(CommandValue(NewOrders()[0], L"SlicedID"), L"S4");
  EXPECT_FALSE(peer_.OrderData().Contains(L"C1")) << "the step retires a cancelled child's record";
}

}  // namespace
}  // namespace tsm
