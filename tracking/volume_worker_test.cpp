// The volume-slice cancel worker and what feeds it: quote records queue their
// symbol once until the worker runs, the worker checks each queued symbol once
// per round and cancels the watched children that have seen enough traded
// volume, a working child of a volume slice starts being watched at the
// symbol's current volume, and the worker stops with stage 4 and never
// touches the object once it is gone.
//
// The worker is a real thread: tests wait for what it sends with a bounded
// poll. That something does not happen is shown by the worker's state, not
// by letting time pass: after a round with its event not signalled, the
// worker is parked until a quote change sets the event.
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testing/manager_fixture.h"
#include "testing/read_counting_object.h"
#include "testing/component_binding.h"

namespace tsm {
namespace {

constexpr int64_t kPollDeadlineMs = 60000;

// Waits (yielding) until `done` holds or the deadline passes.
bool WaitUntil(const std::function<bool()>& done, int64_t deadline_ms = kPollDeadlineMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadline_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

void SetVolume(IBaseData* quote, int64_t volume) {
  const int32_t update = quote->BeginUpdate();
  quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
  quote->EndUpdate(update);
}

class VolumeWorkerTest : public ManagerTest {
 protected:
  ~VolumeWorkerTest() override {
    for (ReadCountingObject* counting : counting_) counting->Release();
  }

  // The host's quote object of `symbol` with a traded volume.
  IBaseData* QuoteObject(const std::wstring& symbol, int64_t volume) {
    IBaseData* quote = host_.Topic(symbol);
    SetVolume(quote, volume);
    return quote;
  }
  // A watch entry whose record is listened to by the manager.
  VolumeWatchEntry* WatchListened(const std::wstring& symbol) {
    return Watch(symbol, manager_->GetTopicRecord(symbol, manager_));
  }
  // A watch entry whose record is listened to and counts the reads by field
  // id: the worker reads the traded volume exactly once per check of a symbol.
  VolumeWatchEntry* WatchCounted(const std::wstring& symbol, ReadCountingObject** counting) {
    *counting = new ReadCountingObject(host_.Topic(symbol), kKindFieldById);
    counting_.push_back(*counting);
    auto* quote = new CBaseData(&clock_);
    quote->Initialize(manager_, BindingOf(*counting));
    return Watch(symbol, quote);
  }
  VolumeWatchEntry* Watch(const std::wstring& symbol, CBaseData* quote) {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    auto* entry = new VolumeWatchEntry;
    entry->pQuote = quote;
    peer_.VolumeWatch().SetAt(symbol, entry);
    return entry;
  }
  // A child as it is after its first working update: listened, with slice
  // parameters, a start volume and its key in the symbol's entry.
  void WatchChild(VolumeWatchEntry* entry, const std::wstring& key, const std::wstring& slice, int64_t start,
                  const std::wstring& params = L"3,5,1") {
    peer_.ListenedSlice().SetAt(key, slice);
    peer_.SliceParams().SetAt(slice, params);
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    peer_.StartVolume().SetAt(key, reinterpret_cast<void*>(static_cast<intptr_t>(start)));
    entry->arrLevelKeys.push_back(key);
  }
  bool HasStartVolume(const std::wstring& key) {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    return peer_.StartVolume().Contains(key);
  }
  int64_t StartVolumeOf(const std::wstring& key) {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    void* slot = nullptr;
    peer_.StartVolume().Lookup(key, slot);
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(slot));
  }
  CStringArray QueuedSymbols() {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    return peer_.VolumeCheckQueue();
  }

  std::vector<std::wstring> Cancels() const {
    std::vector<std::wstring> texts;
    for (const auto& e : host_.Sent(L"TRADE.CANCELORDER")) texts.push_back(e.text);
    return texts;
  }
  bool WaitForCancel(const std::wstring& text) {
    return WaitUntil([&] {
      for (const auto& t : Cancels()) {
        if (t == text) return true;
      }
      return false;
    });
  }

  std::vector<ReadCountingObject*> counting_;  // the test's references
};

// ---- The check of one symbol ----

TEST_F(VolumeWorkerTest, WatchedChildWithStartVolume100IsNotCancelledAt102) {
  IBaseData* quote = QuoteObject(L"QX.A", 102);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  host_.ClearEvents();
  manager_->VolumeCheck(L"QX.A");
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_TRUE(HasStartVolume(L"C1"));
  (void)quote;
}

TEST_F(VolumeWorkerTest, WatchedChildWithStartVolume100IsCancelledAt103) {
  QuoteObject(L"QX.A", 103);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  host_.ClearEvents();
  manager_->VolumeCheck(L"QX.A");
  const auto sent = Sent(L"TRADE.CANCELORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].p1, 2);
  EXPECT_EQ(sent[0].p2, 1);
  EXPECT_EQ(sent[0].text, L"REPORTID=C1");
  EXPECT_TRUE(sent[0].data.IsEmpty());
  EXPECT_EQ(Logs(), (std::vector<std::wstring>{Log(L"[Volume Sliced Send Cancel order] C1")}));
  EXPECT_FALSE(HasStartVolume(L"C1"));
  ASSERT_EQ(entry->arrLevelKeys.size(), 1u) << "a cancelled child stays watched until its final update";
  EXPECT_EQ(entry->arrLevelKeys[0], L"C1");
}

TEST_F(VolumeWorkerTest, CancelledChildIsNeverCancelledTwice) {
  IBaseData* quote = QuoteObject(L"QX.A", 103);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  manager_->VolumeCheck(L"QX.A");
  SetVolume(quote, 500);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C1"}));
}

TEST_F(VolumeWorkerTest, VolumeStepIsTheFirstNumberOfTheSliceParameters) {
  IBaseData* quote = QuoteObject(L"QX.A", 106);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100, L"7,5,1");
  manager_->VolumeCheck(L"QX.A");
  EXPECT_TRUE(Cancels().empty());
  SetVolume(quote, 107);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C1"}));
}

TEST_F(VolumeWorkerTest, EveryWatchedChildOfTheSymbolIsCheckedInOrder) {
  QuoteObject(L"QX.A", 110);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  WatchChild(entry, L"C2", L"S2", 108);  // not yet: 110 < 111
  WatchChild(entry, L"C3", L"S3", 107);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C1", L"REPORTID=C3"}));
  EXPECT_TRUE(HasStartVolume(L"C2"));
}

TEST_F(VolumeWorkerTest, ChildMissingSliceOrParametersOrStartVolumeIsSkipped) {
  QuoteObject(L"QX.A", 1000);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"NOSLICE", L"S1", 100);
  peer_.ListenedSlice().RemoveKey(L"NOSLICE");
  WatchChild(entry, L"NOPARAMS", L"S2", 100);
  peer_.SliceParams().RemoveKey(L"S2");
  WatchChild(entry, L"NOSTART", L"S3", 100);
  {
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    peer_.StartVolume().RemoveKey(L"NOSTART");
  }
  WatchChild(entry, L"C4", L"S4", 100);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C4"}));
}

TEST_F(VolumeWorkerTest, SymbolWithNoVolumeWatchEntryIsDroppedSilently) {
  host_.ClearEvents();
  manager_->VolumeCheck(L"QX.NONE");
  EXPECT_TRUE(host_.Events().empty());
}

TEST_F(VolumeWorkerTest, WatchEntryWithoutQuoteRecordIsDroppedSilently) {
  VolumeWatchEntry* entry = Watch(L"QX.A", nullptr);
  WatchChild(entry, L"C1", L"S1", 100);
  host_.ClearEvents();
  manager_->VolumeCheck(L"QX.A");
  EXPECT_TRUE(host_.Events().empty());
  EXPECT_TRUE(HasStartVolume(L"C1"));
}

TEST_F(VolumeWorkerTest, QuoteWithoutTradedVolumeCancelsNothing) {
  host_.Topic(L"QX.A");
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_TRUE(Cancels().empty());
}

TEST_F(VolumeWorkerTest, StartVolumeNearTheLargestVolumeIsComparedWithoutOverflow) {
  QuoteObject(L"QX.A", INT64_MAX);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", INT64_MAX - 1);
  WatchChild(entry, L"C2", L"S2", INT64_MAX - 3);
  manager_->VolumeCheck(L"QX.A");
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C2"}));
}

TEST_F(VolumeWorkerTest, CheckSurvivesTheHostTouchingTheWatchDuringTheCancel) {
  QuoteObject(L"QX.A", 200);
  VolumeWatchEntry* entry = Watch(L"QX.A", manager_->GetTopicRecord(L"QX.A", nullptr));
  WatchChild(entry, L"C1", L"S1", 100);
  WatchChild(entry, L"C2", L"S2", 100);
  // A host that answers the first cancel at once, on the same thread, with a
  // new working child on the same symbol.
  bool answered = false;
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant*) {
    if (topic != L"TRADE.CANCELORDER" || answered) return;
    answered = true;
    ScopedLock<CMutex> guard(peer_.VolumeMutex());
    for (int i = 0; i < 64; ++i) entry->arrLevelKeys.push_back(L"N" + std::to_wstring(i));
  };
  manager_->VolumeCheck(L"QX.A");
  host_.on_send = nullptr;
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C1", L"REPORTID=C2"}));
}

