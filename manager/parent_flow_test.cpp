// Whole parents end to end on the virtual clock: the host hands a parent over
// with "TRADE.SLICE.MANAGER", turns every new-order command it receives into
// a child record of its own, delivers it with "TRADE.HOT.MONTH" and reports
// acknowledgements and fills by writing into that record; the manager answers
// with the next children, the leftover actions and the parent's final portion.
#include <algorithm>
#include <string>
#include <vector>

#include "slicehost/exchange.h"
#include "testing/manager_fixture.h"

namespace tsm {
namespace {

// 09:30~11:30;13:00~15:00: open at the fixture's 09:30.
const wchar_t kOpenSymbol[] = L"QX.F.CN.IF2612";
// 09:31~11:30: opens one minute after the fixture's 09:30.
const wchar_t kLateSymbol[] = L"QX.F.DL.M2701";

Variant T(const std::wstring& text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

// References held on a component object.
uint32_t RefCount(IBaseData* object) {
  object->AddRef();
  return object->Release();
}

// The command the manager builds for a child of the parents below: template
// A for the sliced kinds, template B (with its synthetic flag) for slice-all.
std::wstring Command(const std::wstring& symbol, int32_t qty, const std::wstring& slice_id,
                     const std::wstring& level_key, bool slice_all = false,
                     const std::wstring& synthetic = L"-2147483648") {
  return L"TYPE=F,BROKERID=B1,ACCOUNT=A1,SYMBOL=" + symbol + L",SYMBOLA=,SYMBOLB=,SIDE=B,SIDE1=,SIDE2=,QTY=" +
         std::to_wstring(qty) +
         L",PRICE=12345,PRICESTRING=123.45,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
         L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
         L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,TOUCHCONDITION=-2147483648,"
         L"ORDERTYPE=2,POSITIONEFFECT=-2147483648,TIMEINFORCE=0,SYNTHETIC=" +
         synthetic + L",GROUPTYPE=1,GROUPID=G1," + (slice_all ? L"" : L"GROUPMASTER=0,") +
         L"CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=" + slice_id +
         L",SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1," +
         (slice_all ? L"SlicedType=4,DiscloseQty=0," : L"") + L"ContingentSymbol=,GroupPrefix=,OriLevelKey=" +
         level_key + L",SpreadID=,Sliced=1";
}

class ParentFlowTest : public ManagerTest {
 protected:
  void SetUp() override {
    host_.Topic(L"NordaSystemTime");
    PublishSessions(L"QX.F.CN", kOpenSymbol, L"09:30~11:30;13:00~15:00");
    PublishSessions(L"QX.F.DL", kLateSymbol, L"09:31~11:30");
    Start();
    host_.ClearEvents();
  }

  void PublishSessions(const std::wstring& product, const std::wstring& security, const std::wstring& text) {
    IBaseData* entry = Record(L"entry", {{security, T(L"{\"OpenCloseTime\":\"" + text + L"\"}")}});
    TsmSetChild(host_.Topic(L"Security.Info"), product.c_str(), entry);
  }

  // A parent of 1,000 with a disclosed size of 300 and no variance: every
  // slice is 300 (the random draw is 0 and futures have no lot).
  static sim::FieldList Fields(const std::wstring& level_key, const std::wstring& slice_id, int32_t sliced_type,
                               int32_t interval, int32_t leftover_action,
                               const std::wstring& symbol = kOpenSymbol) {
    return {{L"LevelKey", T(level_key)},
            {L"SliceID", T(slice_id)},
            {L"SlicedType", I4(sliced_type)},
            {L"Interval", I4(interval)},
            {L"LeftoverAction", I4(leftover_action)},
            {L"Symbol", T(symbol)},
            {L"SecurityType", T(L"F")},
            {L"BrokerID", T(L"B1")},
            {L"Account", T(L"A1")},
            {L"Side", T(L"B")},
            {L"OrderQty", I4(1000)},
            {L"LeavesQty", I4(1000)},
            {L"SendQty", I4(1000)},
            {L"DiscloseQty", I4(300)},
            {L"Variance", I4(0)},
            {L"Price", Variant::I8(12345)},
            {L"PriceString", T(L"123.45")},
            {L"OrderType", I4(2)},
            {L"TimeInForce", I4(0)},
            {L"GroupType", I4(1)},
            {L"GroupID", T(L"G1")}};
  }

  struct Parent {
    IBaseData* object;
    uint32_t cookie;
  };

  // The host hands a parent over; the record is named by its level key.
  Parent Keep(const sim::FieldList& fields, int32_t order_index) {
    std::wstring level_key;
    for (const auto& field : fields) {
      if (field.first == L"LevelKey") level_key = field.second.text();
    }
    IBaseData* object = Record(level_key, fields);
    const uint32_t cookie = host_.Publish(object);
    Topic(L"TRADE.SLICE.MANAGER", 0, 0, std::to_wstring(order_index), I4(static_cast<int32_t>(cookie)));
    return {object, cookie};
  }

  // The host turns the latest new-order command into its child record `key`
  // and delivers it.
  IBaseData* DeliverChild(const std::wstring& key) {
    const auto commands = NewOrders();
    EXPECT_FALSE(commands.empty());
    const std::wstring command = commands.empty() ? std::wstring() : commands.back();
    const int32_t qty = std::stoi(L"0" + sim::CommandValue(command, L"QTY"));
    IBaseData* child = Record(key, {{L"LevelKey", T(key)},
                                    {L"SliceID", T(sim::CommandValue(command, L"SlicedID"))},
                                    {L"Symbol", T(sim::CommandValue(command, L"SYMBOL"))},
                                    {L"Side", T(sim::CommandValue(command, L"SIDE"))},
                                    {L"TimeInForce", I4(std::stoi(sim::CommandValue(command, L"TIMEINFORCE")))},
                                    {L"OriginalQty", I4(qty)},
                                    {L"OrderQty", I4(qty)},
                                    {L"LeavesQty", I4(qty)},
                                    {L"CumQty", I4(0)},
                                    {L"OrderID", T(L"")}});
    Topic(L"TRADE.HOT.MONTH", 1, 1, std::to_wstring(++order_index_), I4(static_cast<int32_t>(host_.Publish(child))));
    return child;
  }

  // One batch write by the host into a record, then its events.
  void Write(IBaseData* record, const sim::FieldList& fields) {
    sim::SimHost::Write(record, fields);
    TsmWaitEventsDelivered();
  }
  void Acknowledge(IBaseData* child, const std::wstring& order_id) {
    Write(child, {{L"ExecType", I4(0)}, {L"OrderID", T(order_id)}});
  }
  void Fill(IBaseData* child, int32_t cum_qty, int32_t leaves_qty) {
    Write(child,
          {{L"ExecType", I4(leaves_qty == 0 ? 3 : 1)}, {L"CumQty", I4(cum_qty)}, {L"LeavesQty", I4(leaves_qty)}});
  }

  static std::wstring NewOrder(const std::wstring& command) { return L"TRADE.NEWORDER 1,2 " + command; }

  static int32_t ReadLong(IBaseData* record, const std::wstring& field) {
    const Variant value = sim::SimHost::Read(record, field);
    return value.type() == VarType::I4 ? value.i4() : -1;
  }
  // "OrderQty", "LeavesQty" and "SendQty" of a parent, which always agree.
  static void ExpectQuantities(IBaseData* parent, int32_t qty) {
    EXPECT_EQ(ReadLong(parent, L"OrderQty"), qty);
    EXPECT_EQ(ReadLong(parent, L"LeavesQty"), qty);
    EXPECT_EQ(ReadLong(parent, L"SendQty"), qty);
  }

  size_t LogCount(const std::wstring& text) const {
    const auto logs = Logs();
    return static_cast<size_t>(std::count(logs.begin(), logs.end(), Log(text)));
  }

  // A timed parent P1 of slice S1 stepping every second with the leftover
  // action given. Its first child C1 goes out at 100 ms, is delivered and
  // acknowledged, and 100 of its 300 are filled; the clock is then moved to
  // the step of C1 (1,100 ms), with the events cleared just before.
  Parent TimedParentToFirstStep(int32_t leftover_action, IBaseData** first_child) {
    Parent parent = Keep(Fields(L"P1", L"S1", 2, 1000, leftover_action), 3);
    Advance(100);
    EXPECT_EQ(NewOrders(), (std::vector<std::wstring>{Command(kOpenSymbol, 300, L"S1", L"P1")}));
    IBaseData* child = DeliverChild(L"C1");
    EXPECT_TRUE(Logged(L"Timer Order: Interval=1000, LeftoverAction=" + std::to_wstring(leftover_action)));
    Acknowledge(child, L"X1");
    Fill(child, 100, 200);
    host_.ClearEvents();
    Advance(999);
    EXPECT_TRUE(Requests().empty()) << "a timed slice moves on only at its child's step";
    Advance(1);
    *first_child = child;
    return parent;
  }

  int order_index_ = 10;
};

// Iceberg (type 1).

TEST_F(ParentFlowTest, IcebergCutsThreeChildrenAsEachFillsThenSendsTheFinalHundredAndFreesTheChildrenLater) {
  Parent parent = Keep(Fields(L"P1", L"S1", 1, 0, 0), 3);
  ExpectQuantities(parent.object, 700);
  const std::wstring child_command = Command(kOpenSymbol, 300, L"S1", L"P1");
  const int32_t left_after_fill[] = {400, 100, 100};
  std::vector<IBaseData*> children;
  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    Advance(99);
    EXPECT_EQ(NewOrders().size(), static_cast<size_t>(i));
    Advance(1);
    const auto sent = Sent(L"TRADE.NEWORDER");
    ASSERT_EQ(sent.size(), static_cast<size_t>(i + 1));
    EXPECT_EQ(sent.back().t_ms, 100 * (i + 1));
    EXPECT_EQ(sent.back().text, child_command);
    IBaseData* child = DeliverChild(L"C" + std::to_wstring(i + 1));
    Acknowledge(child, L"X" + std::to_wstring(i + 1));
    EXPECT_EQ(peer_.SendQueue().size(), 0u) << "an acknowledgement cuts nothing";
    Fill(child, 300, 0);
    ExpectQuantities(parent.object, left_after_fill[i]);
    children.push_back(child);
  }
  // The third fill leaves 100, which fits one slice: no fourth child, the
  // parent itself goes back to the host as its final portion at timer 102.
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  Advance(9);
  EXPECT_TRUE(Sent(L"TRADE.HOT.MONTH").empty());
  Advance(1);
  const auto final_portion = Sent(L"TRADE.HOT.MONTH");
  ASSERT_EQ(final_portion.size(), 1u);
  EXPECT_EQ(final_portion[0].t_ms, 310);
  EXPECT_EQ(final_portion[0].p1, 1);
  EXPECT_EQ(final_portion[0].p2, 1);
  EXPECT_EQ(final_portion[0].text, L"3");
  EXPECT_EQ(final_portion[0].data_json, "{\"record\":\"P1\"}");
  ExpectQuantities(parent.object, 100);
  EXPECT_TRUE(Logged(L"[Sliced Send End order] P1"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  EXPECT_TRUE(peer_.FinishLevelKey().Contains(L"P1"));
  EXPECT_EQ(NewOrders().size(), 3u);

  // Retirement was first asked at the first fill (100 ms): timer 103 retires
  // the three listened children at 10.1 s, timer 104 frees them at 20.1 s.
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1", L"C2", L"C3"}));
  Advance(10099 - 310);
  for (const wchar_t* key : {L"C1", L"C2", L"C3"}) EXPECT_TRUE(peer_.ListenedOrders().Contains(key)) << key;
  Advance(1);
  for (const wchar_t* key : {L"C1", L"C2", L"C3"}) EXPECT_FALSE(peer_.ListenedOrders().Contains(key)) << key;
  EXPECT_TRUE(peer_.Cleanup().empty());
  EXPECT_EQ(peer_.RetiredRecords().size(), 3u);
  std::vector<uint32_t> refs;
  for (IBaseData* child : children) refs.push_back(RefCount(child));
  Advance(9999);
  EXPECT_EQ(peer_.RetiredRecords().size(), 3u);
  Advance(1);
  EXPECT_TRUE(peer_.RetiredRecords().empty());
  for (size_t i = 0; i < children.size(); ++i) EXPECT_EQ(RefCount(children[i]), refs[i] - 1) << i;

  // A retired child's changes no longer reach the manager.
  const size_t logs = Logs().size();
  Write(children[0], {{L"ExecType", I4(8)}});
  EXPECT_EQ(Logs().size(), logs);
}

// Timed (type 2): the per-order step.

TEST_F(ParentFlowTest, TimedStepWithLeftoverActionZeroSendsTheNextSliceAndNoRequestForTheChild) {
  IBaseData* child = nullptr;
  Parent parent = TimedParentToFirstStep(0, &child);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{NewOrder(Command(kOpenSymbol, 300, L"S1", L"P1"))}));
  EXPECT_EQ(Sent(L"TRADE.NEWORDER")[0].t_ms, 1100);
  EXPECT_TRUE(Logged(L"[Sliced Info] :C1, 2,1000,0"));
  ExpectQuantities(parent.object, 400);
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
}

TEST_F(ParentFlowTest, TimedStepWithLeftoverActionOneSendsTheNextSliceWithTheRestThenCancelsTheChild) {
  IBaseData* child = nullptr;
  Parent parent = TimedParentToFirstStep(1, &child);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{NewOrder(Command(kOpenSymbol, 500, L"S1", L"P1")),
                                                   L"TRADE.CANCELORDER 2,1 REPORTID=C1"}));
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER")[0].data.IsEmpty());
  // The unfilled 200 enlarges the next child and is not charged to the parent.
  ExpectQuantities(parent.object, 400);
}

