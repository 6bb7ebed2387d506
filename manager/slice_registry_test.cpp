// The slice order registry: what "TRADE.SLICE.MANAGER" and "TRADE.SLICE.ORDER"
// register for each slicing kind, when the session check runs, which locks
// the first slicing steps run under, and the road of a parent from the topic
// to the child orders the host receives.
#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

#include "testing/manager_fixture.h"
#include "testing/mutex_waiters.h"

namespace tsm {
namespace {

// 09:30~11:30;13:00~15:00: open at the fixture's 09:30.
const wchar_t kOpenSymbol[] = L"QX.F.CN.IF2612";
// 13:00~15:00: closed at 09:30.
const wchar_t kClosedSymbol[] = L"QX.F.SH.AU2612";

void SetField(sim::FieldList& fields, const std::wstring& name, Variant value) {
  for (auto& field : fields) {
    if (field.first == name) {
      field.second = std::move(value);
      return;
    }
  }
  fields.emplace_back(name, std::move(value));
}

void DropField(sim::FieldList& fields, const std::wstring& name) {
  std::erase_if(fields, [&](const auto& field) { return field.first == name; });
}

// A host sink advised ahead of the recording host: it notes which of the
// manager's locks the raising thread holds when the manager fetches `topic`.
class LockProbe final : public INordaManagerEvents {
 public:
  LockProbe(CTradeSliceManagerPeer& peer, std::wstring topic) : peer_(peer), topic_(std::move(topic)) {}
  uint32_t AddRef() override { return 1; }
  uint32_t Release() override { return 1; }
  HResult RegisterTopic(const std::wstring&, Variant*) override { return kS_OK; }
  HResult GetTopicData(const std::wstring& topic, Variant*) override {
    if (topic == topic_) {
      ++fetches;
      order_levels = peer_.OrderMutex().LevelsHeldByCaller();
      volume_levels = peer_.VolumeMutex().LevelsHeldByCaller();
    }
    return kS_OK;
  }
  HResult SendTopic(const std::wstring&, int32_t, int32_t, const std::wstring&, Variant*, Variant*) override {
    return kS_OK;
  }
  HResult WriteLog(const std::wstring&) override { return kS_OK; }

  int fetches = 0;
  int order_levels = -1;
  int volume_levels = -1;

 private:
  CTradeSliceManagerPeer& peer_;
  std::wstring topic_;
};

class SliceRegistryTest : public ManagerTest {
 protected:
  void SetUp() override {
    PublishSessions(L"QX.F.CN", kOpenSymbol, L"09:30~11:30;13:00~15:00");
    PublishSessions(L"QX.F.SH", kClosedSymbol, L"13:00~15:00");
    Start();
    host_.ClearEvents();
  }

  void PublishSessions(const std::wstring& product, const std::wstring& security, const std::wstring& text) {
    IBaseData* entry = Record(L"entry", {{security, Variant::Text(L"{\"OpenCloseTime\":\"" + text + L"\"}")}});
    TsmSetChild(host_.Topic(L"Security.Info"), product.c_str(), entry);
  }

  // A parent of 1000 with a disclosed size of 300 and no variance: every
  // child is 300 (the random draw is 0 and futures have no lot).
  static sim::FieldList Parent(const std::wstring& level_key, const std::wstring& slice_id, int32_t sliced_type,
                               const std::wstring& symbol = kOpenSymbol) {
    return {{L"LevelKey", Variant::Text(level_key)},
            {L"SliceID", Variant::Text(slice_id)},
            {L"SlicedType", Variant::I4(sliced_type)},
            {L"Interval", Variant::I4(5)},
            {L"LeftoverAction", Variant::I4(1)},
            {L"Symbol", Variant::Text(symbol)},
            {L"SecurityType", Variant::Text(L"F")},
            {L"BrokerID", Variant::Text(L"B1")},
            {L"Account", Variant::Text(L"A1")},
            {L"Side", Variant::Text(L"B")},
            {L"OrderQty", Variant::I4(1000)},
            {L"LeavesQty", Variant::I4(1000)},
            {L"DiscloseQty", Variant::I4(300)},
            {L"Variance", Variant::I4(0)},
            {L"Price", Variant::I8(12345)},
            {L"PriceString", Variant::Text(L"123.45")},
            {L"OrderType", Variant::I4(2)},
            {L"TimeInForce", Variant::I4(0)},
            {L"GroupType", Variant::I4(1)},
            {L"GroupID", Variant::Text(L"G1")}};
  }

