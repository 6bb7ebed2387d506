// End-to-end: the host loop, the simulated exchange, the in-process base-data
// component and the manager on the virtual clock.
#include "slicehost/exchange.h"

#include "manager/trade_slice_manager.h"
#include "testing/manager_fixture.h"

namespace tsm {
namespace {

constexpr const wchar_t* kSymbol = L"QX.F.TW.TXF";

Variant T(const std::wstring& text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

uint32_t RefCount(IBaseData* object) {
  object->AddRef();
  return object->Release();
}

std::vector<int32_t> Quantities(const std::vector<sim::HostEvent>& sent) {
  std::vector<int32_t> qtys;
  for (const auto& e : sent) qtys.push_back(WToL(sim::CommandValue(e.text, L"QTY")));
  return qtys;
}

class OrderFlowTest : public ManagerTest {
 protected:
  OrderFlowTest() : loop_(clock_), exchange_(host_, loop_, clock_, manager_) {
    sim::SymbolBehaviour behaviour;
    behaviour.ack_delay_ms = 10;
    behaviour.fill_delay_ms = 50;
    exchange_.SetDefaultBehaviour(behaviour);
  }

  ~OrderFlowTest() override { loop_.Stop(); }

  void StartOnTheLoop() {
    loop_.PostSetStage(manager_, 1, 1);
    loop_.PostSetStage(manager_, 1, 2);
    Advance(0);
  }

  sim::FieldList ParentFields(const std::wstring& key, const std::wstring& slice_id, int32_t sliced_type,
                              int32_t qty = 1000, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", T(key)},        {L"SliceID", T(slice_id)},
                             {L"SlicedType", I4(sliced_type)},
                             {L"OrderQty", I4(qty)},       {L"LeavesQty", I4(qty)},
                             {L"SendQty", I4(qty)},        {L"DiscloseQty", I4(300)},
                             {L"Variance", I4(0)},         {L"SecurityType", T(L"F")},
                             {L"Symbol", T(kSymbol)},      {L"Side", T(L"B")},
                             {L"Account", T(L"A1")},       {L"Price", Variant::I8(10050)}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    return fields;
  }

  sim::SymbolBehaviour Behaviour(int32_t fill_percent) {
    sim::SymbolBehaviour behaviour;
    behaviour.ack_delay_ms = 10;
    behaviour.fill_delay_ms = 50;
    behaviour.fill_percent = fill_percent;
    return behaviour;
  }

  // Runs the clock in 100 ms steps until `done` holds (at most `limit_ms`).
  template <typename Done>
  bool RunUntil(Done done, int64_t limit_ms) {
    for (int64_t spent = 0; spent < limit_ms; spent += 100) {
      if (done()) return true;
      Advance(100);
    }
    return done();
  }

  sim::HostLoop loop_;
  sim::SimExchange exchange_;
};

TEST_F(OrderFlowTest, IcebergRunsItsSlicesAsEachFillsAndSendsTheRestAsItsFinalOrder) {
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 1));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion_filled; }, 10000));

  EXPECT_EQ(Quantities(Sent(L"TRADE.NEWORDER")), (std::vector<int32_t>{300, 300, 300}));
  const auto finals = Sent(L"TRADE.HOT.MONTH");
  ASSERT_EQ(finals.size(), 1u);
  EXPECT_EQ(finals[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_EQ(finals[0].text, L"0");
  const auto account = *exchange_.Account(L"S1");
  EXPECT_EQ(account.children_sent, 3);
  EXPECT_EQ(account.children_filled, 3);
  EXPECT_EQ(account.final_portion_qty, 100);
  EXPECT_EQ(account.qty_filled, 1000);
  // Each child was sent only after the one before it had filled.
  const auto orders = exchange_.Orders();
  ASSERT_EQ(orders.size(), 4u);
  EXPECT_TRUE(orders[3].final_portion);
}

TEST_F(OrderFlowTest, IcebergChildrenListenedToAreRetiredAndFreedTenToTwentySecondsAfterTheirFill) {
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 1));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion_filled; }, 10000));

  // When each child's fill was written, and the references on its record then.
  std::map<std::wstring, int64_t> filled_at;
  for (const auto& e : host_.Events()) {
    if (e.ev == "ExchangeFill" && e.p1 == 3) filled_at[e.topic] = e.t_ms;
  }
  std::map<std::wstring, uint32_t> refs;
  std::map<std::wstring, int64_t> freed_at;
  for (const std::wstring key : {L"C1", L"C2", L"C3"}) {
    ASSERT_TRUE(filled_at.count(key)) << Utf8FromWide(key);
    refs[key] = RefCount(exchange_.OrderRecord(key));
  }
  for (int64_t step = 0; step < 25000 && freed_at.size() < 3; step += 10) {
    Advance(10);
    for (const auto& [key, count] : refs) {
      if (freed_at.count(key) == 0 && RefCount(exchange_.OrderRecord(key)) == count - 1) {
        freed_at[key] = host_.ElapsedMs();
        EXPECT_FALSE(peer_.ListenedOrders().Contains(key));
      }
    }
  }
  ASSERT_EQ(freed_at.size(), 3u);
  for (const auto& [key, at] : freed_at) {
    SCOPED_TRACE(Utf8FromWide(key));
    EXPECT_GE(at - filled_at[key], 10000);
    EXPECT_LE(at - filled_at[key], 20000);
  }
  EXPECT_TRUE(peer_.RetiredRecords().empty());
}