// ---- Quote records (order updates of records named "QX.") ----

TEST_F(VolumeWorkerTest, QuoteChangeQueuesTheSymbolOnce) {
  manager_->SetStage(1, 1);  // no worker yet: the queue stays as filled
  IBaseData* quote = QuoteObject(L"QX.A", 100);
  WatchListened(L"QX.A");
  SetVolume(quote, 101);
  SetVolume(quote, 102);
  TsmWaitEventsDelivered();
  EXPECT_EQ(QueuedSymbols(), (CStringArray{L"QX.A"}));
  EXPECT_TRUE(peer_.VolumeCheckSet().Contains(L"QX.A"));
}

TEST_F(VolumeWorkerTest, RecordNameHoldingQxAnywhereIsAQuoteRecord) {
  manager_->SetStage(1, 1);
  manager_->OnDataUpdate(Bound({}, L"HK.QX.700"), 1, L"");
  manager_->OnDataUpdate(Bound({}, L"QX"), 1, L"");
  EXPECT_EQ(QueuedSymbols(), (CStringArray{L"HK.QX.700"}));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=, SliceID=, ExecType=-2147483648"));
}

// ---- The worker thread ----

TEST_F(VolumeWorkerTest, WorkerCancelsWatchedChildWhenItsSymbolsVolumeCrossesTheThreshold) {
  Start();
  IBaseData* quote = QuoteObject(L"QX.A", 100);
  VolumeWatchEntry* entry = WatchListened(L"QX.A");
  WatchChild(entry, L"C1", L"S1", 100);
  SetVolume(quote, 103);
  ASSERT_TRUE(WaitForCancel(L"REPORTID=C1"));
  const auto sent = Sent(L"TRADE.CANCELORDER");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].p1, 2);
  EXPECT_EQ(sent[0].p2, 1);
  EXPECT_TRUE(sent[0].data.IsEmpty());
  EXPECT_TRUE(Logged(L"[Volume Sliced Send Cancel order] C1"));
  EXPECT_FALSE(HasStartVolume(L"C1"));
}

