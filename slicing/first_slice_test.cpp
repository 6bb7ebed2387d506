#include "testing/manager_fixture.h"

namespace tsm {
namespace {

class FirstSliceTest : public ManagerTest {
 protected:
  CBaseData* Parent(int32_t leaves, int32_t disclose, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", Variant::Text(L"P1")}, {L"SliceID", Variant::Text(L"S1")},
                             {L"LeavesQty", Variant::I4(leaves)}, {L"DiscloseQty", Variant::I4(disclose)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    return Bound(fields);
  }
};

TEST_F(FirstSliceTest, RemainderEqualToTheSliceGoesToTheFinishList) {
  CBaseData* parent = Parent(300, 300);
  peer_.SliceIdToLevelKey().SetAt(L"S1", L"P1");
  peer_.SliceParams().SetAt(L"S1", L"1,0,0");
  peer_.GroupCount().SetAt(L"P1", 2);
  manager_->DoSlicedWorkFirst(parent);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"P1"}));
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_FALSE(peer_.SliceIdToLevelKey().Contains(L"S1"));
  EXPECT_FALSE(peer_.SliceParams().Contains(L"S1"));
  int32_t count = 0;
  EXPECT_FALSE(peer_.GroupCount().Lookup(L"P1", count));
  EXPECT_TRUE(peer_.TimerArmed(102));
  EXPECT_TRUE(peer_.TimerArmed(103));
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 300) << "the parent record is left unchanged";
  EXPECT_TRUE(Logged(L"DoSlicedWork First: NewOrderQty=300, TotalQty=300"));
}

TEST_F(FirstSliceTest, ThousandWithSliceOfThreeHundredLeavesSevenHundredAndQueuesOneChild) {
  CBaseData* parent = Parent(1000, 300);
  manager_->DoSlicedWorkFirst(parent);
  EXPECT_EQ(parent->GetLong(L"OrderQty", 0), 700);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 700);
  EXPECT_EQ(parent->GetLong(L"SendQty", 0), 700);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",QTY=300,"), -1);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",GROUPMASTER=0,"), -1);
  EXPECT_TRUE(peer_.FinishList().empty());
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"DoSlicedWork First: NewOrderQty=300, TotalQty=1000"),
                                               Log(L"DoSlicedWork First :SendNewOrder NewOrderQty=300, TotalQty=700")}));
  EXPECT_TRUE(peer_.TimerArmed(101));
  EXPECT_FALSE(peer_.TimerArmed(102));
}

TEST_F(FirstSliceTest, ChildIsSentByTimer101AfterOneHundredMilliseconds) {
  manager_->DoSlicedWorkFirst(Parent(1000, 300));
  Advance(99);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  ASSERT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER")[0].t_ms, 100);
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(FirstSliceTest, ParentsTakenInWithinOneHundredMillisecondsShareOneDrain) {
  manager_->DoSlicedWorkFirst(Parent(1000, 300));
  Advance(40);
  manager_->DoSlicedWorkFirst(Parent(1000, 200, {{L"LevelKey", Variant::Text(L"P2")}}));
  Advance(60);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].t_ms, 100);
  EXPECT_EQ(sent[1].t_ms, 100);
}

TEST_F(FirstSliceTest, GroupType1CarriesTheGroupIdUnchanged) {
  manager_->DoSlicedWorkFirst(Parent(1000, 300, {{L"GroupType", Variant::I4(1)}, {L"GroupID", Variant::Text(L"G7")}}));
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",GROUPID=G7,"), -1);
}

TEST_F(FirstSliceTest, GroupType2FirstChildIsNumberOne) {
  manager_->DoSlicedWorkFirst(Parent(1000, 300, {{L"GroupType", Variant::I4(2)}, {L"GroupID", Variant::Text(L"G7")}}));
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",GROUPID=G7-#-Sliced-#-1,"), -1);
}

TEST_F(FirstSliceTest, OriLevelKeyIsTheKeyOfTheFinishList) {
  manager_->DoSlicedWorkFirst(Parent(100, 300, {{L"OriLevelKey", Variant::Text(L"ORI")}}));
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"ORI"}));
}

TEST_F(FirstSliceTest, ZeroSliceWithARemainderQueuesAChildOfZero) {
  CBaseData* parent = Parent(1000, 0);
  manager_->DoSlicedWorkFirst(parent);
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",QTY=0,"), -1);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 1000);
}

TEST_F(FirstSliceTest, RecordWithoutLeavesQtyTakesTheFinishingPath) {
  manager_->DoSlicedWorkFirst(Bound({{L"LevelKey", Variant::Text(L"P1")}, {L"DiscloseQty", Variant::I4(10)}}));
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_TRUE(peer_.SendQueue().empty());
}

}  // namespace
}  // namespace tsm
