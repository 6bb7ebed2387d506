#include "manager/trade_slice_manager.h"
#include "slicehost/exchange.h"
#include "testing/manager_fixture.h"

namespace tsm {
namespace {

constexpr const wchar_t* kSymbol = L"QX.F.TW.TXF";

Variant T(const wchar_t* text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

int32_t QtyOf(const CString& command) { return WToL(sim::CommandValue(command.wstr(), L"QTY")); }

// The registry's state for one parent "P1" of slice "S1" with one finished
// child "C1": every record is owned by the manager's maps, as after intake.
class FollowingSliceTest : public ManagerTest {
 protected:
  CBaseData* Owned(const sim::FieldList& fields) {
    return CBaseData::FromCookie(Publish(L"order", fields), nullptr, &clock_);
  }

  CBaseData* Parent(int32_t leaves, int32_t sliced_type, int32_t disclose, int32_t leftover_action = 0,
                    const sim::FieldList& extra = {}) {
    sim::FieldList fields = {{L"LevelKey", T(L"P1")},          {L"SliceID", T(L"S1")},
                             {L"OrderQty", I4(leaves)},        {L"LeavesQty", I4(leaves)},
                             {L"SendQty", I4(leaves)},         {L"SlicedType", I4(sliced_type)},
                             {L"DiscloseQty", I4(disclose)},   {L"Variance", I4(0)},
                             {L"SecurityType", T(L"F")},       {L"Symbol", T(kSymbol)},
                             {L"Side", T(L"B")},               {L"LeftoverAction", I4(leftover_action)},
                             {L"Interval", I4(5000)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    CBaseData* parent = Owned(fields);
    peer_.OrderData().SetAt(L"P1", parent);
    peer_.OrderIndex().SetAt(L"P1", 0);
    peer_.SliceIdToLevelKey().SetAt(L"S1", L"P1");
    peer_.SliceParams().SetAt(L"S1", CString::Formatted(L"%ld,%ld,%ld", sliced_type, 5000, leftover_action));
    return parent;
  }

  CBaseData* Child(int32_t original, int32_t filled) {
    CBaseData* child = Owned({{L"LevelKey", T(L"C1")},
                              {L"SliceID", T(L"S1")},
                              {L"OriginalQty", I4(original)},
                              {L"CumQty", I4(filled)},
                              {L"Symbol", T(kSymbol)},
                              {L"ExecType", I4(3)}});
    peer_.OrderData().SetAt(L"C1", child);
    peer_.ListenedSlice().SetAt(L"C1", L"S1");
    peer_.ListenedOrders().SetAt(L"C1", Owned({{L"LevelKey", T(L"C1")}}));
    return child;
  }

  VolumeWatchEntry* Watch(std::initializer_list<const wchar_t*> keys) {
    auto* entry = new VolumeWatchEntry();
    for (const wchar_t* key : keys) entry->arrLevelKeys.push_back(key);
    peer_.VolumeWatch().SetAt(kSymbol, entry);
    return entry;
  }

  void ExpectParentQuantities(CBaseData* parent, int32_t qty) {
    EXPECT_EQ(parent->GetLong(L"OrderQty", -1), qty);
    EXPECT_EQ(parent->GetLong(L"LeavesQty", -1), qty);
    EXPECT_EQ(parent->GetLong(L"SendQty", -1), qty);
  }

  void Run(CBaseData* parent, CBaseData* child, int32_t send_mode) {
    ScopedLock<CMutex> guard(peer_.OrderMutex());
    manager_->DoSlicedWork(parent, child, send_mode);
  }
};

TEST_F(FollowingSliceTest, VolumeSliceKeepsTheRestAndRollsTheUnfilledPartIntoTheNextChild) {
  CBaseData* parent = Parent(500, 3, 300);
  CBaseData* child = Child(300, 250);
  VolumeWatchEntry* entry = Watch({L"C1", L"C7"});
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 200);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(QtyOf(peer_.SendQueue()[0]), 350);
  // The watch entry stays; only the finished child leaves it.
  EXPECT_EQ(entry->arrLevelKeys, (CStringArray{L"C7"}));
  EXPECT_TRUE(Logged(L"DoSlicedWork :SendNewOrder NewOrderQty=350, TotalQty=200, LeavesQty=50, Type=0"));

  Advance(100);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(QtyOf(sent[0].text), 350);
}

TEST_F(FollowingSliceTest, TimedSliceWithoutLeftoverActionDropsTheUnfilledPart) {
  CBaseData* parent = Parent(500, 2, 300, 0);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 200);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(QtyOf(peer_.SendQueue()[0]), 300);
}

TEST_F(FollowingSliceTest, TimedSliceWithLeftoverActionOneRollsTheUnfilledPartOver) {
  CBaseData* parent = Parent(500, 2, 300, 1);
  CBaseData* child = Child(300, 250);
  peer_.TimerToOrder().SetAt(L"3007", L"C1");
  peer_.OrderToTimer().SetAt(L"C1", L"3007");
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 200);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(QtyOf(peer_.SendQueue()[0]), 350);
  // The child's per-order timer entries go with it.
  EXPECT_FALSE(peer_.TimerToOrder().Contains(L"3007"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
}

TEST_F(FollowingSliceTest, VolumeSliceLastPortionTakesTheRollOverAndGoesToTheFinishList) {
  CBaseData* parent = Parent(200, 3, 300);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 250);
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  EXPECT_FALSE(peer_.SliceParams().Contains(L"S1"));
}

TEST_F(FollowingSliceTest, LastVolumeChildOfASymbolEndsTheSymbolsWatch) {
  CBaseData* parent = Parent(200, 3, 300);
  CBaseData* child = Child(300, 300);
  Watch({L"C1"});
  Run(parent, child, 0);

  EXPECT_FALSE(peer_.VolumeWatch().Contains(kSymbol));
  EXPECT_TRUE(Logged(L"Remove : Topic=QX.F.TW.TXF"));
}

TEST_F(FollowingSliceTest, SliceAllLastPortionOnlyRetiresTheChild) {
  CBaseData* parent = Parent(200, 4, 300);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 200);
  EXPECT_TRUE(peer_.FinishList().empty());
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1"}));
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  EXPECT_FALSE(peer_.TimerArmed(102));
  EXPECT_TRUE(peer_.TimerArmed(103));

  // Timer 103 retires the child's listened record ten seconds later.
  Advance(9999);
  EXPECT_TRUE(peer_.ListenedOrders().Contains(L"C1"));
  Advance(1);
  EXPECT_FALSE(peer_.ListenedOrders().Contains(L"C1"));
  EXPECT_EQ(peer_.RetiredRecords().size(), 1u);
}

TEST_F(FollowingSliceTest, GroupTypeTwoNumbersTheNextChildAfterTheGroupCount) {
  CBaseData* parent = Parent(1000, 1, 300, 0, {{L"GroupType", I4(2)}, {L"GroupID", T(L"G7")}});
  CBaseData* child = Child(300, 300);
  peer_.GroupCount().SetAt(L"P1", 4);
  Run(parent, child, 0);

  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(sim::CommandValue(peer_.SendQueue()[0].wstr(), L"GROUPID"), L"G7-#-Sliced-#-5");
}

TEST_F(FollowingSliceTest, OtherGroupTypesCarryTheGroupIdUnchanged) {
  CBaseData* parent = Parent(1000, 1, 300, 0, {{L"GroupType", I4(1)}, {L"GroupID", T(L"G7")}});
  CBaseData* child = Child(300, 300);
  peer_.GroupCount().SetAt(L"P1", 4);
  Run(parent, child, 0);

  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(sim::CommandValue(peer_.SendQueue()[0].wstr(), L"GROUPID"), L"G7");
}

TEST_F(FollowingSliceTest, SendModeOneSendsTheNextChildAtOnce) {
  CBaseData* parent = Parent(1000, 2, 300, 0);
  CBaseData* child = Child(300, 300);
  Run(parent, child, 1);

  EXPECT_TRUE(peer_.SendQueue().empty());
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(QtyOf(sent[0].text), 300);
  EXPECT_EQ(sim::CommandValue(sent[0].text, L"SlicedID"), L"S1");
  EXPECT_TRUE(Logged(L"DoSlicedWork :SendNewOrder NewOrderQty=300, TotalQty=700, LeavesQty=0, Type=1"));
}

TEST_F(FollowingSliceTest, SendModeZeroQueuesForTheSendTimer) {
  CBaseData* parent = Parent(1000, 1, 300);
  CBaseData* child = Child(300, 300);
  Run(parent, child, 0);

  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(99);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(FollowingSliceTest, DecisionIsLoggedWithTheChildsFigures) {
  CBaseData* parent = Parent(500, 3, 300);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);
  EXPECT_TRUE(Logged(L"DoSlicedWork : SlicedID=S1, NewOrderQty=300, TotalQty=500, LeavesQty=50, CumQty=250, "
                     L"OriginalQty=300, GroupType=-2147483648, GroupID="));
}

TEST_F(FollowingSliceTest, TimedSliceLastPortionWithoutLeftoverActionKeepsItsSliceRegistered) {
  CBaseData* parent = Parent(200, 2, 300, 0);
  CBaseData* child = Child(300, 250);
  peer_.GroupCount().SetAt(L"P1", 2);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 200);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  EXPECT_TRUE(peer_.SliceParams().Contains(L"S1"));
  int32_t count = 0;
  EXPECT_TRUE(peer_.GroupCount().Lookup(L"P1", count));
}

TEST_F(FollowingSliceTest, TimedSliceLastPortionWithLeftoverActionOneRollsOverAndUnregisters) {
  CBaseData* parent = Parent(200, 2, 300, 1);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 250);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  EXPECT_FALSE(peer_.SliceParams().Contains(L"S1"));
}

