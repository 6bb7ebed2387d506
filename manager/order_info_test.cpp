#include "manager/trade_slice_manager.h"
#include "testing/manager_fixture.h"

namespace tsm {
namespace {

Variant T(const std::wstring& text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

uint32_t RefCount(IBaseData* object) {
  object->AddRef();
  return object->Release();
}

class OrderInfoTest : public ManagerTest {
 protected:
  // A timed slice "S1" of parent "P1" as the registry keeps it.
  void TimedSlice(const wchar_t* params = L"2,5000,1") {
    peer_.SliceIdToLevelKey().SetAt(L"S1", L"P1");
    peer_.SliceParams().SetAt(L"S1", params);
  }

  IBaseData* Order(const std::wstring& level_key, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", T(level_key)}, {L"SliceID", T(L"S1")}, {L"SlicedType", I4(0)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    return Record(L"order", fields);
  }

  void Deliver(IBaseData* order, int32_t index = 3) {
    Topic(L"TRADE.HOT.MONTH", 0, 0, std::to_wstring(index), I4(static_cast<int32_t>(host_.Publish(order))));
  }

  std::vector<std::wstring> LogsSince(size_t first) {
    const auto all = Logs();
    return std::vector<std::wstring>(all.begin() + static_cast<std::ptrdiff_t>(first), all.end());
  }
};

TEST_F(OrderInfoTest, OrderWithoutSliceIdIsIgnoredApartFromTheEndLine) {
  IBaseData* order = Record(L"order", {{L"LevelKey", T(L"C1")}});
  Deliver(order);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.HOT.MONTH, 3"), Log(L"ParseOrderInfo:End")}));
  EXPECT_FALSE(peer_.OrderData().Contains(L"C1"));
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
}

TEST_F(OrderInfoTest, UnresolvableCookieEndsSilently) {
  Topic(L"TRADE.HOT.MONTH", 0, 0, L"3", I4(987654));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.HOT.MONTH, 3")}));
}

TEST_F(OrderInfoTest, SameOrderDeliveredTwiceIsListenedToOnce) {
  IBaseData* order = Order(L"C1");
  Deliver(order);
  const size_t first = Logs().size();
  const uint32_t refs = RefCount(order);
  void* listened = nullptr;
  ASSERT_TRUE(peer_.ListenedOrders().Lookup(L"C1", listened));

  Deliver(order);
  EXPECT_EQ(LogsSince(first),
            (std::vector<std::wstring>{Log(L"SetTopic:TRADE.HOT.MONTH, 3"), Log(L"ParseOrderInfo:End")}));
  // The second delivery's record is gone again; the first listened one stays.
  EXPECT_EQ(RefCount(order), refs);
  void* still = nullptr;
  ASSERT_TRUE(peer_.ListenedOrders().Lookup(L"C1", still));
  EXPECT_EQ(still, listened);
  CString listed;
  peer_.SliceToListened().Text(L"S1", listed);
  EXPECT_EQ(listed, L"C1");
}

TEST_F(OrderInfoTest, OrderOfACancelledSliceIsMarkedCancelledWithoutAnEndLine) {
  peer_.CancelledSlices().SetAt(L"S1", L"S1");
  IBaseData* order = Order(L"C1", {{L"ExecType", I4(0)}, {L"LeavesQty", I4(300)}});
  const uint32_t refs = RefCount(order);
  Deliver(order);

  EXPECT_EQ(sim::SimHost::Read(order, L"ExecType"), I4(8));
  EXPECT_EQ(sim::SimHost::Read(order, L"LeavesQty"), I4(0));
  EXPECT_TRUE(Logged(L"Cancel SliceOrder:C1"));
  EXPECT_FALSE(Logged(L"ParseOrderInfo:End"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"C1"));
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
  // The interface table keeps the one reference Publish added.
  EXPECT_EQ(RefCount(order), refs + 1);
}

TEST_F(OrderInfoTest, IntakeIsLoggedWithTheOrdersFields) {
  Deliver(Order(L"C1", {{L"ExecType", I4(0)}, {L"GroupType", I4(1)}}));
  EXPECT_TRUE(Logged(L"ParseOrderInfo: LevelKey=C1, ExecType=0, SliceID=S1, GroupType=1"));
  EXPECT_TRUE(Logged(L"ParseOrderInfo: Listen=C1"));
  EXPECT_TRUE(Logged(L"ParseOrderInfo:End"));
}

TEST_F(OrderInfoTest, AbsentExecTypeAndGroupTypeAreLoggedAsTheLeastValue) {
  Deliver(Order(L"C1"));
  EXPECT_TRUE(Logged(L"ParseOrderInfo: LevelKey=C1, ExecType=-2147483648, SliceID=S1, GroupType=-2147483648"));
}

TEST_F(OrderInfoTest, ChildIsRegisteredUnderItsLevelKeyWithItsIndex) {
  Deliver(Order(L"C1"), 12);
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
  int32_t index = -1;
  EXPECT_TRUE(peer_.OrderIndex().Lookup(L"C1", index));
  EXPECT_EQ(index, 12);
  CString slice;
  EXPECT_TRUE(peer_.ListenedSlice().Lookup(L"C1", slice));
  EXPECT_EQ(slice, L"S1");
}

TEST_F(OrderInfoTest, ChildrenOfOneSliceAreListedInArrivalOrder) {
  Deliver(Order(L"C1"));
  Deliver(Order(L"C2"));
  Deliver(Order(L"C3"));
  CString listed;
  EXPECT_TRUE(peer_.SliceToListened().Text(L"S1", listed));
  EXPECT_EQ(listed, L"C1,C2,C3");
}

TEST_F(OrderInfoTest, GroupTypeTwoChildCountsTowardsItsParent) {
  peer_.SliceIdToLevelKey().SetAt(L"S1", L"P1");
  Deliver(Order(L"C1", {{L"GroupType", I4(2)}}));
  Deliver(Order(L"C2", {{L"GroupType", I4(2)}}));
  Deliver(Order(L"C3", {{L"GroupType", I4(1)}}));
  int32_t count = 0;
  EXPECT_TRUE(peer_.GroupCount().Lookup(L"P1", count));
  EXPECT_EQ(count, 2);
}

TEST_F(OrderInfoTest, GroupTypeTwoChildOfAnUnknownSliceCountsNothing) {
  Deliver(Order(L"C1", {{L"GroupType", I4(2)}}));
  EXPECT_EQ(peer_.GroupCount().GetCount(), 0);
}

TEST_F(OrderInfoTest, SliceAllChildIsRegisteredAndListedButNotListenedTo) {
  Deliver(Order(L"C1", {{L"SlicedType", I4(4)}}));
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
  CString listed;
  EXPECT_TRUE(peer_.SliceToListened().Text(L"S1", listed));
  EXPECT_EQ(listed, L"C1");
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
  EXPECT_FALSE(peer_.ListenedOrders().Contains(L"C1"));
  EXPECT_FALSE(Logged(L"ParseOrderInfo: Listen=C1"));
  EXPECT_TRUE(Logged(L"ParseOrderInfo:End"));
}

TEST_F(OrderInfoTest, ListenedChildReportsItsChanges) {
  IBaseData* order = Order(L"C1");
  Deliver(order);
  sim::SimHost::Write(order, {{L"ExecType", I4(0)}});
  Advance(0);
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=0"));
}

TEST_F(OrderInfoTest, TimedChildOfSlicedTypeZeroGetsAPerOrderTimer) {
  TimedSlice();
  Deliver(Order(L"C1"));
  EXPECT_TRUE(Logged(L"Timer Order: Interval=5000, LeftoverAction=1"));
  CString key;
  EXPECT_TRUE(peer_.TimerToOrder().Lookup(L"3001", key));
  EXPECT_EQ(key, L"C1");
  CString id;
  EXPECT_TRUE(peer_.OrderToTimer().Lookup(L"C1", id));
  EXPECT_EQ(id, L"3001");

  // The step comes after the order's interval.
  Advance(4999);
  EXPECT_FALSE(Logged(L"[Sliced Info] :C1, 2,5000,1"));
  Advance(1);
  EXPECT_TRUE(Logged(L"m_mapLevelKeyToOrderData not exist:C1 ,P1"));
  EXPECT_TRUE(Logged(L"[Sliced Info] :C1, 2,5000,1"));
}

TEST_F(OrderInfoTest, ChildWhoseOwnSlicedTypeIsNotZeroGetsNoTimerEvenInATimedSlice) {
  TimedSlice();
  Deliver(Order(L"C1", {{L"SlicedType", I4(2)}}));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
  EXPECT_TRUE(peer_.ListenedSlice().Contains(L"C1"));
}

TEST_F(OrderInfoTest, ChildOfSlicedTypeZeroGetsNoTimerWhenItsSliceIsNotTimed) {
  TimedSlice(L"1,5000,1");
  Deliver(Order(L"C1"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
}

TEST_F(OrderInfoTest, ChildWithoutSliceParametersGetsNoTimer) {
  Deliver(Order(L"C1"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
}

TEST_F(OrderInfoTest, ClientModifiedOrChasedChildGetsNoTimer) {
  TimedSlice();
  Deliver(Order(L"C1", {{L"ClientModifyNew", I4(1)}}));
  Deliver(Order(L"C2", {{L"NewChase", I4(1)}}));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C2"));
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
}

TEST_F(OrderInfoTest, ChildThatHasATimerAlreadyKeepsIt) {
  TimedSlice();
  peer_.OrderToTimer().SetAt(L"C1", L"4444");
  Deliver(Order(L"C1"));
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
  EXPECT_FALSE(Logged(L"Timer Order: Interval=5000, LeftoverAction=1"));
}

TEST_F(OrderInfoTest, TimedChildOfAParentWithoutIntervalNeverGetsItsStep) {
  // A type 2 parent without "Interval" keeps -2147483648 in its parameters;
  // its children's timers are armed with it and, as on Windows, never fire.
  TimedSlice(L"2,-2147483648,1");
  Deliver(Order(L"C1"));
  EXPECT_TRUE(Logged(L"Timer Order: Interval=-2147483648, LeftoverAction=1"));
  Advance(100000);
  EXPECT_TRUE(peer_.OrderToTimer().Contains(L"C1"));
  EXPECT_FALSE(Logged(L"[Sliced Info] :C1, 2,-2147483648,1"));
  EXPECT_TRUE(Sent(L"TRADE.CANCELORDER").empty());
}

TEST_F(OrderInfoTest, After2000TimedOrdersTheIdsWrapTo3001) {
  // A short interval: each order's step runs before the next order comes, so
  // the ids are handed out by the intake alone.
  TimedSlice(L"2,1,0");
  CString id;
  for (int i = 1; i <= 2000; ++i) {
    const std::wstring key = L"C" + std::to_wstring(i);
    Deliver(Order(key));
    ASSERT_TRUE(peer_.OrderToTimer().Lookup(key, id));
    ASSERT_EQ(id, CString::Formatted(L"%ld", 3000 + i));
    Advance(1);
  }
  Deliver(Order(L"C2001"));
  EXPECT_TRUE(peer_.OrderToTimer().Lookup(L"C2001", id));
  EXPECT_EQ(id, L"3001");
  CString key;
  EXPECT_TRUE(peer_.TimerToOrder().Lookup(L"3001", key));
  EXPECT_EQ(key, L"C2001");
}

TEST_F(OrderInfoTest, OrderTakenInAgainAfterItEndedIsHeardTwiceUntilTimer103ThenOnce) {
  // A parent "P1" of slice "S1" that cuts its next slice when a child fills.
  peer_.OrderData().SetAt(L"P1", CBaseData::FromCookie(Publish(L"order", {{L"LevelKey", T(L"P1")},
                                                                          {L"SliceID", T(L"S1")},
                                                                          {L"LeavesQty", I4(700)},
                                                                          {L"SlicedType", I4(1)},
                                                                          {L"DiscloseQty", I4(300)},
                                                                          {L"SecurityType", T(L"F")},
                                                                          {L"Symbol", T(L"QX.F.TW.TXF")}}),
                                                       nullptr, &clock_));
  peer_.OrderIndex().SetAt(L"P1", 0);
  TimedSlice(L"1,5000,0");
  IBaseData* order = Order(L"C1", {{L"OriginalQty", I4(300)}, {L"LeavesQty", I4(300)}, {L"CumQty", I4(0)},
                                   {L"Symbol", T(L"QX.F.TW.TXF")}});
  Deliver(order);
  // The host replaces the order itself: it is cleaned up (timer 103 in 10 s)
  // and the host may deliver it again before that, after renumbering its
  // order set.
  sim::SimHost::Write(order, {{L"ExecType", I4(8)}, {L"ClientModify", I4(1)}});
  Advance(0);
  sim::SimHost::Write(order, {{L"ExecType", I4(0)}, {L"ClientModify", I4(0)}});
  Advance(0);
  Deliver(order);
  auto heard = [&](int32_t exec_type) {
    const size_t first = Logs().size();
    sim::SimHost::Write(order, {{L"ExecType", I4(exec_type)}});
    Advance(0);
    const std::wstring line = Log(CString::Formatted(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=%ld",
                                                     exec_type).wstr());
    size_t count = 0;
    for (const std::wstring& logged : LogsSince(first)) count += logged == line;
    return count;
  };
  // The earlier listened record still reports, out of every map, and so
  // does the new one.
  EXPECT_EQ(heard(12), 2u);
  // Timer 103 retires what the listened-order map holds: the new record.
  Advance(10000);
  EXPECT_EQ(heard(13), 1u);
  // The fill is still heard, and the next slice follows it.
  sim::SimHost::Write(order, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  Advance(0);
  EXPECT_TRUE(Logged(L"OnDataUpdate : Original LevelKey=P1"));
  Advance(100);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

}  // namespace
}  // namespace tsm