class TimedFlowTest : public OrderFlowTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(TimedFlowTest, EachStepSendsTheNextSliceAndAppliesTheLeftoverActionToTheWorkingChild) {
  const int32_t leftover_action = GetParam();
  StartOnTheLoop();
  // Half of every order fills; the rest stays working until the order's step.
  exchange_.SetDefaultBehaviour(Behaviour(50));
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 2, 1000,
                                      {{L"Interval", I4(5000)}, {L"LeftoverAction", I4(leftover_action)}}));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion; }, 30000));

  // Child n+1 is cut at child n's step: 300, plus child n's unfilled half
  // when the leftover action is 1. The parent's last portion (with the last
  // child's unfilled half rolled in for action 1) goes out as its final order.
  const std::vector<int32_t> qtys = Quantities(Sent(L"TRADE.NEWORDER"));
  std::vector<int32_t> expected = {300};
  int32_t rest = 700;
  int32_t final_qty = 0;
  for (;;) {
    const int32_t unfilled = expected.back() - expected.back() * 50 / 100;
    const int32_t rolled = leftover_action == 1 ? unfilled : 0;
    if (rest <= 300) {
      final_qty = rest + rolled;
      break;
    }
    rest -= 300;
    expected.push_back(300 + rolled);
  }
  EXPECT_EQ(qtys, expected);
  EXPECT_EQ(exchange_.Account(L"S1")->final_portion_qty, final_qty);

  const auto cancels = Sent(L"TRADE.CANCELORDER");
  const auto replaces = Sent(L"TRADE.REPLACEORDER");
  const size_t steps = expected.size();
  if (leftover_action == 1) {
    ASSERT_EQ(cancels.size(), steps);
    for (size_t i = 0; i < steps; ++i) EXPECT_EQ(cancels[i].text, L"REPORTID=C" + std::to_wstring(i + 1));
    EXPECT_TRUE(replaces.empty());
    EXPECT_EQ(exchange_.Account(L"S1")->children_cancelled, static_cast<int32_t>(steps));
  } else if (leftover_action == 2) {
    ASSERT_EQ(replaces.size(), steps);
    for (size_t i = 0; i < steps; ++i) {
      EXPECT_EQ(replaces[i].text, L"REPORTID=C" + std::to_wstring(i + 1) + L",TYPE=6,TIMEINFORCE=1");
    }
    EXPECT_TRUE(cancels.empty());
    EXPECT_EQ(exchange_.Account(L"S1")->children_replaced, static_cast<int32_t>(steps));
  } else {
    EXPECT_TRUE(cancels.empty());
    EXPECT_TRUE(replaces.empty());
    EXPECT_EQ(exchange_.WorkingCount(), static_cast<int32_t>(steps));
  }
  // Steps come at the order's interval: child n+1 goes out 5 s after child n.
  const auto sent = Sent(L"TRADE.NEWORDER");
  for (size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i].t_ms - sent[i - 1].t_ms, 5000);
}