  uint32_t Keep(const sim::FieldList& fields, int32_t order_index = 3) {
    const uint32_t cookie = Publish(L"order", fields);
    Topic(L"TRADE.SLICE.MANAGER", 0, 0, std::to_wstring(order_index), Variant::I4(static_cast<int32_t>(cookie)));
    return cookie;
  }

  void ReleaseSlice(uint32_t cookie) {
    Topic(L"TRADE.SLICE.ORDER", 0, 0, L"", Variant::I4(static_cast<int32_t>(cookie)));
  }

  // Template B of the children of the parent above (group type 2, group G1).
  static std::wstring SliceAllChild(int32_t number, const std::wstring& synthetic) {
    return L"TYPE=F,BROKERID=B1,ACCOUNT=A1,SYMBOL=QX.F.CN.IF2612,SYMBOLA=,SYMBOLB=,SIDE=B,SIDE1=,SIDE2=,QTY=300,"
           L"PRICE=12345,PRICESTRING=123.45,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
           L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
           L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,TOUCHCONDITION=-2147483648,"
           L"ORDERTYPE=2,POSITIONEFFECT=-2147483648,TIMEINFORCE=0,SYNTHETIC=" +
           synthetic + L",GROUPTYPE=2,GROUPID=G1-#-Sliced-#-" + std::to_wstring(number) +
           L",CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=S1,"
           L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
           L"SlicedType=4,DiscloseQty=0,ContingentSymbol=,GroupPrefix=,OriLevelKey=L1,SpreadID=,Sliced=1";
  }

  bool LoggedStartingWith(const std::wstring& prefix) const {
    for (const std::wstring& line : Logs()) {
      if (line.rfind(Log(prefix), 0) == 0) return true;
    }
    return false;
  }