TEST_F(ParentFlowTest, TimedStepWithLeftoverActionTwoSendsTheNextSliceThenReplacesTheChild) {
  IBaseData* child = nullptr;
  Parent parent = TimedParentToFirstStep(2, &child);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{NewOrder(Command(kOpenSymbol, 300, L"S1", L"P1")),
                                                   L"TRADE.REPLACEORDER 2,1 REPORTID=C1,TYPE=6,TIMEINFORCE=1"}));
  EXPECT_TRUE(Sent(L"TRADE.REPLACEORDER")[0].data.IsEmpty());
  ExpectQuantities(parent.object, 400);
}

TEST_F(ParentFlowTest, TimedParentWithLeftoverActionOneRollsEveryUnfilledRestOverUpToItsFinalOrder) {
  IBaseData* first = nullptr;
  Parent parent = TimedParentToFirstStep(1, &first);  // C2 of 200 + 300 out at 1,100 ms
  IBaseData* second = DeliverChild(L"C2");
  Acknowledge(second, L"X2");
  // The host carries out the cancel of C1; the slice does not move on for it.
  Write(first, {{L"ExecType", I4(8)}, {L"LeavesQty", I4(0)}});
  EXPECT_EQ(NewOrders().size(), 1u);
  Fill(second, 200, 300);

  host_.ClearEvents();
  Advance(1000);  // C2's step: 400 left, the next child is 300 + C2's unfilled 300
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{NewOrder(Command(kOpenSymbol, 600, L"S1", L"P1")),
                                                   L"TRADE.CANCELORDER 2,1 REPORTID=C2"}));
  ExpectQuantities(parent.object, 100);
  IBaseData* third = DeliverChild(L"C3");
  Acknowledge(third, L"X3");

  host_.ClearEvents();
  Advance(1000);  // C3's step: the 100 left fits one slice and takes C3's 600
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.CANCELORDER 2,1 REPORTID=C3"}));
  ExpectQuantities(parent.object, 700);
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  Advance(10);
  EXPECT_EQ(Requests(),
            (std::vector<std::wstring>{L"TRADE.CANCELORDER 2,1 REPORTID=C3", L"TRADE.HOT.MONTH 1,1 3"}));
  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH")[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH")[0].t_ms, 3110);
}

