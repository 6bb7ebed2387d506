#include <algorithm>
#include <thread>
#include <vector>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

class SliceSizingTest : public ManagerTest {
 protected:
  static int32_t Draw12345() { return 12345; }
  static int32_t Draw32767() { return 32767; }
  static int32_t& Calls() {
    static int32_t calls = 0;
    return calls;
  }
  static int32_t CountingDraw() { return ++Calls(); }

  int32_t Size(const sim::FieldList& fields) { return manager_->ComputeSliceQty(Bound(fields)); }
};

// A manager left with the generator it is built with. A spread of 1,000,000
// is wider than any draw, so the size less the disclosed size is the draw.
class RealDrawTest : public SliceSizingTest {
 protected:
  static constexpr int32_t kDisclose = 1000000;
  CTradeSliceManager own_{&clock_};
  CBaseData* parent_ = Bound({{L"DiscloseQty", Variant::I4(kDisclose)}, {L"Variance", Variant::I4(100)}});

  int32_t Draw() { return own_.ComputeSliceQty(parent_) - kDisclose; }
};

TEST_F(RealDrawTest, DrawsStayWithin0To32767) {
  int32_t largest = -1;
  for (int i = 0; i < 20000; ++i) {
    const int32_t r = Draw();
    ASSERT_GE(r, 0);
    ASSERT_LE(r, 32767);
    largest = std::max(largest, r);
  }
  // The whole range is used, not a narrower one.
  EXPECT_GT(largest, 32000);
}

TEST_F(RealDrawTest, DrawsOnTwoTimerThreadsContinueOneSequence) {
  // Each new thread draws eight: with a generator kept per thread both would
  // start the same sequence.
  auto eight_on_a_new_thread = [this] {
    std::vector<int32_t> draws;
    std::thread([&] {
      for (int i = 0; i < 8; ++i) draws.push_back(Draw());
    }).join();
    return draws;
  };
  const std::vector<int32_t> first = eight_on_a_new_thread();
  const std::vector<int32_t> second = eight_on_a_new_thread();
  EXPECT_NE(first, second);
}

TEST_F(SliceSizingTest, WorkedExampleRoundsToTheBuyLot) {
  manager_->SetRandomSourceForTesting(&Draw12345);
  host_.SetSecurityText(L"QX.S.HK.700", L"x|100|y|100");
  // 1000 + 12345 mod 201 = 1084, rounded down to the lot of 100.
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(1000)}, {L"Variance", Variant::I4(20)},
                  {L"SecurityType", Variant::Text(L"STK")}, {L"Symbol", Variant::Text(L"QX.S.HK.700")},
                  {L"Side", Variant::Text(L"B")}}),
            1000);
}

TEST_F(SliceSizingTest, WorkedExampleUnroundedIsTheDisclosedSizePlusTheDrawModuloTheSpread) {
  manager_->SetRandomSourceForTesting(&Draw12345);
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(1000)}, {L"Variance", Variant::I4(20)}}), 1084);
}

TEST_F(SliceSizingTest, DrawIsMadeOnEveryCallEvenWithoutVariance) {
  Calls() = 0;
  manager_->SetRandomSourceForTesting(&CountingDraw);
  Size({});
  Size({{L"DiscloseQty", Variant::I4(100)}});
  EXPECT_EQ(Calls(), 2);
}

TEST_F(SliceSizingTest, ZeroDiscloseAndZeroVarianceYieldZeroWhateverTheLot) {
  host_.SetSecurityText(L"S1", L"x|100|y|100");
  EXPECT_EQ(Size({{L"SecurityType", Variant::Text(L"STK")}, {L"Symbol", Variant::Text(L"S1")},
                  {L"Side", Variant::Text(L"B")}}),
            0);
}

TEST_F(SliceSizingTest, QuantitySmallerThanTheLotRoundsDownToZero) {
  host_.SetSecurityText(L"S1", L"x|100|y|100");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(50)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"S1")}, {L"Side", Variant::Text(L"B")}}),
            0);
}

TEST_F(SliceSizingTest, SecurityTypeWithoutSNeverAsksTheHost) {
  host_.SetSecurityText(L"F1", L"x|100|y|100");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"FUT")},
                  {L"Symbol", Variant::Text(L"F1")}, {L"Side", Variant::Text(L"B")}}),
            150);
  EXPECT_TRUE(Sent(L"MARZIPAN.REQUEST").empty());
}

TEST_F(SliceSizingTest, SecurityTypeTestIsACaseSensitiveSubstringTest) {
  host_.SetSecurityText(L"W1", L"x|100|y|100");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"WTS")},
                  {L"Symbol", Variant::Text(L"W1")}, {L"Side", Variant::Text(L"B")}}),
            100);
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"stk")},
                  {L"Symbol", Variant::Text(L"W1")}, {L"Side", Variant::Text(L"B")}}),
            150);
}