TEST_F(VolumeWorkerTest, SymbolQueuedTwiceBeforeTheWorkerRunsIsCheckedOnce) {
  manager_->SetStage(1, 1);
  QuoteObject(L"QX.A", 100);
  ReadCountingObject* counted = nullptr;
  WatchCounted(L"QX.A", &counted);
  SetVolume(host_.Topic(L"QX.A"), 101);
  SetVolume(host_.Topic(L"QX.A"), 102);
  TsmWaitEventsDelivered();
  ASSERT_EQ(QueuedSymbols().size(), 1u);
  manager_->SetStage(1, 2);
  // One quote change of another symbol wakes the worker once; its cancel
  // marks the end of the round in which both symbols were checked.
  IBaseData* other = QuoteObject(L"QX.B", 100);
  WatchChild(WatchListened(L"QX.B"), L"B1", L"SB", 100);
  SetVolume(other, 103);
  ASSERT_TRUE(WaitForCancel(L"REPORTID=B1"));
  EXPECT_EQ(counted->reads(), 1);
  EXPECT_TRUE(QueuedSymbols().empty());
}

TEST_F(VolumeWorkerTest, SymbolWithoutWatchEntryIsDroppedSilentlyByTheWorker) {
  manager_->SetStage(1, 1);
  QuoteObject(L"QX.GONE", 100);
  std::unique_ptr<CBaseData> gone(manager_->GetTopicRecord(L"QX.GONE", manager_));
  SetVolume(host_.Topic(L"QX.GONE"), 500);
  TsmWaitEventsDelivered();
  ASSERT_EQ(QueuedSymbols(), (CStringArray{L"QX.GONE"}));
  manager_->SetStage(1, 2);
  host_.ClearEvents();
  IBaseData* other = QuoteObject(L"QX.B", 100);
  WatchChild(WatchListened(L"QX.B"), L"B1", L"SB", 100);
  SetVolume(other, 103);
  ASSERT_TRUE(WaitForCancel(L"REPORTID=B1"));
  std::vector<std::string> kinds;
  for (const auto& e : host_.Events()) kinds.push_back(e.ev + ":" + Utf8FromWide(e.topic + e.text));
  EXPECT_EQ(kinds, (std::vector<std::string>{"GetTopicData:QX.B",
                                             "WriteLog:<CTradeSliceManager>[Volume Sliced Send Cancel order] B1",
                                             "SendTopic:TRADE.CANCELORDERREPORTID=B1"}));
  EXPECT_TRUE(QueuedSymbols().empty());
  gone.reset();
}

