#include "testing/manager_fixture.h"

namespace tsm {
namespace {

class SliceAllTest : public ManagerTest {
 protected:
  CBaseData* Parent(int32_t leaves, int32_t disclose, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", Variant::Text(L"P1")}, {L"SliceID", Variant::Text(L"S1")},
                             {L"LeavesQty", Variant::I4(leaves)}, {L"DiscloseQty", Variant::I4(disclose)},
                             {L"Synthetic", Variant::I4(7)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    return Bound(fields);
  }
  CStringArray Batch(int id) {
    void* slot = nullptr;
    if (!peer_.SliceAllBatches().Lookup(CString::Formatted(L"%d", id), slot)) return {L"<none>"};
    return *static_cast<CStringArray*>(slot);
  }
};

TEST_F(SliceAllTest, ThousandBySliceOfThreeHundredCutsThreeChildrenAndLeavesOneHundred) {
  CBaseData* parent = Parent(1000, 300, {{L"GroupType", Variant::I4(2)}, {L"GroupID", Variant::Text(L"G")}});
  manager_->DoSlicedAll(parent);
  const CStringArray batch = Batch(1001);
  ASSERT_EQ(batch.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(batch[i].Find(L",QTY=300,"), -1);
    EXPECT_NE(batch[i].Find(CString::Formatted(L",GROUPID=G-#-Sliced-#-%d,", i + 1).wstr()), -1);
    EXPECT_NE(batch[i].Find(L",SlicedType=4,DiscloseQty=0,"), -1);
    EXPECT_EQ(batch[i].Find(L"GROUPMASTER"), -1);
  }
  EXPECT_EQ(parent->GetLong(L"OrderQty", 0), 100);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 100);
  EXPECT_EQ(parent->GetLong(L"SendQty", 0), 100);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"DoSlicedAll First: NewOrderQty=300, TotalQty=1000"),
                                               Log(L"DoSlicedAll :SendNewOrder NewOrderQty=300, TotalQty=700"),
                                               Log(L"DoSlicedAll :SendNewOrder NewOrderQty=300, TotalQty=400"),
                                               Log(L"DoSlicedAll :SendNewOrder NewOrderQty=300, TotalQty=100")}));
}

TEST_F(SliceAllTest, NineHundredGivesTwoChildrenAndAFinalOrderOfThreeHundred) {
  CBaseData* parent = Parent(900, 300);
  manager_->DoSlicedAll(parent);
  EXPECT_EQ(Batch(1001).size(), 2u);
  EXPECT_EQ(parent->GetLong(L"OrderQty", 0), 300);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 300);
  EXPECT_EQ(parent->GetLong(L"SendQty", 0), 300);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
}

TEST_F(SliceAllTest, TwoHundredGivesNoChildAndAnEmptyBatchUnderAFreshId) {
  CBaseData* parent = Parent(200, 300);
  manager_->DoSlicedAll(parent);
  EXPECT_TRUE(Batch(1001).empty());
  EXPECT_EQ(peer_.SliceAllTimerId(), 1001);
  EXPECT_TRUE(peer_.TimerArmed(1001));
  EXPECT_EQ(parent->GetLong(L"OrderQty", 0), 200);
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 200);
  EXPECT_EQ(parent->GetLong(L"SendQty", 0), 200);
  Advance(50);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
}

TEST_F(SliceAllTest, CounterAtTwoThousandGivesTheNextBatchId1001) {
  peer_.SliceAllTimerId() = 2000;
  manager_->DoSlicedAll(Parent(1000, 300));
  EXPECT_EQ(peer_.SliceAllTimerId(), 1001);
  EXPECT_EQ(Batch(1001).size(), 3u);
}

TEST_F(SliceAllTest, BatchIsSentAtFiftyMillisecondsAsNewOrdersInOrder) {
  manager_->DoSlicedAll(Parent(1000, 300));
  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 3u);
  for (const auto& e : sent) {
    EXPECT_EQ(e.t_ms, 50);
    EXPECT_EQ(e.p1, 1);
    EXPECT_EQ(e.p2, 2);
  }
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
}

TEST_F(SliceAllTest, ReleasedSliceAllPrintsSyntheticZero) {
  manager_->DoSlicedAll(Parent(1000, 300, {{L"SlicedType", Variant::I4(5)}}));
  EXPECT_NE(Batch(1001)[0].Find(L",SYNTHETIC=0,"), -1);
}

TEST_F(SliceAllTest, OtherSliceAllPrintsTheRecordsSynthetic) {
  manager_->DoSlicedAll(Parent(1000, 300, {{L"SlicedType", Variant::I4(4)}}));
  EXPECT_NE(Batch(1001)[0].Find(L",SYNTHETIC=7,"), -1);
}

TEST_F(SliceAllTest, ZeroSliceDoesNotLoopForeverAndLeavesTheParentWhole) {
  CBaseData* parent = Parent(1000, 0);
  manager_->DoSlicedAll(parent);
  EXPECT_TRUE(Batch(1001).empty());
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 1000);
  EXPECT_TRUE(Logged(L"DoSlicedAll: NewOrderQty=0 cannot cut TotalQty=1000, no children cut"));
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"P1"}));
}

TEST_F(SliceAllTest, NegativeSliceDoesNotLoopForever) {
  manager_->SetRandomSourceForTesting(&DefaultRand);
  CBaseData* parent = Parent(1000, -5);
  manager_->DoSlicedAll(parent);
  EXPECT_TRUE(Batch(1001).empty());
  EXPECT_EQ(parent->GetLong(L"LeavesQty", 0), 1000);
}

TEST_F(SliceAllTest, BatchStillWaitingUnderAReusedIdIsOverwrittenAndNeverSent) {
  peer_.SliceAllTimerId() = 1000;
  manager_->DoSlicedAll(Parent(1000, 300));
  peer_.SliceAllTimerId() = 1000;  // the counter comes round before the timer fired
  manager_->DoSlicedAll(Parent(400, 200, {{L"LevelKey", Variant::Text(L"P2")}}));
  EXPECT_EQ(Batch(1001).size(), 1u);
  Advance(50);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(SliceAllTest, ChildOfAParentWithoutCommandFieldsReachesTheHostAsTheDefaultTemplateBText) {
  manager_->DoSlicedAll(Parent(400, 300));
  Advance(50);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text,
            L"TYPE=,BROKERID=,ACCOUNT=,SYMBOL=,SYMBOLA=,SYMBOLB=,SIDE=,SIDE1=,SIDE2=,QTY=300,"
            L"PRICE=-9223372036854775808,PRICESTRING=,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
            L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
            L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,"
            L"TOUCHCONDITION=-2147483648,ORDERTYPE=-2147483648,POSITIONEFFECT=-2147483648,"
            L"TIMEINFORCE=-2147483648,SYNTHETIC=7,GROUPTYPE=-2147483648,GROUPID=,"
            L"CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=S1,"
            L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
            L"SlicedType=4,DiscloseQty=0,ContingentSymbol=,GroupPrefix=,OriLevelKey=P1,SpreadID=,Sliced=1");
}

}  // namespace
}  // namespace tsm