// Slice-all (types 4 and 5).

TEST_F(ParentFlowTest, SliceAllSendsItsBatchAt50msAndItsFinalHundredAtTimer102) {
  Parent parent = Keep(Fields(L"P1", L"S1", 4, 0, 0), 3);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_TRUE(peer_.TimerArmed(CTradeSliceManager::kTimerFinish));
  ExpectQuantities(parent.object, 100);
  Advance(49);
  EXPECT_TRUE(Requests().empty());
  Advance(1);
  const std::wstring child = NewOrder(Command(kOpenSymbol, 300, L"S1", L"P1", true));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{child, child, child}));
  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.HOT.MONTH").empty());
  Advance(1);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{child, child, child, L"TRADE.HOT.MONTH 1,1 3"}));
  const auto final_portion = Sent(L"TRADE.HOT.MONTH");
  EXPECT_EQ(final_portion[0].t_ms, 100);
  EXPECT_EQ(final_portion[0].data_json, "{\"record\":\"P1\"}");
  ExpectQuantities(parent.object, 100);
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  Advance(1000);
  EXPECT_EQ(Requests().size(), 4u);
}

TEST_F(ParentFlowTest, ReleasedSliceAllWaitsForSliceOrderThenEndsWithAPositionTransfer) {
  Parent parent = Keep(Fields(L"P1", L"S1", 5, 0, 0), 3);
  // Kept, not sliced: the end-of-slicing timer hands the parent back to the
  // host at once, and it stays registered.
  Advance(10);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.HOT.MONTH 1,1 3"}));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));
  Advance(990);
  EXPECT_EQ(Requests().size(), 1u);
  ExpectQuantities(parent.object, 1000);

  Topic(L"TRADE.SLICE.ORDER", 0, 0, L"", I4(static_cast<int32_t>(parent.cookie)));
  EXPECT_TRUE(peer_.SliceAllSet().Contains(L"S1"));
  ExpectQuantities(parent.object, 100);
  Advance(49);
  EXPECT_EQ(Requests().size(), 1u);
  Advance(1);
  const std::wstring child = NewOrder(Command(kOpenSymbol, 300, L"S1", L"P1", true, L"0"));
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.HOT.MONTH 1,1 3", child, child, child}));
  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.TRANSFER.POSITION").empty());
  Advance(1);
  EXPECT_EQ(Requests(), (std::vector<std::wstring>{L"TRADE.HOT.MONTH 1,1 3", child, child, child,
                                                   L"TRADE.TRANSFER.POSITION 1,1 "}));
  const auto transfer = Sent(L"TRADE.TRANSFER.POSITION");
  EXPECT_EQ(transfer[0].t_ms, 1100);
  EXPECT_EQ(transfer[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  EXPECT_TRUE(peer_.FinishLevelKey().Contains(L"P1"));
}

// Orders held back outside their session.

TEST_F(ParentFlowTest, TwoParentsParkedBeforeTheirSessionAreReleasedByOneTimer105FromASystemTimeTick) {
  Keep(Fields(L"P1", L"S1", 1, 0, 0, kLateSymbol), 3);
  Keep(Fields(L"P2", L"S2", 1, 0, 0, kLateSymbol), 4);
  EXPECT_EQ(LogCount(L"CheckOpenCloseTime:0, 93000, 93100, 93100 ~ 113000"), 2u);
  for (const wchar_t* key : {L"P1", L"P2"}) {
    void* slot = nullptr;
    ASSERT_TRUE(peer_.WaitOpenOrders().Lookup(key, slot)) << key;
    EXPECT_EQ(static_cast<stcWaitOrder*>(slot)->nOpenTime, 93100) << key;
    EXPECT_FALSE(peer_.OrderData().Contains(key)) << key;
  }
  Advance(50000);  // 09:30:50
  EXPECT_TRUE(Requests().empty());

  // The host's clock reaches 09:30:50: both sessions open within the minute,
  // 10 s from now, so one timer 105 is armed for 11 s.
  Write(host_.Topic(L"NordaSystemTime"),
        {{L"SystemDate", I4(20261123)}, {L"SystemTime", I4(93050)}, {L"TimeDiff", I4(0)}});
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=P1, 93100, 93150"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=P2, 93100, 93150"));
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  Advance(10999);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 2);
  Advance(1);  // 09:31:01
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
  EXPECT_EQ(LogCount(L"KeepSliceOrder(1):P1,1,0,0, lOrdIndex=3"), 2u);
  EXPECT_EQ(LogCount(L"KeepSliceOrder(1):P2,1,0,0, lOrdIndex=4"), 2u);
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));
  EXPECT_TRUE(peer_.OrderData().Contains(L"P2"));

  Advance(99);
  EXPECT_TRUE(Requests().empty());
  Advance(1);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].t_ms, 61100);
  EXPECT_EQ(sent[1].t_ms, 61100);
  std::vector<std::wstring> texts = {sent[0].text, sent[1].text};
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(texts, (std::vector<std::wstring>{Command(kLateSymbol, 300, L"S1", L"P1"),
                                              Command(kLateSymbol, 300, L"S2", L"P2")}));
}

}  // namespace
}  // namespace tsm