TEST_F(VolumeWorkerTest, WakeUpDuringTheWorkersRoundIsLostUntilTheSymbolsNextQuoteChange) {
  Start();
  const auto worker = peer_.WorkerState().lock();
  ASSERT_NE(worker, nullptr);
  IBaseData* first = QuoteObject(L"QX.A", 100);
  WatchChild(WatchListened(L"QX.A"), L"A1", L"SA", 100);
  QuoteObject(L"QX.B", 103);
  ReadCountingObject* counted = nullptr;
  VolumeWatchEntry* b = WatchCounted(L"QX.B", &counted);
  WatchChild(b, L"B1", L"SB", 100);
  // While the worker sends A1's cancel, QX.B's quote changes (delivered on
  // the worker's own thread here, so the round is surely still running). The
  // hook captures nothing of this body and stays in place: the worker may
  // still be reading it while the body ends.
  host_.on_send = [this, b](const std::wstring& topic, int32_t, int32_t, const std::wstring& text, Variant*,
                            Variant*) {
    if (topic == L"TRADE.CANCELORDER" && text == L"REPORTID=A1") manager_->OnDataUpdate(b->pQuote, 1, L"");
  };
  const uint32_t rounds_before = worker->rounds_done.load();
  SetVolume(first, 103);
  ASSERT_TRUE(WaitForCancel(L"REPORTID=A1"));
  ASSERT_TRUE(WaitUntil([&] { return worker->rounds_done.load() == rounds_before + 1; }));
  // The round reset the event after the wake-up was set: the worker is parked
  // with QX.B still queued, and nothing but a Set can move it.
  EXPECT_FALSE(worker->event.IsSignalled()) << "the wake-up set during the round is lost";
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=A1"}));
  EXPECT_EQ(counted->reads(), 0);
  EXPECT_EQ(QueuedSymbols(), (CStringArray{L"QX.B"}));
  // The next change of QX.B finds it queued already: it is not queued twice,
  // but it wakes the worker, which checks it once and cancels B1.
  SetVolume(host_.Topic(L"QX.B"), 104);
  ASSERT_TRUE(WaitForCancel(L"REPORTID=B1"));
  EXPECT_EQ(counted->reads(), 1);
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=A1", L"REPORTID=B1"}));
}