  // Position of the first log line starting with `prefix`, or -1.
  int LogIndex(const std::wstring& prefix) const {
    const auto logs = Logs();
    for (std::size_t i = 0; i < logs.size(); ++i) {
      if (logs[i].rfind(Log(prefix), 0) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  bool Indexed(const std::wstring& level_key, int32_t expected) {
    int32_t index = 0;
    return peer_.OrderIndex().Lookup(level_key, index) && index == expected;
  }

  // A probe of `topic` advised ahead of the host, so that the host's answers
  // still win; it stays advised until the test ends.
  LockProbe& AdviseProbeFirst(const std::wstring& topic) {
    probe_ = std::make_unique<LockProbe>(peer_, topic);
    manager_->Unadvise(sink_cookie_);
    manager_->Advise(probe_.get(), &probe_cookie_);
    manager_->Advise(&host_, &sink_cookie_);
    return *probe_;
  }

  void TearDown() override {
    if (probe_ != nullptr) manager_->Unadvise(probe_cookie_);
  }

  std::unique_ptr<LockProbe> probe_;
  uint32_t probe_cookie_ = 0;
};

// Kinds that are not sliced.

TEST_F(SliceRegistryTest, SlicedTypeZeroLogsTheFirstLineOnly) {
  sim::FieldList parent = Parent(L"L1", L"S1", 0);
  Keep(parent);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER, 3"),
                                               Log(L"KeepSliceOrder(1):L1,0,5,1, lOrdIndex=3")}));
  int32_t index = 0;
  EXPECT_FALSE(peer_.OrderIndex().Lookup(L"L1", index));
  EXPECT_EQ(peer_.OrderData().GetCount(), 0);
  EXPECT_EQ(peer_.SliceIdToLevelKey().GetCount(), 0);
  EXPECT_EQ(peer_.SlicedOrders().GetCount(), 0);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(SliceRegistryTest, AbsentSlicedTypeLogsTheFirstLineOnly) {
  sim::FieldList parent = Parent(L"L1", L"S1", 0);
  DropField(parent, L"SlicedType");
  DropField(parent, L"Interval");
  DropField(parent, L"LeftoverAction");
  Keep(parent, 4);
  EXPECT_EQ(Logs(),
            (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER, 4"),
                                       Log(L"KeepSliceOrder(1):L1,-2147483648,-2147483648,-2147483648, lOrdIndex=4")}));
  EXPECT_EQ(peer_.OrderData().GetCount(), 0);
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(SliceRegistryTest, NegativeSlicedTypeIsNotSliced) {
  Keep(Parent(L"L1", L"S1", -1));
  EXPECT_EQ(Logs().size(), 2u);
  EXPECT_EQ(peer_.OrderData().GetCount(), 0);
}

// The session check.

TEST_F(SliceRegistryTest, ClosedMarketLeavesOnlyTheOrderIndexAndParksTheOrder) {
  Keep(Parent(L"L1", L"S1", 1, kClosedSymbol), 3);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.MANAGER, 3"),
                                               Log(L"KeepSliceOrder(1):L1,1,5,1, lOrdIndex=3"),
                                               Log(L"CheckOpenCloseTime:0, 93000, 130000, 130000 ~ 150000")}));
  EXPECT_TRUE(Indexed(L"L1", 3));
  EXPECT_EQ(peer_.OrderData().GetCount(), 0);
  EXPECT_EQ(peer_.SliceIdToLevelKey().GetCount(), 0);
  EXPECT_EQ(peer_.SliceParams().GetCount(), 0);
  EXPECT_EQ(peer_.SlicedOrders().GetCount(), 0);
  EXPECT_TRUE(peer_.SendQueue().empty());
  void* slot = nullptr;
  ASSERT_TRUE(peer_.WaitOpenOrders().Lookup(L"L1", slot));
  EXPECT_EQ(static_cast<stcWaitOrder*>(slot)->nOpenTime, 130000);
}

TEST_F(SliceRegistryTest, SecondTopicForAParkedParentReplacesItsWaitEntry) {
  Keep(Parent(L"L1", L"S1", 1, kClosedSymbol), 3);
  sim::FieldList again = Parent(L"L1", L"S1", 1, kClosedSymbol);
  SetField(again, L"Account", Variant::Text(L"A2"));
  Keep(again, 4);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 1);
  void* slot = nullptr;
  ASSERT_TRUE(peer_.WaitOpenOrders().Lookup(L"L1", slot));
  EXPECT_EQ(static_cast<stcWaitOrder*>(slot)->pOrder->GetString(L"Account"), CString(L"A2"));
  EXPECT_TRUE(Indexed(L"L1", 4));
  EXPECT_EQ(peer_.OrderData().GetCount(), 0);
}