INSTANTIATE_TEST_SUITE_P(LeftoverActions, TimedFlowTest, ::testing::Values(0, 1, 2));

TEST_F(OrderFlowTest, WorkingVolumeChildEntersTheVolumeWatchWithItsStartVolume) {
  IBaseData* quote = host_.Topic(kSymbol);
  const int32_t update = quote->BeginUpdate();
  quote->SetData(update, kKindFieldById, I4(6), Variant::I8(5000));
  quote->EndUpdate(update);
  StartOnTheLoop();
  exchange_.SetDefaultBehaviour(Behaviour(0));
  exchange_.SubmitParent(
      ParentFields(L"P1", L"S1", 3, 1000, {{L"Interval", I4(1)}, {L"LeftoverAction", I4(1)}}));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->children_acknowledged == 1; }, 2000));
  Advance(0);

  EXPECT_TRUE(Logged(L"Volume OrderInfo: Symbol=QX.F.TW.TXF, TradeVolume=5000"));
  void* start = nullptr;
  EXPECT_TRUE(peer_.StartVolume().Lookup(L"C1", start));
  EXPECT_EQ(reinterpret_cast<intptr_t>(start), 5000);
  void* slot = nullptr;
  ASSERT_TRUE(peer_.VolumeWatch().Lookup(kSymbol, slot));
  EXPECT_EQ(static_cast<VolumeWatchEntry*>(slot)->arrLevelKeys, (CStringArray{L"C1"}));
}

TEST_F(OrderFlowTest, SliceAllRunsToItsEnd) {
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 4));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion_filled; }, 5000));
  ASSERT_TRUE(RunUntil([&] { return exchange_.DoneCount() == 3; }, 5000));

  const auto sent = Sent(L"TRADE.NEWORDER");
  EXPECT_EQ(Quantities(sent), (std::vector<int32_t>{300, 300, 300}));
  for (const auto& e : sent) EXPECT_EQ(sim::CommandValue(e.text, L"SlicedType"), L"4");
  const auto account = *exchange_.Account(L"S1");
  EXPECT_EQ(account.final_portion_qty, 100);
  EXPECT_EQ(account.children_filled, 3);
  EXPECT_EQ(account.qty_filled, 1000);
  // Children of a slice-all are taken in but not listened to.
  EXPECT_TRUE(peer_.OrderData().Contains(L"C1"));
  EXPECT_FALSE(peer_.ListenedOrders().Contains(L"C1"));
}

TEST_F(OrderFlowTest, SliceAllOnReleaseWaitsForItsReleaseAndEndsWithAPositionTransfer) {
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 5));
  Advance(1000);
  // Taken in, handed to the host once, not cut.
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH").size(), 1u);
  EXPECT_TRUE(peer_.OrderData().Contains(L"P1"));

  exchange_.ReleaseParent(L"P1");
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->transferred; }, 5000));
  EXPECT_EQ(Quantities(Sent(L"TRADE.NEWORDER")), (std::vector<int32_t>{300, 300, 300}));
  for (const auto& e : Sent(L"TRADE.NEWORDER")) EXPECT_EQ(sim::CommandValue(e.text, L"SYNTHETIC"), L"0");
  const auto transfers = Sent(L"TRADE.TRANSFER.POSITION");
  ASSERT_EQ(transfers.size(), 1u);
  EXPECT_EQ(transfers[0].data_json, "{\"record\":\"P1\"}");
  EXPECT_EQ(Sent(L"TRADE.HOT.MONTH").size(), 1u);
  EXPECT_FALSE(peer_.OrderData().Contains(L"P1"));
  EXPECT_EQ(sim::SimHost::Read(exchange_.OrderRecord(L"P1"), L"LeavesQty"), I4(100));
}