TEST_F(SliceSizingTest, TheRequestCarriesStkInfoAndTheSymbol) {
  host_.SetSecurityText(L"S1", L"x|100|y|100");
  Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"STK")},
        {L"Symbol", Variant::Text(L"S1")}, {L"Side", Variant::Text(L"B")}});
  const auto sent = Sent(L"MARZIPAN.REQUEST");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 0);
  EXPECT_EQ(sent[0].text, L"STKINFO");
  EXPECT_EQ(sent[0].data, Variant::Text(L"S1"));
}

TEST_F(SliceSizingTest, SideOneIsABuyLikeB) {
  host_.SetSecurityText(L"S1", L"x|100|y|1000");
  const sim::FieldList base = {{L"DiscloseQty", Variant::I4(1550)}, {L"SecurityType", Variant::Text(L"STK")},
                               {L"Symbol", Variant::Text(L"S1")}};
  auto with_side = [&](const wchar_t* side) {
    sim::FieldList fields = base;
    fields.push_back({L"Side", Variant::Text(side)});
    return Size(fields);
  };
  EXPECT_EQ(with_side(L"B"), 1500);
  EXPECT_EQ(with_side(L"1"), 1500);
}

TEST_F(SliceSizingTest, LowerCaseBIsASell) {
  host_.SetSecurityText(L"S1", L"x|100|y|1000");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(1550)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"S1")}, {L"Side", Variant::Text(L"b")}}),
            1000);
}

TEST_F(SliceSizingTest, SellOfQxsSymbolTakesTheLargerBuyLot) {
  host_.SetSecurityText(L"QX.S.A", L"x|1000|y|1");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(2500)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"QX.S.A")}, {L"Side", Variant::Text(L"S")}}),
            2000);
}

TEST_F(SliceSizingTest, SellOfOtherSymbolTakesTheSmallerSellLotSoNoRounding) {
  host_.SetSecurityText(L"HK.S.A", L"x|1000|y|1");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(2500)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"HK.S.A")}, {L"Side", Variant::Text(L"S")}}),
            2500);
}

TEST_F(SliceSizingTest, SecurityTextWithTwoItemsGivesSellLotZeroSoSellsAreNotRounded) {
  host_.SetSecurityText(L"S2", L"x|100");
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"S2")}, {L"Side", Variant::Text(L"S")}}),
            150);
}

TEST_F(SliceSizingTest, ConsecutiveSeparatorsCountAsOne) {
  host_.SetSecurityText(L"S3", L"x||100||y|200");
  // Items: x, 100, y, 200: buy lot 100.
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"S3")}, {L"Side", Variant::Text(L"B")}}),
            100);
}

TEST_F(SliceSizingTest, EmptyAnswerLeavesTheQuantityUnrounded) {
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"UNKNOWN")}, {L"Side", Variant::Text(L"B")}}),
            150);
}

TEST_F(SliceSizingTest, NoHostRecordLeavesTheQuantityUnrounded) {
  manager_->Unadvise(sink_cookie_);
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(150)}, {L"SecurityType", Variant::Text(L"STK")},
                  {L"Symbol", Variant::Text(L"S1")}, {L"Side", Variant::Text(L"B")}}),
            150);
  manager_->Advise(&host_, &sink_cookie_);
}

TEST_F(SliceSizingTest, SpreadWrapsIn32Bits) {
  manager_->SetRandomSourceForTesting(&Draw32767);
  // 2,000,000 x 3,000 wraps in 32 bits: 6e9 - 2^32 = 1,705,032,704; / 100 = 17,050,327.
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(2000000)}, {L"Variance", Variant::I4(3000)}}),
            2000000 + 32767 % (17050327 + 1));
}

TEST_F(SliceSizingTest, SpreadOfMinusOneDoesNotDivideByZeroAndLogsOneLine) {
  manager_->SetRandomSourceForTesting(&Draw32767);
  // 100 x -1 / 100 = -1: nothing to draw from, the size stays the disclosed one.
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(100)}, {L"Variance", Variant::I4(-1)}}), 100);
  EXPECT_TRUE(Logged(L"ComputeSliceQty: spread -1 ignored, DiscloseQty=100, Variance=-1"));
  EXPECT_EQ(Logs().size(), 1u);
}

TEST_F(SliceSizingTest, NegativeSpreadOtherThanMinusOneFollowsTheCRule) {
  manager_->SetRandomSourceForTesting(&Draw32767);
  // D = 100, V = -5: s = -5, r mod -4 keeps the sign of r: 32767 mod 4 = 3.
  EXPECT_EQ(Size({{L"DiscloseQty", Variant::I4(100)}, {L"Variance", Variant::I4(-5)}}), 103);
}

}  // namespace
}  // namespace tsm