TEST_F(SliceRegistryTest, OrderIndexMinusOneSkipsTheOpenCloseCheck) {
  Keep(Parent(L"L1", L"S1", 1, kClosedSymbol), -1);
  EXPECT_FALSE(LoggedStartingWith(L"CheckOpenCloseTime:"));
  EXPECT_TRUE(Logged(L"KeepSliceOrder(1):L1,1,5,1, lOrdIndex=-1"));
  EXPECT_TRUE(Indexed(L"L1", -1));
  EXPECT_TRUE(peer_.OrderData().Contains(L"L1"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(SliceRegistryTest, TimeInForceSixSkipsTheOpenCloseCheck) {
  sim::FieldList parent = Parent(L"L1", L"S1", 1, kClosedSymbol);
  SetField(parent, L"TimeInForce", Variant::I4(6));
  Keep(parent, 3);
  EXPECT_FALSE(LoggedStartingWith(L"CheckOpenCloseTime:"));
  EXPECT_TRUE(Indexed(L"L1", 3));
  EXPECT_TRUE(peer_.OrderData().Contains(L"L1"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

TEST_F(SliceRegistryTest, OpenMarketIsCheckedBeforeTheOrderIsRegistered) {
  Keep(Parent(L"L1", L"S1", 1), 3);
  EXPECT_TRUE(Logged(L"CheckOpenCloseTime:1, 93000, 93000, 93000 ~ 113000"));
  EXPECT_LT(LogIndex(L"CheckOpenCloseTime:"), LogIndex(L"KeepSliceOrder(2):"));
  EXPECT_EQ(peer_.WaitOpenOrders().GetCount(), 0);
}

// Sliced by time and quantity.

TEST_F(SliceRegistryTest, TypeTwoRegistersWithItsSliceParametersAndCutsTheFirstChild) {
  Keep(Parent(L"L1", L"S1", 2), 3);
  EXPECT_TRUE(Indexed(L"L1", 3));
  void* slot = nullptr;
  ASSERT_TRUE(peer_.OrderData().Lookup(L"L1", slot));
  EXPECT_EQ(static_cast<CBaseData*>(slot)->GetString(L"LevelKey"), CString(L"L1"));
  CString text;
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Lookup(L"S1", text));
  EXPECT_EQ(text, CString(L"L1"));
  EXPECT_TRUE(peer_.SliceParams().Lookup(L"S1", text));
  EXPECT_EQ(text, CString(L"2,5,1"));
  EXPECT_TRUE(peer_.SlicedOrders().Lookup(L"L1", text));
  EXPECT_EQ(text, CString(L"L1"));
  EXPECT_TRUE(Logged(L"KeepSliceOrder(2):S1"));
  EXPECT_LT(LogIndex(L"KeepSliceOrder(2):"), LogIndex(L"DoSlicedWork First:"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
}

TEST_F(SliceRegistryTest, SameLevelKeyKeptAgainHoldsTheNewRecordAndRetiresTheEarlierOne) {
  Keep(Parent(L"L1", L"S1", 2), 3);
  void* first = nullptr;
  ASSERT_TRUE(peer_.OrderData().Lookup(L"L1", first));
  Keep(Parent(L"L1", L"S2", 2), 4);
  void* second = nullptr;
  ASSERT_TRUE(peer_.OrderData().Lookup(L"L1", second));
  EXPECT_NE(second, first);
  EXPECT_TRUE(Indexed(L"L1", 4));
  const auto& retired = peer_.RetiredRecords();
  EXPECT_EQ(std::count(retired.begin(), retired.end(), static_cast<CBaseData*>(first)), 1);
  EXPECT_EQ(peer_.SendQueue().size(), 2u);
}

TEST_F(SliceRegistryTest, TypeSevenIsSlicedLikeOneAndTwoWithTheFirstChildAtOnce) {
  Keep(Parent(L"L1", L"S1", 7), 3);
  CString params;
  EXPECT_TRUE(peer_.SliceParams().Lookup(L"S1", params));
  EXPECT_EQ(params, CString(L"7,5,1"));
  EXPECT_TRUE(Logged(L"KeepSliceOrder(2):S1"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_TRUE(peer_.TimerArmed(CTradeSliceManager::kTimerSendQueue));
}

TEST_F(SliceRegistryTest, SliceParametersOfAbsentIntervalAndLeftoverPrintTheirDefaults) {
  sim::FieldList parent = Parent(L"L1", L"S1", 1);
  DropField(parent, L"Interval");
  DropField(parent, L"LeftoverAction");
  Keep(parent, 3);
  CString params;
  EXPECT_TRUE(peer_.SliceParams().Lookup(L"S1", params));
  EXPECT_EQ(params, CString(L"1,-2147483648,-2147483648"));
}

// Sliced by volume.

TEST_F(SliceRegistryTest, TypeThreeWatchesItsSymbolAndThenCutsTheFirstChild) {
  host_.Topic(kOpenSymbol);
  Keep(Parent(L"L1", L"S1", 3), 3);
  void* slot = nullptr;
  ASSERT_TRUE(peer_.VolumeWatch().Lookup(kOpenSymbol, slot));
  auto* watch = static_cast<VolumeWatchEntry*>(slot);
  EXPECT_NE(watch->pQuote, nullptr);
  EXPECT_TRUE(watch->arrLevelKeys.empty());
  CString params;
  EXPECT_TRUE(peer_.SliceParams().Lookup(L"S1", params));
  EXPECT_EQ(params, CString(L"3,5,1"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
}

TEST_F(SliceRegistryTest, TwoTypeThreeOrdersOnOneSymbolShareOneWatchEntryFetchedOnce) {
  host_.Topic(kOpenSymbol);
  Keep(Parent(L"L1", L"S1", 3), 3);
  void* first = nullptr;
  ASSERT_TRUE(peer_.VolumeWatch().Lookup(kOpenSymbol, first));
  Keep(Parent(L"L2", L"S2", 3), 4);
  void* second = nullptr;
  ASSERT_TRUE(peer_.VolumeWatch().Lookup(kOpenSymbol, second));
  EXPECT_EQ(first, second);
  EXPECT_EQ(peer_.VolumeWatch().GetCount(), 1);
  int fetches = 0;
  for (const sim::HostEvent& e : host_.Events()) {
    if (e.ev == "GetTopicData" && e.topic == kOpenSymbol) ++fetches;
  }
  EXPECT_EQ(fetches, 1);
  EXPECT_EQ(peer_.SendQueue().size(), 2u);
}

TEST_F(SliceRegistryTest, TypeThreeOnASymbolWithoutHostRecordWatchesWithoutRecord) {
  Keep(Parent(L"L1", L"S1", 3), 3);
  void* slot = nullptr;
  ASSERT_TRUE(peer_.VolumeWatch().Lookup(kOpenSymbol, slot));
  EXPECT_EQ(static_cast<VolumeWatchEntry*>(slot)->pQuote, nullptr);
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
}

// Slice-all kinds.

TEST_F(SliceRegistryTest, TypeFourRegistersWithoutSliceParametersAndCutsAllChildren) {
  Keep(Parent(L"L1", L"S1", 4), 3);
  EXPECT_TRUE(Indexed(L"L1", 3));
  EXPECT_TRUE(peer_.OrderData().Contains(L"L1"));
  CString text;
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Lookup(L"S1", text));
  EXPECT_EQ(text, CString(L"L1"));
  EXPECT_TRUE(peer_.SlicedOrders().Contains(L"L1"));
  EXPECT_FALSE(peer_.SliceParams().Lookup(L"S1", text));
  EXPECT_FALSE(LoggedStartingWith(L"KeepSliceOrder(2):"));
  void* batch = nullptr;
  ASSERT_TRUE(peer_.SliceAllBatches().Lookup(L"1001", batch));
  EXPECT_EQ(static_cast<CStringArray*>(batch)->size(), 3u);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1"}));
}

TEST_F(SliceRegistryTest, TypeFiveIsOnlyQueuedForTheFinishTimer) {
  Keep(Parent(L"L1", L"S1", 5), 3);
  EXPECT_TRUE(Indexed(L"L1", 3));
  EXPECT_TRUE(peer_.OrderData().Contains(L"L1"));
  CString text;
  EXPECT_TRUE(peer_.SliceIdToLevelKey().Lookup(L"S1", text));
  EXPECT_TRUE(peer_.SlicedOrders().Contains(L"L1"));
  EXPECT_FALSE(peer_.SliceParams().Lookup(L"S1", text));
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1"}));
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_FALSE(LoggedStartingWith(L"KeepSliceOrder(2):"));
  EXPECT_FALSE(LoggedStartingWith(L"DoSlicedAll"));
  EXPECT_FALSE(LoggedStartingWith(L"DoSlicedWork"));
  // Timer 102 with 10 ms.
  Advance(9);
  EXPECT_FALSE(Logged(L"[Sliced Send End order] L1"));
  Advance(1);
  EXPECT_TRUE(Logged(L"[Sliced Send End order] L1"));
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
}

TEST_F(SliceRegistryTest, EveryTypeFiveOrderJoinsTheFinishListOfOneTimer102) {
  Keep(Parent(L"L1", L"S1", 5), 3);
  Keep(Parent(L"L2", L"S2", 5), 4);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1", L"L2"}));
  Advance(10);
  EXPECT_TRUE(Logged(L"[Sliced Send End order] L1"));
  EXPECT_TRUE(Logged(L"[Sliced Send End order] L2"));
}

TEST_F(SliceRegistryTest, SliceOrderWithTypeFourDoesNothing) {
  const uint32_t cookie = Publish(L"order", Parent(L"L1", L"S1", 4));
  ReleaseSlice(cookie);
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.ORDER, "), Log(L"SliceOrder:L1")}));
  EXPECT_EQ(peer_.SliceAllSet().GetCount(), 0);
  EXPECT_EQ(peer_.SliceAllBatches().GetCount(), 0);
  EXPECT_TRUE(peer_.FinishList().empty());
}

TEST_F(SliceRegistryTest, SliceOrderWithTypeFiveMarksTheSliceAndCutsAllChildren) {
  const uint32_t cookie = Keep(Parent(L"L1", L"S1", 5), 3);
  ReleaseSlice(cookie);
  EXPECT_TRUE(Logged(L"SliceOrder:L1"));
  CString text;
  EXPECT_TRUE(peer_.SliceAllSet().Lookup(L"S1", text));
  EXPECT_EQ(text, CString(L"S1"));
  void* batch = nullptr;
  ASSERT_TRUE(peer_.SliceAllBatches().Lookup(L"1001", batch));
  EXPECT_EQ(static_cast<CStringArray*>(batch)->size(), 3u);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1", L"L1"}));
}

TEST_F(SliceRegistryTest, SliceOrderWithUnresolvableCookieIsSilent) {
  Topic(L"TRADE.SLICE.ORDER", 0, 0, L"", Variant::I4(987654));
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"SetTopic:TRADE.SLICE.ORDER, ")}));
}

// Locks.

TEST_F(SliceRegistryTest, FirstSliceRunsInsideTheOrderMutexAndTheWatchFetchOutsideIt) {
  host_.Topic(kOpenSymbol);
  sim::FieldList parent = Parent(L"L1", L"S1", 3);
  SetField(parent, L"SecurityType", Variant::Text(L"S"));
  int order_levels = -1, volume_levels = -1, slice_levels = -1;
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant*, Variant*) {
    if (topic != L"MARZIPAN.REQUEST" || text != L"STKINFO") return;
    order_levels = peer_.OrderMutex().LevelsHeldByCaller();
    volume_levels = peer_.VolumeMutex().LevelsHeldByCaller();
    slice_levels = peer_.SliceMutex().LevelsHeldByCaller();
  };
  LockProbe& probe = AdviseProbeFirst(kOpenSymbol);
  Keep(parent, 3);
  EXPECT_EQ(order_levels, 1);
  EXPECT_EQ(volume_levels, 0);
  EXPECT_EQ(slice_levels, 0);
  EXPECT_EQ(probe.fetches, 1);
  EXPECT_EQ(probe.order_levels, 0);
  EXPECT_EQ(probe.volume_levels, 1);
}

TEST_F(SliceRegistryTest, SliceAllRunsInsideTheOrderMutex) {
  sim::FieldList parent = Parent(L"L1", L"S1", 4);
  SetField(parent, L"SecurityType", Variant::Text(L"S"));
  int order_levels = -1, slice_levels = -1;
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant*, Variant*) {
    if (topic != L"MARZIPAN.REQUEST" || text != L"STKINFO") return;
    order_levels = peer_.OrderMutex().LevelsHeldByCaller();
    slice_levels = peer_.SliceMutex().LevelsHeldByCaller();
  };
  Keep(parent, 3);
  EXPECT_EQ(order_levels, 1);
  EXPECT_EQ(slice_levels, 0);
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
}

TEST_F(SliceRegistryTest, ReleasedSliceAllRunsInsideTheOrderMutex) {
  sim::FieldList parent = Parent(L"L1", L"S1", 5);
  SetField(parent, L"SecurityType", Variant::Text(L"S"));
  const uint32_t cookie = Keep(parent, 3);
  int order_levels = -1;
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant*, Variant*) {
    if (topic == L"MARZIPAN.REQUEST" && text == L"STKINFO") order_levels = peer_.OrderMutex().LevelsHeldByCaller();
  };
  ReleaseSlice(cookie);
  EXPECT_EQ(order_levels, 1);
}

TEST_F(SliceRegistryTest, KeepingReentersTheOrderMutexTheHostHoldsOnItsThread) {
  Topic(L"ORDERSET.LOCK", 0, 0, L"", Variant());
  Keep(Parent(L"L1", L"S1", 1), 3);
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 1);
  Topic(L"ORDERSET.UNLOCK", 0, 0, L"", Variant());
  EXPECT_EQ(peer_.OrderMutex().LevelsHeldByCaller(), 0);
  EXPECT_TRUE(peer_.OrderData().Contains(L"L1"));
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
}

TEST_F(SliceRegistryTest, TypeFiveTakesTheSliceMutexInsideTheOrderMutex) {
  const uint32_t cookie = Publish(L"order", Parent(L"L1", L"S1", 5));
  // The test's thread holds the slice mutex; the host's thread keeps the
  // order and gets stuck on it.
  peer_.SliceMutex().Lock();
  std::thread host([&] { Topic(L"TRADE.SLICE.MANAGER", 0, 0, L"3", Variant::I4(static_cast<int32_t>(cookie))); });
  const bool host_stuck = WaitForWaiter(peer_.SliceMutex());
  // A third thread now asks for the order mutex: it gets stuck too, so the
  // host holds the order mutex while it waits for the slice mutex.
  std::atomic<bool> order_taken{false};
  std::thread other([&] {
    ScopedLock<CMutex> guard(peer_.OrderMutex());
    order_taken = true;
  });
  const bool other_stuck = WaitForWaiter(peer_.OrderMutex(), &order_taken);
  EXPECT_TRUE(host_stuck);
  EXPECT_TRUE(other_stuck);
  EXPECT_FALSE(order_taken.load());
  peer_.SliceMutex().Unlock();
  host.join();
  other.join();
  EXPECT_TRUE(order_taken.load());
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1"}));
}

// From the host's topic to the host's orders.

TEST_F(SliceRegistryTest, TypeOneInsideItsSessionSendsExactlyOneNewOrder100msLater) {
  Keep(Parent(L"L1", L"S1", 1), 3);
  Advance(99);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].t_ms, 100);
  EXPECT_EQ(sent[0].p1, 1);
  EXPECT_EQ(sent[0].p2, 2);
  EXPECT_TRUE(sent[0].data.IsEmpty());
  EXPECT_EQ(sent[0].text,
            L"TYPE=F,BROKERID=B1,ACCOUNT=A1,SYMBOL=QX.F.CN.IF2612,SYMBOLA=,SYMBOLB=,SIDE=B,SIDE1=,SIDE2=,QTY=300,"
            L"PRICE=12345,PRICESTRING=123.45,STOPPRICE=-9223372036854775808,STOPPRICESTRING=,"
            L"TRAILINGFIELD=-2147483648,TRAILINGTYPE=-2147483648,TRAILINGAMOUNT=-9223372036854775808,"
            L"TOUCHPRICE=-9223372036854775808,TOUCHPRICESTRING=,TOUCHFIELD=-2147483648,TOUCHCONDITION=-2147483648,"
            L"ORDERTYPE=2,POSITIONEFFECT=-2147483648,TIMEINFORCE=0,SYNTHETIC=-2147483648,GROUPTYPE=1,GROUPID=G1,"
            L"GROUPMASTER=0,CHASEPRICE=,SPREAD=-2147483648,STRATEGY=,USERKEY1=,USERKEY2=,USERKEY3=,SlicedID=S1,"
            L"SlicedPriceField=0,SlicedTicks=0,ExtCommands=,Consecutive=0,NumberOfRetries=-1,RetryInterval=-1,"
            L"ContingentSymbol=,GroupPrefix=,OriLevelKey=L1,SpreadID=,Sliced=1");
  Advance(1000);
  EXPECT_EQ(Sent(L"TRADE.NEWORDER").size(), 1u);
}