TEST_F(OrderFlowTest, TwoOrdersParkedOutsideTheirSessionAreReleasedByOneTimer105) {
  // The session opens at 09:31; the clock stands at 09:30:00 UTC.
  host_.Topic(L"NordaSystemTime");
  IBaseData* hours = sim::SimHost::NewRecord(L"QX.F.TW", {{kSymbol, T(L"{\"OpenCloseTime\":\"09:31~11:30\"}")}});
  TsmSetChild(host_.Topic(L"Security.Info"), L"QX.F.TW", hours);
  hours->Release();
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 1));
  exchange_.SubmitParent(ParentFields(L"P2", L"S2", 1));
  Advance(0);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 2);
  EXPECT_TRUE(Logged(L"CheckOpenCloseTime:0, 93000, 93100, 93100 ~ 113000"));

  // The platform's clock ticks at 09:30:50: both orders are due at 09:31:00,
  // 10 s ahead, so timer 105 runs 11 s later for both.
  Advance(50000);
  exchange_.SetSystemTime(20261123, 93050, 0);
  Advance(0);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  Advance(10999);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
  EXPECT_TRUE(Logged(L"KeepSliceOrder(1):P1,1,-2147483648,-2147483648, lOrdIndex=0"));
  EXPECT_TRUE(Logged(L"KeepSliceOrder(1):P2,1,-2147483648,-2147483648, lOrdIndex=1"));
  Advance(100);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].t_ms, sent[1].t_ms);
}

TEST_F(OrderFlowTest, OrderSetLockedAndUnlockedOnTheHostThreadRenumbersTheOrders) {
  exchange_.SetLockOrderSetOnAdd(true);
  StartOnTheLoop();
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 1));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion_filled; }, 10000));
  // P1 first, then C1 to C3.
  EXPECT_EQ(exchange_.OrderSetSize(), 4);
  int32_t index = -1;
  EXPECT_TRUE(peer_.OrderIndex().Lookup(L"C3", index));
  EXPECT_EQ(index, 3);
  EXPECT_EQ(Quantities(Sent(L"TRADE.NEWORDER")), (std::vector<int32_t>{300, 300, 300}));
  // The order mutex is free again once the host has unlocked.
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
  bool free_on_loop = false;
  loop_.RunNow([&] { free_on_loop = peer_.OrderMutex().LevelsHeldByCaller() == 0; });
  Advance(0);
  EXPECT_TRUE(free_on_loop);
}

TEST_F(OrderFlowTest, RejectedChildCutsTheNextSlice) {
  StartOnTheLoop();
  sim::SymbolBehaviour reject = Behaviour(100);
  reject.reject = true;
  exchange_.SetDefaultBehaviour(reject);
  exchange_.SubmitParent(ParentFields(L"P1", L"S1", 1));
  Advance(200);
  exchange_.SetDefaultBehaviour(Behaviour(100));
  ASSERT_TRUE(RunUntil([&] { return exchange_.Account(L"S1")->final_portion_filled; }, 10000));
  const auto account = *exchange_.Account(L"S1");
  EXPECT_EQ(account.children_rejected, 1);
  // The rejected 300 is not rolled over for an iceberg: 700 remain after it.
  EXPECT_EQ(Quantities(Sent(L"TRADE.NEWORDER")), (std::vector<int32_t>{300, 300, 300}));
  EXPECT_EQ(account.final_portion_qty, 100);
}

}  // namespace
}  // namespace tsm
