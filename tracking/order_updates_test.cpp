#include <atomic>
#include <functional>
#include <mutex>

#include "manager/trade_slice_manager.h"
#include "testing/manager_fixture.h"
#include "testing/read_counting_object.h"

namespace tsm {
namespace {

constexpr const wchar_t* kSymbol = L"QX.F.TW.TXF";

Variant T(const std::wstring& text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

class OrderUpdatesTest : public ManagerTest {
 protected:
  // Parent "P1" of slice "S1", registered as the registry keeps it, with
  // 700 left to cut in slices of 300. Called again, it resets the same parent.
  void Parent(int32_t sliced_type, int32_t leftover_action = 0, int32_t interval = 5000) {
    const sim::FieldList fields = {{L"LevelKey", T(L"P1")},
                                   {L"SliceID", T(L"S1")},
                                   {L"LeavesQty", I4(700)},
                                   {L"SlicedType", I4(sliced_type)},
                                   {L"DiscloseQty", I4(300)},
                                   {L"SecurityType", T(L"F")},
                                   {L"Symbol", T(kSymbol)},
                                   {L"LeftoverAction", I4(leftover_action)}};
    if (parent_ == nullptr) {
      parent_ = Record(L"order", fields);
      peer_.OrderData().SetAt(L"P1", CBaseData::FromCookie(host_.Publish(parent_), nullptr, &clock_));
    } else {
      sim::SimHost::Write(parent_, fields);
    }
    peer_.OrderIndex().SetAt(L"P1", 0);
    peer_.SliceIdToLevelKey().SetAt(L"S1", L"P1");
    peer_.SliceParams().SetAt(L"S1",
                              CString::Formatted(L"%ld,%ld,%ld", sliced_type, interval, leftover_action));
  }

  IBaseData* parent_ = nullptr;

  // A child of slice "S1" taken in through "TRADE.HOT.MONTH", so it is listened to.
  IBaseData* Child(const std::wstring& level_key, sim::FieldList extra = {}) {
    sim::FieldList fields = {{L"LevelKey", T(level_key)}, {L"SliceID", T(L"S1")},   {L"SlicedType", I4(1)},
                             {L"OriginalQty", I4(300)},   {L"LeavesQty", I4(300)},  {L"CumQty", I4(0)},
                             {L"Symbol", T(kSymbol)},     {L"OrderID", T(L"")}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    IBaseData* order = Record(L"order", fields);
    Topic(L"TRADE.HOT.MONTH", 0, 0, L"1", I4(static_cast<int32_t>(host_.Publish(order))));
    return order;
  }

  void Update(IBaseData* order, const sim::FieldList& fields) {
    sim::SimHost::Write(order, fields);
    Advance(0);
  }

  VolumeWatchEntry* Watch(IBaseData* quote) {
    auto* entry = new VolumeWatchEntry();
    entry->pQuote = CBaseData::FromCookie(host_.Publish(quote), manager_, &clock_);
    peer_.VolumeWatch().SetAt(kSymbol, entry);
    return entry;
  }

  static void WriteVolume(IBaseData* quote, int64_t volume) {
    const int32_t update = quote->BeginUpdate();
    quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
    quote->EndUpdate(update);
  }

  bool SliceCut() const { return Logged(L"DoSlicedWork :SendNewOrder NewOrderQty=300, TotalQty=400, LeavesQty=0, Type=0"); }

  std::vector<std::wstring> LogsSince(size_t first) const {
    const auto all = Logs();
    return std::vector<std::wstring>(all.begin() + static_cast<std::ptrdiff_t>(first), all.end());
  }
};

TEST_F(OrderUpdatesTest, UpdateOfAnOrderNotListenedForItsSliceOnlyLogsTheFirstLine) {
  Parent(1);
  IBaseData* child = Child(L"C1");
  peer_.ListenedSlice().RemoveKey(L"C1");
  const size_t first = Logs().size();
  Update(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_EQ(LogsSince(first), (std::vector<std::wstring>{Log(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=3")}));
}

TEST_F(OrderUpdatesTest, FilledChildCutsTheNextSliceIntoTheSendQueue) {
  Parent(1);
  IBaseData* child = Child(L"C1");
  Update(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=3"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LeavesQty=0"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : Original LevelKey=P1"));
  EXPECT_TRUE(SliceCut());
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
}

TEST_F(OrderUpdatesTest, EveryExecTypeOfTheFinalGroupCutsTheNextSlice) {
  for (int32_t exec_type : {3, 5, 7, 8, 10, 21}) {
    SCOPED_TRACE(exec_type);
    host_.ClearEvents();
    peer_.SendQueue().clear();
    Parent(1);
    const std::wstring key = L"C" + std::to_wstring(exec_type);
    IBaseData* child = Child(key);
    Update(child, {{L"ExecType", I4(exec_type)}, {L"LeavesQty", I4(0)}});
    EXPECT_EQ(peer_.SendQueue().size(), 1u);
  }
}

TEST_F(OrderUpdatesTest, ExecTypesFromElevenUpOtherThanTwentyOneAreIgnored) {
  Parent(1);
  for (int32_t exec_type : {11, 12, 16, 20, 22}) {
    SCOPED_TRACE(exec_type);
    const std::wstring key = L"C" + std::to_wstring(exec_type);
    IBaseData* child = Child(key);
    const size_t first = Logs().size();
    Update(child, {{L"ExecType", I4(exec_type)}, {L"OrderID", T(L"X1")}});
    EXPECT_EQ(LogsSince(first).size(), 1u);
    EXPECT_TRUE(peer_.ListenedSlice().Contains(key));
  }
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(OrderUpdatesTest, WorkingExecTypesCutNoSlice) {
  Parent(1);
  for (int32_t exec_type : {0, 1, 2, 4, 6, 9}) {
    SCOPED_TRACE(exec_type);
    const std::wstring key = L"C" + std::to_wstring(exec_type);
    IBaseData* child = Child(key);
    Update(child, {{L"ExecType", I4(exec_type)}, {L"OrderID", T(L"X1")}});
    EXPECT_TRUE(peer_.ListenedSlice().Contains(key));
  }
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_FALSE(Logged(L"OnDataUpdate : LeavesQty=300"));
}

TEST_F(OrderUpdatesTest, FilledChildOfATimedParentCutsNoFurtherSlice) {
  Parent(2, 1);
  IBaseData* child = Child(L"C1");
  Update(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(Logged(L"OnDataUpdate : Original LevelKey=P1"));
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_TRUE(peer_.FinishList().empty());
  // Its timer step will still find it.
  EXPECT_TRUE(peer_.ListenedSlice().Contains(L"C1"));
}

TEST_F(OrderUpdatesTest, MissingExecTypeIsAWorkingStateThatStartsTheVolumeWatch) {
  Parent(3, 1, 1);
  IBaseData* quote = host_.Topic(kSymbol);
  WriteVolume(quote, 100);
  VolumeWatchEntry* entry = Watch(quote);
  IBaseData* child = Child(L"C1");
  Update(child, {{L"OrderID", T(L"X1")}});

  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=-2147483648"));
  EXPECT_TRUE(Logged(L"Volume OrderInfo: Symbol=QX.F.TW.TXF, TradeVolume=100"));
  void* start = nullptr;
  EXPECT_TRUE(peer_.StartVolume().Lookup(L"C1", start));
  EXPECT_EQ(reinterpret_cast<intptr_t>(start), 100);
  EXPECT_EQ(entry->arrLevelKeys, (CStringArray{L"C1"}));
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(OrderUpdatesTest, VolumeWatchStartsOnceForAChild) {
  Parent(3, 1, 1);
  IBaseData* quote = host_.Topic(kSymbol);
  WriteVolume(quote, 100);
  VolumeWatchEntry* entry = Watch(quote);
  IBaseData* child = Child(L"C1");
  Update(child, {{L"ExecType", I4(0)}, {L"OrderID", T(L"X1")}});
  WriteVolume(quote, 150);
  Update(child, {{L"ExecType", I4(1)}, {L"CumQty", I4(10)}});

  void* start = nullptr;
  EXPECT_TRUE(peer_.StartVolume().Lookup(L"C1", start));
  EXPECT_EQ(reinterpret_cast<intptr_t>(start), 100);
  EXPECT_EQ(entry->arrLevelKeys.size(), 1u);
}

TEST_F(OrderUpdatesTest, VolumeWatchNeedsAnOrderIdAVolumeSliceALeftoverActionAndAnInterval) {
  IBaseData* quote = host_.Topic(kSymbol);
  WriteVolume(quote, 100);
  Watch(quote);
  struct Case {
    int32_t type, leftover_action, interval;
    const wchar_t* order_id;
  };
  int n = 0;
  for (const Case& c : {Case{3, 1, 1, L""}, Case{1, 1, 1, L"X1"}, Case{3, 0, 1, L"X1"}, Case{3, 1, 0, L"X1"}}) {
    SCOPED_TRACE(n);
    Parent(c.type, c.leftover_action, c.interval);
    const std::wstring key = L"C" + std::to_wstring(++n);
    IBaseData* child = Child(key);
    Update(child, {{L"ExecType", I4(0)}, {L"OrderID", T(c.order_id)}});
    EXPECT_FALSE(peer_.StartVolume().Contains(key));
  }
}

TEST_F(OrderUpdatesTest, QuoteChangeOfASymbolAlreadyQueuedIsNotQueuedTwice) {
  // The worker is not started here, so nothing takes the queue meanwhile.
  IBaseData* quote = host_.Topic(kSymbol);
  Watch(quote);
  WriteVolume(quote, 100);
  Advance(0);
  WriteVolume(quote, 120);
  Advance(0);
  EXPECT_EQ(peer_.VolumeCheckQueue(), (CStringArray{kSymbol}));
  EXPECT_TRUE(peer_.VolumeCheckSet().Contains(kSymbol));

  // Once the queue has been taken (as the worker takes it) the symbol is
  // queued again.
  peer_.VolumeCheckQueue().clear();
  peer_.VolumeCheckSet().RemoveAll();
  WriteVolume(quote, 130);
  Advance(0);
  EXPECT_EQ(peer_.VolumeCheckQueue(), (CStringArray{kSymbol}));
}

TEST_F(OrderUpdatesTest, CancelOfAClientModifiedChildOnlyRetiresIt) {
  Parent(1);
  IBaseData* child = Child(L"C1");
  Update(child, {{L"ExecType", I4(8)}, {L"ClientModify", I4(1)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1"}));
  Advance(10000);
  EXPECT_FALSE(peer_.ListenedOrders().Contains(L"C1"));
}

TEST_F(OrderUpdatesTest, RejectOfAChildThePlatformRetriesOnlyRetiresIt) {
  Parent(1);
  IBaseData* child = Child(L"C1", {{L"Consecutive", I4(1)}, {L"NumberOfRetries", I4(2)}});
  Update(child, {{L"ExecType", I4(10)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(peer_.SendQueue().empty());
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1"}));
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
}

TEST_F(OrderUpdatesTest, FillOfAChildThePlatformWouldRetryStillCutsTheNextSlice) {
  Parent(1);
  IBaseData* child = Child(L"C1", {{L"Consecutive", I4(1)}, {L"NumberOfRetries", I4(2)}});
  Update(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(SliceCut());
}

TEST_F(OrderUpdatesTest, CancelWithoutRetriesLeftCutsTheNextSlice) {
  Parent(1);
  IBaseData* child = Child(L"C1", {{L"Consecutive", I4(1)}, {L"NumberOfRetries", I4(0)}});
  Update(child, {{L"ExecType", I4(8)}, {L"LeavesQty", I4(0)}});
  EXPECT_EQ(peer_.SendQueue().size(), 1u);
}

TEST_F(OrderUpdatesTest, ChildWhoseSliceEndedIsCleanedUp) {
  Parent(1);
  IBaseData* child = Child(L"C1");
  peer_.SliceIdToLevelKey().RemoveKey(L"S1");
  peer_.TimerToOrder().SetAt(L"3009", L"C1");
  peer_.OrderToTimer().SetAt(L"C1", L"3009");
  auto* entry = new VolumeWatchEntry();
  entry->arrLevelKeys.push_back(L"C1");
  peer_.VolumeWatch().SetAt(kSymbol, entry);

  Update(child, {{L"ExecType", I4(3)}, {L"LeavesQty", I4(0)}});
  EXPECT_FALSE(peer_.ListenedSlice().Contains(L"C1"));
  EXPECT_FALSE(peer_.TimerToOrder().Contains(L"3009"));
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"C1"));
  EXPECT_FALSE(peer_.VolumeWatch().Contains(kSymbol));
  EXPECT_TRUE(Logged(L"Remove : Topic=QX.F.TW.TXF"));
  EXPECT_EQ(peer_.Cleanup(), (CStringArray{L"C1"}));
  EXPECT_FALSE(Logged(L"OnDataUpdate : Original LevelKey=P1"));
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(OrderUpdatesTest, ParentRecordMissingIsLogged) {
  Parent(1);
  IBaseData* child = Child(L"C1");
  void* parent = nullptr;
  peer_.OrderData().Lookup(L"P1", parent);
  peer_.OrderData().RemoveKey(L"P1");
  peer_.RetiredRecords().push_back(static_cast<CBaseData*>(parent));
  Update(child, {{L"ExecType", I4(3)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(Logged(L"m_mapLevelKeyToOrderData is null : P1"));
  EXPECT_TRUE(peer_.SendQueue().empty());
}

TEST_F(OrderUpdatesTest, SiblingCheckPassesEvenWhenASiblingIsStillWorking) {
  Parent(1);
  IBaseData* first = Child(L"C1");
  IBaseData* second = Child(L"C2");
  Update(second, {{L"ExecType", I4(0)}, {L"OrderID", T(L"X2")}});
  CString listed;
  peer_.SliceToListened().Text(L"S1", listed);
  ASSERT_EQ(listed, L"C1,C2");
  Update(first, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_TRUE(SliceCut());
}

// The fill handler keeps what it found for each sibling while the registry
// stands still. A sibling the registry let go of (and freed) is not read
// through what was kept, and a record taken in again under the same key is
// the one read.
TEST_F(OrderUpdatesTest, SiblingWalkReadsWhatTheRegistryHoldsAfterItChanged) {
  Parent(1);
  IBaseData* first = Child(L"C1");
  Child(L"C2", {{L"ExecType", I4(8)}, {L"TimeInForce", I4(6)}});
  IBaseData* third = Child(L"C3");
  // C1's fill walks C2 and C3.
  Update(first, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  ASSERT_TRUE(SliceCut());
  // C2's step: with ExecType 8 it leaves the registry and its record is freed.
  peer_.TimerToOrder().SetAt(L"3001", L"C2");
  peer_.OrderToTimer().SetAt(L"C2", L"3001");
  manager_->OnTimer(3001);
  void* gone = nullptr;
  ASSERT_FALSE(peer_.OrderData().Lookup(L"C2", gone));

  // C2 taken in again, on a record that counts its "ExecType" reads.
  auto* counting = new ReadCountingObject(
      Record(L"order", {{L"LevelKey", T(L"C2")}, {L"SliceID", T(L"S1")}, {L"SlicedType", I4(1)},
                        {L"OriginalQty", I4(300)}, {L"CumQty", I4(0)}, {L"Symbol", T(kSymbol)}}),
      kKindFieldByName);
  std::atomic<int> exec_type_reads{0};
  counting->on_read = [&exec_type_reads](const Variant& argument) {
    if (argument.type() == VarType::BStr && argument.text() == L"ExecType") ++exec_type_reads;
  };
  Topic(L"TRADE.HOT.MONTH", 0, 0, L"1", I4(static_cast<int32_t>(host_.Publish(counting))));
  CString listed;
  peer_.SliceToListened().Text(L"S1", listed);
  ASSERT_EQ(listed, L"C1,C2,C3,C2");
  const int before = exec_type_reads.load();
  // C3's fill walks C1 and both entries of C2: the freed record is not
  // touched, the new one is read for each entry.
  Update(third, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
  EXPECT_EQ(exec_type_reads.load() - before, 2);
  counting->on_read = nullptr;
  counting->Release();
}

class SystemTimeTest : public OrderUpdatesTest {
 protected:
  void SetUp() override {
    host_.Topic(L"NordaSystemTime");
    Start();
  }

  // An order parked until `open` (HHMMSS) and registered, as a child parked
  // by its step is.
  void Parked(const std::wstring& key, int32_t open) {
    CBaseData* order = CBaseData::FromCookie(
        Publish(L"order", {{L"LevelKey", T(key)}, {L"SliceID", T(L"S1")}, {L"TimeInForce", I4(6)}}), nullptr,
        &clock_);
    peer_.OrderData().SetAt(key, order);
    peer_.WaitOpenOrders().SetAt(key, new stcWaitOrder{order, open, key});
  }

  void SystemTime(int32_t date, int32_t time_of_day, int32_t time_diff) {
    Update(host_.Topic(L"NordaSystemTime"),
           {{L"SystemDate", I4(date)}, {L"SystemTime", I4(time_of_day)}, {L"TimeDiff", I4(time_diff)}});
  }
};

// The clock stands at 2026-11-23 09:30:00 UTC, local time = UTC.
TEST_F(SystemTimeTest, SystemTimeRecordUpdatesTheKeptTimes) {
  SystemTime(20261123, 92950, 28800);
  EXPECT_EQ(peer_.TimeDiff().load(), 28800);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
}

TEST_F(SystemTimeTest, TwoWaitingOrdersDueInOneTickAreQueuedAndServedByOneTimer105) {
  Parked(L"W1", 93000);
  Parked(L"W2", 93010);
  Parked(L"W3", 100000);
  SystemTime(20261123, 92950, 0);

  // Due: opening after 09:29:50 and before 09:30:50. The longest wait from
  // the reference moment (09:30:00) is 10 s, so timer 105 runs at 11 s.
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=W1, 93000, 93050"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=W2, 93010, 93050"));
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  EXPECT_TRUE(peer_.WaitOpenOrders().Contains(L"W3"));

  Advance(10999);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 2u);
  EXPECT_EQ(peer_.OrderTimerId(), 3000);
  Advance(1);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"W1"));
  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"W2"));
  EXPECT_TRUE(peer_.WaitOpenOrders().Contains(L"W3"));
  EXPECT_TRUE(peer_.OrderToTimer().Contains(L"W1"));
  EXPECT_TRUE(peer_.OrderToTimer().Contains(L"W2"));
  EXPECT_EQ(peer_.OrderTimerId(), 3002);
}

TEST_F(SystemTimeTest, ADueOrderSoonerThanOneSecondWaitsTheLeastDelay) {
  Parked(L"W1", 93000);
  SystemTime(20261123, 92959, 0);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 1u);
  // The delay starts at 1: timer 105 after 2 s.
  Advance(1999);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 1u);
  Advance(1);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
}

TEST_F(SystemTimeTest, TimeDifferenceMovesTheReferenceMoment) {
  // Exchange clock 8 h ahead of UTC: 17:30:00. An order opening at 17:30:40
  // is 40 s away.
  Parked(L"W1", 173040);
  SystemTime(20261123, 173000, 28800);
  ASSERT_EQ(peer_.DueWaitOrders().size(), 1u);
  Advance(40999);
  EXPECT_EQ(peer_.DueWaitOrders().size(), 1u);
  Advance(1);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
}

TEST_F(SystemTimeTest, OrdersOpeningAtOrBeforeTheSystemTimeOrAMinuteLaterAreNotDue) {
  Parked(L"W1", 92950);
  Parked(L"W2", 93050);
  SystemTime(20261123, 92950, 0);
  EXPECT_TRUE(peer_.DueWaitOrders().empty());
  EXPECT_FALSE(Logged(L"OnDataUpdate : LevelKey=W1, 92950, 93050"));
}

class SystemTimeRaceTest : public SystemTimeTest {
 protected:
  void SetUp() override {
    IBaseData* record = sim::SimHost::NewRecord(L"NordaSystemTime");
    auto* hook = new ReadCountingObject(record);
    record->Release();  // the hook holds it now
    // Once armed, the first read of "SystemDate" runs `on_system_date_`.
    hook->on_read = [this](const Variant& argument) {
      if (argument.type() != VarType::BStr || argument.text() != L"SystemDate") return;
      std::function<void()> run;
      {
        std::lock_guard<std::mutex> guard(hook_lock_);
        run.swap(on_system_date_);
      }
      if (run) run();
    };
    host_.SetTopicRecord(L"NordaSystemTime", hook);
    hook->Release();  // the host holds the hook
    Start();
  }

  std::mutex hook_lock_;  // guards on_system_date_
  std::function<void()> on_system_date_;
};

TEST_F(SystemTimeRaceTest, WaitEntryCancelledWhileTheSystemTimeIsReadIsNotReadAfterwards) {
  Parked(L"W1", 93000);
  Parked(L"W2", 93010);
  // The host cancels W1 after the handler has looked at the parked orders
  // and before it compares their open times.
  IBaseData* request = Record(L"order", {{L"LevelKey", T(L"W1")}, {L"SliceID", T(L"S9")}});
  const uint32_t cookie = host_.Publish(request);
  {
    std::lock_guard<std::mutex> guard(hook_lock_);
    on_system_date_ = [this, cookie] {
      Variant data = Variant::I4(static_cast<int32_t>(cookie));
      manager_->SetTopic(L"TRADE.SLICE.MANAGER.CANCEL", 1, 1, L"W1", &data);
    };
  }
  SystemTime(20261123, 92950, 0);

  EXPECT_FALSE(peer_.WaitOpenOrders().Contains(L"W1"));
  // Both were waiting when the handler looked: both are due, with the open
  // times they had then. Timer 105 finds W1 gone and serves W2 alone.
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=W1, 93000, 93050"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=W2, 93010, 93050"));
  Advance(11000);
  EXPECT_FALSE(peer_.OrderToTimer().Contains(L"W1"));
  EXPECT_TRUE(peer_.OrderToTimer().Contains(L"W2"));
}

}  // namespace
}  // namespace tsm
