#include "testing/manager_fixture.h"

namespace tsm {
namespace {

class FirstSliceTest : public ManagerTest {
 protected:
  static int32_t Draw12345() { return 12345; }

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

TEST_F(FirstSliceTest, WorkedExampleSizesTheFirstChildAtTheBuyLot) {
  manager_->SetRandomSourceForTesting(&Draw12345);
  host_.SetSecurityText(L"QX.S.HK.700", L"x|100|y|100");
  // s = 1000 x 20 / 100 = 200; 1000 + 12345 mod 201 = 1084; rounded down to the lot of 100.
  CBaseData* parent = Parent(5000, 1000,
                             {{L"Variance", Variant::I4(20)}, {L"SecurityType", Variant::Text(L"STK")},
                              {L"Symbol", Variant::Text(L"QX.S.HK.700")}, {L"Side", Variant::Text(L"B")}});
  manager_->DoSlicedWorkFirst(parent);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"DoSlicedWork First: NewOrderQty=1000, TotalQty=5000"),
                                               Log(L"DoSlicedWork First :SendNewOrder NewOrderQty=1000, TotalQty=4000")}));
  ASSERT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_NE(peer_.SendQueue()[0].Find(L",QTY=1000,"), -1);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 4000);
}

TEST_F(FirstSliceTest, ChildOfAParentWithoutCommandFieldsReachesTheHostAsTheDefaultTemplateAText) {
  manager_->DoSlicedWorkFirst(Parent(1000, 300));
  Advance(100);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text,
            L"TYPE=,BROKERID=,ACCOUNT=,SYMBOL=,SYMBOLA=,SYMBOLB=,SIDE=,SIDE1=,SIDE2=,QTY=300,"
            L"PRICE=-9223372036854775808,PRICESTRING=,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
            L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
            L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,"
            L"TOUCHCONDITION=-2147483648,ORDERTYPE=-2147483648,POSITIONEFFECT=-2147483648,"
            L"TIMEINFORCE=-2147483648,SYNTHETIC=-2147483648,GROUPTYPE=-2147483648,GROUPID=,GROUPMASTER=0,"
            L"CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=S1,"
            L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
            L"ContingentSymbol=,GroupPrefix=,OriLevelKey=P1,SpreadID=,Sliced=1");
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 2);
}

TEST_F(FirstSliceTest, ChineseAccountAndSymbolReachTheHostUnchanged) {
  const std::wstring account = CString::FromUtf8("\xE5\xBC\xA0\xE4\xB8\x89\xE8\xB4\xA6\xE6\x88\xB7").wstr();
  const std::wstring symbol = CString::FromUtf8("QX.F.\xE9\xBB\x84\xE9\x87\x91").wstr();
  manager_->DoSlicedWorkFirst(
      Parent(1000, 300, {{L"Account", Variant::Text(account)}, {L"Symbol", Variant::Text(symbol)}}));
  Advance(100);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_NE(sent[0].text.find(L",ACCOUNT=" + account + L",SYMBOL=" + symbol + L",SYMBOLA=,"), std::wstring::npos)
      << CString(sent[0].text).ToUtf8();
  EXPECT_TRUE(Logged(L"[Sliced Send new order] " + sent[0].text));
}

}  // namespace
}  // namespace tsm