TEST_F(VolumeWorkerTest, Stage4StopsTheWorkerAtItsNextWakeUp) {
  Start();
  std::weak_ptr<void> worker = peer_.Worker();
  manager_->SetStage(1, 4);
  EXPECT_EQ(peer_.Running(), 0);
  ASSERT_TRUE(WaitUntil([&] { return worker.use_count() == 1; })) << "the worker thread did not end";
  IBaseData* quote = QuoteObject(L"QX.A", 100);
  WatchChild(WatchListened(L"QX.A"), L"C1", L"S1", 100);
  SetVolume(quote, 200);
  TsmWaitEventsDelivered();
  EXPECT_TRUE(Cancels().empty());
  EXPECT_EQ(QueuedSymbols(), (CStringArray{L"QX.A"}));
}

// ---- Lifetime ----

// A manager of the test's own, so that the test can destroy it.
class OwnManager {
 public:
  OwnManager(VirtualClock& clock, sim::SimHost& host) : manager_(new CTradeSliceManager(&clock)), peer_(manager_) {
    manager_->AddRef();
    manager_->Advise(&host, &cookie_);
    manager_->SetStage(1, 1);
    manager_->SetStage(1, 2);
  }
  ~OwnManager() { Destroy(); }
  void Destroy() {
    if (manager_ == nullptr) return;
    manager_->Release();
    manager_ = nullptr;
  }
  CTradeSliceManager* get() { return manager_; }
  CTradeSliceManagerPeer& peer() { return peer_; }

 private:
  CTradeSliceManager* manager_;
  CTradeSliceManagerPeer peer_;
  uint32_t cookie_ = 0;
};

TEST_F(VolumeWorkerTest, ManagerDestroyedWhileTheWorkerIsBusyIsNeverTouchedAfterwards) {
  OwnManager own(clock_, host_);
  std::weak_ptr<void> worker = own.peer().Worker();
  const auto state = own.peer().WorkerState();
  IBaseData* quote = QuoteObject(L"QX.A", 100);
  auto* entry = new VolumeWatchEntry;
  entry->pQuote = own.get()->GetTopicRecord(L"QX.A", own.get());
  {
    ScopedLock<CMutex> guard(own.peer().VolumeMutex());
    own.peer().VolumeWatch().SetAt(L"QX.A", entry);
    own.peer().StartVolume().SetAt(L"C1", reinterpret_cast<void*>(static_cast<intptr_t>(100)));
    entry->arrLevelKeys.push_back(L"C1");
  }
  own.peer().ListenedSlice().SetAt(L"C1", L"S1");
  own.peer().SliceParams().SetAt(L"S1", L"3,5,1");

  // The host holds the worker inside its cancel until the test lets it go.
  std::mutex lock;
  std::condition_variable changed;
  bool in_cancel = false;
  bool let_go = false;
  host_.on_send = [&](const std::wstring& topic, int32_t, int32_t, const std::wstring&, Variant*, Variant*) {
    if (topic != L"TRADE.CANCELORDER") return;
    std::unique_lock<std::mutex> guard(lock);
    in_cancel = true;
    changed.notify_all();
    changed.wait(guard, [&] { return let_go; });
  };
  SetVolume(quote, 103);
  {
    std::unique_lock<std::mutex> guard(lock);
    ASSERT_TRUE(changed.wait_for(guard, std::chrono::milliseconds(kPollDeadlineMs), [&] { return in_cancel; }));
  }
  std::thread destroyer([&] { own.Destroy(); });
  // The destruction has reached the worker: it waits for the round to end.
  const bool reached = WaitUntil([&] {
    const auto shared = state.lock();
    return shared != nullptr && shared->owner_leaving.load();
  });
  {
    std::lock_guard<std::mutex> guard(lock);
    let_go = true;
  }
  changed.notify_all();
  destroyer.join();
  EXPECT_TRUE(reached) << "the destruction never began to stop the worker";
  ASSERT_TRUE(WaitUntil([&] { return worker.expired(); })) << "the worker thread did not end";
  host_.on_send = nullptr;
  EXPECT_EQ(Cancels(), (std::vector<std::wstring>{L"REPORTID=C1"}));
}