TEST_F(FollowingSliceTest, LastPortionOfAnIcebergNeitherRollsOverNorKeepsTheSlice) {
  CBaseData* parent = Parent(300, 1, 300);
  CBaseData* child = Child(300, 100);
  peer_.GroupCount().SetAt(L"P1", 3);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 300);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  int32_t count = 0;
  EXPECT_FALSE(peer_.GroupCount().Lookup(L"P1", count));
}

TEST_F(FollowingSliceTest, FinishedChildLeavesTheListenedSliceMapAndGoesToTheCleanUpList) {
  CBaseData* parent = Parent(1000, 1, 300);
  CBaseData* child = Child(300, 300);
  Run(parent, child, 0);

  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1"}));
}

TEST_F(FollowingSliceTest, OverfilledChildLogsItsNegativeRestAndRollsNothingOver) {
  CBaseData* parent = Parent(500, 3, 300);
  CBaseData* child = Child(300, 320);
  Run(parent, child, 0);

  EXPECT_TRUE(Logged(L"DoSlicedWork : SlicedID=S1, NewOrderQty=300, TotalQty=500, LeavesQty=-20, CumQty=320, "
                     L"OriginalQty=300, GroupType=-2147483648, GroupID="));
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(QtyOf(peer_.SendQueue()[0]), 300);
}

TEST_F(FollowingSliceTest, ZeroSliceSendsOnlyTheRollOverAndLeavesTheParent) {
  CBaseData* parent = Parent(500, 3, 0);
  CBaseData* child = Child(300, 250);
  Run(parent, child, 0);

  ExpectParentQuantities(parent, 500);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(QtyOf(peer_.SendQueue()[0]), 50);
}

}  // namespace
}  // namespace tsm