TEST_F(SliceRegistryTest, TypeOneOutsideItsSessionIsParkedWithTheNextOpenTime) {
  Keep(Parent(L"L1", L"S1", 1, kClosedSymbol), 3);
  Advance(1000);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  void* slot = nullptr;
  ASSERT_TRUE(peer_.WaitOpenOrders().Lookup(L"L1", slot));
  auto* parked = static_cast<stcWaitOrder*>(slot);
  EXPECT_EQ(parked->nOpenTime, 130000);
  EXPECT_EQ(parked->strLevelKey, CString(L"L1"));
  ASSERT_NE(parked->pOrder, nullptr);
  EXPECT_EQ(parked->pOrder->GetString(L"SliceID"), CString(L"S1"));
  EXPECT_FALSE(peer_.OrderData().Contains(L"L1"));
}

TEST_F(SliceRegistryTest, TypeFourSendsItsBatchAt50msAndFinishesOnTimer102) {
  sim::FieldList parent = Parent(L"L1", L"S1", 4);
  SetField(parent, L"GroupType", Variant::I4(2));
  Keep(parent, 3);
  EXPECT_EQ(peer_.FinishList(), (CStringArray{L"L1"}));
  EXPECT_TRUE(peer_.TimerArmed(CTradeSliceManager::kTimerFinish));
  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 3u);
  const std::wstring unset = L"-2147483648";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(sent[i].t_ms, 50);
    EXPECT_EQ(sent[i].p1, 1);
    EXPECT_EQ(sent[i].p2, 2);
    EXPECT_EQ(sent[i].text, SliceAllChild(i + 1, unset));
  }
  Advance(49);
  EXPECT_FALSE(Logged(L"[Sliced Send End order] L1"));
  Advance(1);
  EXPECT_TRUE(Logged(L"[Sliced Send End order] L1"));
}

TEST_F(SliceRegistryTest, TypeFiveWaitsForSliceOrderAndThenSendsItsBatch) {
  sim::FieldList parent = Parent(L"L1", L"S1", 5);
  SetField(parent, L"GroupType", Variant::I4(2));
  const uint32_t cookie = Keep(parent, 3);
  Advance(1000);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  ReleaseSlice(cookie);
  Advance(49);
  EXPECT_TRUE(Sent(L"TRADE.NEWORDER").empty());
  Advance(1);
  const auto sent = Sent(L"TRADE.NEWORDER");
  ASSERT_EQ(sent.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(sent[i].t_ms, 1050);
    EXPECT_EQ(sent[i].text, SliceAllChild(i + 1, L"0"));
  }
}

}  // namespace
}  // namespace tsm