TEST_F(VolumeWorkerTest, ManagerDestroyedDuringAQuoteStormLetsTheWorkerEndCleanly) {
  OwnManager own(clock_, host_);
  std::weak_ptr<void> worker = own.peer().Worker();
  IBaseData* quote = QuoteObject(L"QX.A", 100);
  auto* entry = new VolumeWatchEntry;
  entry->pQuote = own.get()->GetTopicRecord(L"QX.A", own.get());
  {
    ScopedLock<CMutex> guard(own.peer().VolumeMutex());
    own.peer().VolumeWatch().SetAt(L"QX.A", entry);
    for (int i = 0; i < 20; ++i) {
      const std::wstring key = L"C" + std::to_wstring(i);
      own.peer().StartVolume().SetAt(key, reinterpret_cast<void*>(static_cast<intptr_t>(100 + 50 * i)));
      entry->arrLevelKeys.push_back(key);
      own.peer().ListenedSlice().SetAt(key, L"S");
    }
  }
  own.peer().SliceParams().SetAt(L"S", L"3,5,1");
  std::atomic<bool> stop{false};
  std::atomic<int64_t> written{0};
  std::thread storm([&] {
    for (int64_t volume = 101; !stop.load(); ++volume) {
      SetVolume(quote, volume);
      ++written;
    }
  });
  ASSERT_TRUE(WaitUntil([&] { return written.load() > 200; }));
  own.Destroy();
  const int64_t at_destruction = written.load();
  ASSERT_TRUE(WaitUntil([&] { return written.load() > at_destruction + 200; }));
  stop = true;
  storm.join();
  TsmWaitEventsDelivered();
  ASSERT_TRUE(WaitUntil([&] { return worker.expired(); })) << "the worker thread did not end";
}

// ---- The volume watch start (working child updates) ----

class VolumeWatchStartTest : public VolumeWorkerTest {
 protected:
  VolumeWatchStartTest() { manager_->SetStage(1, 1); }

  // A child order update delivered to the manager.
  void ChildUpdate(const sim::FieldList& fields) {
    std::unique_ptr<CBaseData> child(CBaseData::FromCookie(Publish(L"child", fields), nullptr, &clock_));
    manager_->OnDataUpdate(child.get(), 1, L"");
  }
  static sim::FieldList Working(const std::wstring& key, const std::wstring& slice, const std::wstring& order_id) {
    return {{L"LevelKey", Variant::Text(key)},
            {L"SliceID", Variant::Text(slice)},
            {L"OrderID", Variant::Text(order_id)},
            {L"Symbol", Variant::Text(L"QX.A")},
            {L"ExecType", Variant::I4(0)}};
  }
  void Listen(const std::wstring& key, const std::wstring& slice, const std::wstring& params) {
    peer_.ListenedSlice().SetAt(key, slice);
    peer_.SliceParams().SetAt(slice, params);
  }
};

TEST_F(VolumeWatchStartTest, WorkingChildOfVolumeSliceStartsBeingWatchedAtTheCurrentVolume) {
  QuoteObject(L"QX.A", 1000);
  VolumeWatchEntry* entry = WatchListened(L"QX.A");
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  EXPECT_TRUE(HasStartVolume(L"C1"));
  EXPECT_EQ(StartVolumeOf(L"C1"), 1000);
  EXPECT_TRUE(Logged(L"Volume OrderInfo: Symbol=QX.A, TradeVolume=1000"));
  EXPECT_EQ(entry->arrLevelKeys, (CStringArray{L"C1"}));
}

TEST_F(VolumeWatchStartTest, LaterWorkingUpdateDoesNotRestartTheWatch) {
  IBaseData* quote = QuoteObject(L"QX.A", 1000);
  VolumeWatchEntry* entry = WatchListened(L"QX.A");
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  SetVolume(quote, 1500);
  TsmWaitEventsDelivered();
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  EXPECT_EQ(StartVolumeOf(L"C1"), 1000);
  EXPECT_EQ(entry->arrLevelKeys, (CStringArray{L"C1"}));
}

TEST_F(VolumeWatchStartTest, MissingExecTypeIsAWorkingState) {
  QuoteObject(L"QX.A", 1000);
  WatchListened(L"QX.A");
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate({{L"LevelKey", Variant::Text(L"C1")},
               {L"SliceID", Variant::Text(L"S1")},
               {L"OrderID", Variant::Text(L"X1")},
               {L"Symbol", Variant::Text(L"QX.A")}});
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=C1, SliceID=S1, ExecType=-2147483648"));
  EXPECT_TRUE(HasStartVolume(L"C1"));
}

TEST_F(VolumeWatchStartTest, ChildWithoutOrderIdIsNotWatched) {
  QuoteObject(L"QX.A", 1000);
  WatchListened(L"QX.A");
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate(Working(L"C1", L"S1", L""));
  EXPECT_FALSE(HasStartVolume(L"C1"));
}

TEST_F(VolumeWatchStartTest, ChildOfOtherSliceTypeOrWithoutIntervalOrLeftoverActionIsNotWatched) {
  QuoteObject(L"QX.A", 1000);
  VolumeWatchEntry* entry = WatchListened(L"QX.A");
  Listen(L"T2", L"S2", L"2,5,1");
  Listen(L"I0", L"S3", L"3,0,1");
  Listen(L"L0", L"S4", L"3,5,0");
  ChildUpdate(Working(L"T2", L"S2", L"X"));
  ChildUpdate(Working(L"I0", L"S3", L"X"));
  ChildUpdate(Working(L"L0", L"S4", L"X"));
  EXPECT_FALSE(HasStartVolume(L"T2"));
  EXPECT_FALSE(HasStartVolume(L"I0"));
  EXPECT_FALSE(HasStartVolume(L"L0"));
  EXPECT_TRUE(entry->arrLevelKeys.empty());
}

TEST_F(VolumeWatchStartTest, ChildWithoutSliceParametersOrListeningIsNotWatched) {
  QuoteObject(L"QX.A", 1000);
  WatchListened(L"QX.A");
  peer_.ListenedSlice().SetAt(L"C1", L"S1");  // no parameters for S1
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  ChildUpdate(Working(L"C2", L"S1", L"X2"));  // not listened at all
  EXPECT_FALSE(HasStartVolume(L"C1"));
  EXPECT_FALSE(HasStartVolume(L"C2"));
  EXPECT_TRUE(Logged(L"OnDataUpdate : LevelKey=C2, SliceID=S1, ExecType=0"));
}

TEST_F(VolumeWatchStartTest, ChildOnSymbolWithoutWatchEntryIsNotWatched) {
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  EXPECT_FALSE(HasStartVolume(L"C1"));
}

TEST_F(VolumeWatchStartTest, ChildOnWatchEntryWithoutQuoteRecordIsNotWatched) {
  VolumeWatchEntry* entry = Watch(L"QX.A", nullptr);
  Listen(L"C1", L"S1", L"3,5,1");
  ChildUpdate(Working(L"C1", L"S1", L"X1"));
  EXPECT_FALSE(HasStartVolume(L"C1"));
  EXPECT_TRUE(entry->arrLevelKeys.empty());
}

TEST_F(VolumeWatchStartTest, ChildUpdateWithExecType11OrAboveIsIgnored) {
  QuoteObject(L"QX.A", 1000);
  WatchListened(L"QX.A");
  Listen(L"C1", L"S1", L"3,5,1");
  sim::FieldList fields = Working(L"C1", L"S1", L"X1");
  fields.back().second = Variant::I4(11);
  ChildUpdate(fields);
  EXPECT_FALSE(HasStartVolume(L"C1"));
}

}  // namespace
}  // namespace tsm
