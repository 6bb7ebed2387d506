// The whole component under load on the virtual clock: a thousand parents of
// every slicing type worked by the simulated exchange, with fills and quote
// changes arriving on the base-data component's event thread (quotes also
// from a thread of their own while the clock moves), timers firing,
// the host's thread renumbering its order set and cancelling meanwhile, the
// volume worker cancelling, stage 4 half way through, and the object released
// at the end while timers are still armed and records still listened to.
//
// It must end (a watchdog aborts the process with a message if it does not),
// and every child command must be accounted for: sent once as a new order or
// as a failed one (or still queued), and every child the exchange took is
// filled, cancelled, replaced, rejected or still working.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/process_memory.h"
#include "slicehost/exchange.h"
#include "slicehost/host_loop.h"
#include "testing/manager_fixture.h"
#include "testing/mutex_waiters.h"

namespace tsm {
namespace {

constexpr int kParents = 1000;
constexpr int64_t kSubmitEveryMs = 10;         // the last parent comes at 10 s
constexpr int64_t kStage4AtMs = 6000;          // half way through the submissions
constexpr int64_t kRenumberEveryMs = 2500;
constexpr int64_t kQuoteEveryMs = 100;
constexpr int64_t kRunMs = 30000;
constexpr int64_t kStepMs = 50;
// A bound for a run that stopped moving; a healthy run takes seconds natively
// and about a minute and a half under Wine on a busy machine.
constexpr int64_t kWatchdogMs = 240000;

// Process figures come from /proc where there is one; on Windows only the
// resident size is known (through the platform layer).
#if defined(_WIN32)
constexpr bool kProcStatusReadable = false;
#else
constexpr bool kProcStatusReadable = true;
#endif

const wchar_t* const kVolumeSymbols[] = {L"QX.V.0", L"QX.V.1", L"QX.V.2", L"QX.V.3", L"QX.V.4"};
constexpr int kOtherSymbols = 12;

std::wstring OtherSymbol(int i) { return L"QX.F." + std::to_wstring(i % kOtherSymbols); }

// The slice size draw, steered so that a run is repeatable in what it asks
// for; safe to call from any thread.
int StressRand() {
  static std::atomic<uint32_t> state{20261123};
  uint32_t x = state.fetch_add(0x9E3779B9u) + 0x9E3779B9u;
  x ^= x >> 16;
  x *= 0x85EBCA6Bu;
  x ^= x >> 13;
  return static_cast<int>(x & 0x7FFF);
}

// "Name:   value kB" lines of /proc/self/status (Linux); -1 elsewhere.
int64_t ProcStatus(const std::string& name) {
  if (!kProcStatusReadable) return -1;
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, name.size() + 1, name + ":") == 0) return std::atoll(line.c_str() + name.size() + 1);
  }
  return -1;
}

// Ends the process with a clear message when the run does not finish in time.
// It touches nothing the run might hold: only its own lock and an atomic.
class Watchdog {
 public:
  Watchdog() : thread_([this] { Watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> guard(lock_);
      done_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  void Stage(const char* stage) {
    std::lock_guard<std::mutex> guard(lock_);
    stage_ = stage;
  }
  void ClockReached(int64_t ms) { clock_ms_ = ms; }

 private:
  void Watch() {
    std::unique_lock<std::mutex> guard(lock_);
    if (changed_.wait_for(guard, std::chrono::milliseconds(kWatchdogMs), [this] { return done_; })) return;
    std::fprintf(stderr,
                 "stress watchdog: the run did not end within %lld s (stuck at \"%s\", virtual clock past %lld ms); "
                 "a deadlock or a lost wake-up is likely\n",
                 static_cast<long long>(kWatchdogMs / 1000), stage_, static_cast<long long>(clock_ms_.load()));
    std::fflush(stderr);
    std::abort();
  }

  std::mutex lock_;  // guards done_ and stage_
  std::condition_variable changed_;
  bool done_ = false;
  const char* stage_ = "start";
  std::atomic<int64_t> clock_ms_{0};  // the last clock step completed
  std::thread thread_;
};

struct ParentPlan {
  std::wstring key;
  std::wstring slice;
  int32_t type = 0;
  bool cancel_all = false;
  bool cancel_one = false;
};

sim::FieldList ParentFields(const ParentPlan& plan, int i, const std::wstring& symbol, bool closed_check_skipped) {
  const int32_t qty = 900 + 300 * (i % 5) + 7 * (i % 11);
  sim::FieldList fields = {
      {L"LevelKey", Variant::Text(plan.key)},
      {L"SliceID", Variant::Text(plan.slice)},
      {L"SlicedType", Variant::I4(plan.type)},
      {L"Symbol", Variant::Text(symbol)},
      {L"Side", Variant::Text(i % 2 == 0 ? L"B" : L"S")},
      {L"SecurityType", Variant::Text(i % 9 == 0 ? L"STK" : L"FUT")},
      {L"Account", Variant::Text(L"A" + std::to_wstring(i % 13))},
      {L"DiscloseQty", Variant::I4(300)},
      {L"Variance", Variant::I4(20)},
      {L"OrderQty", Variant::I4(qty)},
      {L"LeavesQty", Variant::I4(qty)},
      {L"SendQty", Variant::I4(qty)},
      {L"Price", Variant::I8(10000 + i)},
      {L"TimeInForce", Variant::I4(closed_check_skipped ? 6 : 1)},
  };
  if (plan.type == 2) {
    fields.emplace_back(L"Interval", Variant::I4(500 + 250 * (i % 4)));
    fields.emplace_back(L"LeftoverAction", Variant::I4(i % 3));
  } else if (plan.type == 3) {
    fields.emplace_back(L"Interval", Variant::I4(1));
    fields.emplace_back(L"LeftoverAction", Variant::I4(1));
  }
  if (i % 17 == 0) {
    fields.emplace_back(L"GroupType", Variant::I4(2));
    fields.emplace_back(L"GroupID", Variant::Text(L"G" + std::to_wstring(i)));
  }
  return fields;
}

bool StartsWith(const std::wstring& text, const std::wstring& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

using StressTest = ManagerTest;

TEST_F(StressTest, ThousandParentsOfEveryTypeEndAccountedForWithStage4HalfWayAndTheObjectReleased) {
  const auto wall_start = std::chrono::steady_clock::now();
  Watchdog watchdog;
  int64_t peak_threads = ProcStatus("Threads");
  int64_t peak_resident = ResidentBytes();

  sim::HostLoop loop(clock_);
  auto* manager = new CTradeSliceManager(&clock_);
  manager->AddRef();
  manager->SetRandomSourceForTesting(&StressRand);
  uint32_t cookie = 0;
  manager->Advise(&host_, &cookie);
  CTradeSliceManagerPeer peer(manager);
  sim::SimExchange exchange(host_, loop, clock_, manager);
  auto set_volume_now = [&](const std::wstring& symbol, int64_t volume) {
    IBaseData* quote = host_.Topic(symbol);
    const int32_t update = quote->BeginUpdate();
    quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
    quote->EndUpdate(update);
  };

  // Markets: the volume symbols fill a little and are cancelled by volume;
  // the others fill fully, partly, in steps, or reject.
  sim::SymbolBehaviour base;
  base.ack_delay_ms = 10;
  base.fill_delay_ms = 80;
  exchange.SetDefaultBehaviour(base);
  for (int v = 0; v < 5; ++v) {
    sim::SymbolBehaviour volume = base;
    volume.fill_percent = 30;
    volume.fill_delay_ms = 150;
    exchange.SetBehaviour(kVolumeSymbols[v], volume);
    set_volume_now(kVolumeSymbols[v], 1000);
  }
  for (int s = 0; s < kOtherSymbols; ++s) {
    sim::SymbolBehaviour other = base;
    other.fill_percent = s % 4 == 0 ? 50 : 100;
    other.fill_steps = 1 + s % 3;
    other.fill_delay_ms = 40 + 30 * (s % 5);
    other.reject = s == kOtherSymbols - 1;
    exchange.SetBehaviour(OtherSymbol(s), other);
    host_.SetSecurityText(OtherSymbol(s), L"x|100|y|" + std::to_wstring(s % 2 == 0 ? 100 : 1));
  }

  loop.PostSetStage(manager, 1, 1);
  loop.PostSetStage(manager, 1, 2);

  std::vector<ParentPlan> plans(kParents);
  std::set<std::wstring> cancel_all_slices;
  for (int i = 0; i < kParents; ++i) {
    ParentPlan& plan = plans[i];
    plan.key = L"P" + std::to_wstring(i);
    plan.slice = L"S" + std::to_wstring(i);
    plan.type = 1 + i % 5;
    plan.cancel_all = i % 11 == 3;
    plan.cancel_one = i % 13 == 7;
    const std::wstring symbol = plan.type == 3 ? kVolumeSymbols[i % 5] : OtherSymbol(i);
    const int64_t at = kSubmitEveryMs * i;
    // Some orders are outside the host's order set; of those that are not
    // timed, the session check is skipped by the index alone.
    const bool in_order_set = plan.type == 2 || i % 7 != 0;
    exchange.SubmitParent(ParentFields(plan, i, symbol, in_order_set), at, in_order_set);
    if (plan.type == 5) exchange.ReleaseParent(plan.key, at + 400 + 10 * (i % 7));
    if (plan.cancel_all) {
      cancel_all_slices.insert(plan.slice);
      exchange.CancelParent(plan.key, true, at + 150 + 40 * (i % 9));
    }
    if (plan.cancel_one) exchange.CancelParent(plan.key, false, at + 260 + 30 * (i % 5));
  }
  for (int64_t at = 0; at < kRunMs - 5000; at += kRenumberEveryMs) exchange.RenumberOrderSet(at + 5);
  for (int64_t at = 0, n = 0; at < kRunMs - 5000; at += kQuoteEveryMs, ++n) {
    for (int v = 0; v < 5; ++v) exchange.SetTradedVolume(kVolumeSymbols[v], 1000 + n * (1 + (n + v) % 4), at + 3);
  }
  loop.PostSetStage(manager, 1, 4, kStage4AtMs);

  // Quote changes also come from a thread of their own, one round per clock
  // step, while the step runs: the worker and the event thread then race the
  // timers and the host for real.
  std::mutex storm_lock;
  std::condition_variable storm_changed;
  int64_t storm_steps = 0;  // guarded by storm_lock, as is storm_stop
  bool storm_stop = false;
  std::thread storm([&] {
    int64_t seen = 0;
    int64_t volume = 1000000;
    for (;;) {
      {
        std::unique_lock<std::mutex> guard(storm_lock);
        storm_changed.wait(guard, [&] { return storm_stop || storm_steps > seen; });
        if (storm_stop) return;
        seen = storm_steps;
      }
      volume += 2;
      for (const wchar_t* symbol : kVolumeSymbols) set_volume_now(symbol, volume);
    }
  });

  watchdog.Stage("running the clock");
  for (int64_t t = 0; t < kRunMs; t += kStepMs) {
    {
      std::lock_guard<std::mutex> guard(storm_lock);
      ++storm_steps;
    }
    storm_changed.notify_all();
    Advance(kStepMs);
    watchdog.ClockReached(t + kStepMs);
    peak_threads = std::max(peak_threads, ProcStatus("Threads"));
    peak_resident = std::max(peak_resident, ResidentBytes());
  }
  {
    std::lock_guard<std::mutex> guard(storm_lock);
    storm_stop = true;
  }
  storm_changed.notify_all();
  storm.join();
  EXPECT_EQ(peer.Running(), 0);

  // The host goes quiet; what was raised so far is delivered.
  watchdog.Stage("stopping the host");
  loop.Stop();
  TsmWaitEventsDelivered();

  watchdog.Stage("accounting");
  const std::vector<std::wstring> logs = host_.Logs();
  int64_t built = 0;
  for (const std::wstring& line : logs) {
    if (StartsWith(line, L"<CTradeSliceManager>DoSlicedWork First :SendNewOrder") ||
        StartsWith(line, L"<CTradeSliceManager>DoSlicedWork :SendNewOrder") ||
        StartsWith(line, L"<CTradeSliceManager>DoSlicedAll :SendNewOrder")) {
      ++built;
    }
  }
  int64_t queued = 0;
  {
    ScopedLock<CMutex> guard(peer.SliceMutex());
    queued += static_cast<int64_t>(peer.SendQueue().size());
  }
  peer.SliceAllBatches().ForEach(
      [&](const CString&, void* batch) { queued += static_cast<int64_t>(static_cast<CStringArray*>(batch)->size()); });
  const auto new_orders = host_.Sent(L"TRADE.NEWORDER");
  const auto failed_orders = host_.Sent(L"TRADE.FAILORDER");
  EXPECT_GT(new_orders.size(), static_cast<size_t>(kParents));
  EXPECT_EQ(built, static_cast<int64_t>(new_orders.size() + failed_orders.size()) + queued)
      << "every child command is sent once, as a new or a failed order, or is still queued";
  for (const auto& e : failed_orders) {
    EXPECT_TRUE(cancel_all_slices.count(sim::CommandValue(e.text, L"SlicedID")))
        << "a failed order of a slice that was never cancelled: " << Utf8FromWide(e.text);
  }

  // The exchange's side: one child per new order, each in one known state.
  struct Tally {
    int64_t children = 0, filled = 0, cancelled = 0, replaced = 0, rejected = 0, working = 0;
    int64_t Ended() const { return filled + cancelled + replaced + rejected; }
  };
  const std::vector<sim::ExchangeOrder> orders = exchange.Orders();
  std::map<std::wstring, Tally> tally_of;
  std::map<std::wstring, int> finals_of;
  Tally all;
  for (const sim::ExchangeOrder& order : orders) {
    if (order.final_portion) {
      ++finals_of[order.level_key];
      continue;
    }
    for (Tally* tally : {&all, &tally_of[order.slice_id]}) {
      ++tally->children;
      if (!order.done) {
        ++tally->working;
      } else if (order.last_exec_type == 3) {
        ++tally->filled;
      } else if (order.last_exec_type == 8) {
        ++tally->cancelled;
      } else if (order.last_exec_type == 5) {
        ++tally->replaced;
      } else if (order.last_exec_type == 10) {
        ++tally->rejected;
      }
    }
    if (order.done && order.last_exec_type != 3 && order.last_exec_type != 8 && order.last_exec_type != 5 &&
        order.last_exec_type != 10) {
      ADD_FAILURE() << "child " << Utf8FromWide(order.level_key) << " ended with ExecType " << order.last_exec_type;
    }
  }
  EXPECT_EQ(all.children, static_cast<int64_t>(new_orders.size()));
  EXPECT_EQ(all.children, all.Ended() + all.working);
  for (const sim::ParentAccount& account : exchange.Accounts()) {
    SCOPED_TRACE(Utf8FromWide(account.slice_id));
    const Tally& tally = tally_of[account.slice_id];
    EXPECT_EQ(account.children_sent, tally.children);
    EXPECT_EQ(account.children_sent, tally.Ended() + tally.working);
    EXPECT_EQ(account.children_filled, tally.filled);
  }
  for (const auto& [key, count] : finals_of) EXPECT_LE(count, 1) << Utf8FromWide(key) << " went to market twice";
  // Fill-driven and volume slices work one child at a time.
  for (const ParentPlan& plan : plans) {
    if (plan.type == 1 || plan.type == 3) {
      EXPECT_LE(tally_of[plan.slice].working, 1) << Utf8FromWide(plan.slice);
    }
  }
  int64_t volume_cancels = 0;
  for (const auto& e : host_.Sent(L"TRADE.CANCELORDER")) volume_cancels += e.p1 == 2 ? 1 : 0;
  EXPECT_GT(volume_cancels, 0) << "the volume worker cancelled nothing before stage 4";

  // Released while per-order timers are armed and records are listened to.
  watchdog.Stage("releasing the object");
  manager->Unadvise(cookie);
  EXPECT_EQ(manager->Release(), 0u);
  TsmWaitEventsDelivered();
  watchdog.Stage("done");

  const int64_t wall_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - wall_start).count();
  const int64_t peak_kb = std::max(ProcStatus("VmHWM"), peak_resident / 1024);
  peak_threads = std::max(peak_threads, ProcStatus("Threads"));
  RecordProperty("wall_ms", std::to_string(wall_ms));
  RecordProperty("peak_threads", std::to_string(peak_threads));
  RecordProperty("peak_resident_kb", std::to_string(peak_kb));
  std::printf("stress: wall %lld ms, peak threads %lld (-1: unknown here), peak resident %lld kB (sampled %lld kB), "
              "new orders %zu, failed %zu, children filled %lld, cancelled %lld, replaced %lld, rejected %lld, "
              "working %lld, volume cancels %lld, still queued %lld\n",
              static_cast<long long>(wall_ms), static_cast<long long>(peak_threads), static_cast<long long>(peak_kb),
              static_cast<long long>(peak_resident / 1024), new_orders.size(), failed_orders.size(),
              static_cast<long long>(all.filled), static_cast<long long>(all.cancelled),
              static_cast<long long>(all.replaced), static_cast<long long>(all.rejected),
              static_cast<long long>(all.working),
              static_cast<long long>(volume_cancels), static_cast<long long>(queued));
}

// Rounds of the rare sequences, each on an object of its own, while another
// thread changes a watched symbol's quote and the system time record without
// pause:
//   - a timed child parked by its step, ended by the host's replacement and
//     delivered again (a re-delivery), then released when its session opens
//     or cancelled, more than 10 s later (its records freed meanwhile);
//   - parked orders looked at by the system time handler while cancels and
//     timer 105 free their entries;
//   - a re-delivery before timer 103, heard after timer 103;
//   - a volume child on a symbol whose quote never stops changing;
//   - the object released by a host holding "ORDERSET.LOCK" while a timer
//     waits for the order mutex.
// Every parked child must end with its request (the cancel its leftover
// action asks for, or the host's cancel answered), every volume child with
// its volume cancel, and every release must return and end the object.
TEST_F(StressTest, RareSequencesMixedIntoTheTrafficLeaveNoOrderWithoutItsFinalRequest) {
  constexpr int kRounds = 24;
  Watchdog watchdog;
  const std::wstring volume_symbol = L"QX.V.STORM";
  const std::wstring timed_symbol = L"QX.F.TW.PARK";
  IBaseData* quote = host_.Topic(volume_symbol);
  IBaseData* system_time = host_.Topic(L"NordaSystemTime");
  std::atomic<bool> storm_stop{false};
  std::atomic<int64_t> storm_writes{0};
  std::thread storm([&] {
    int64_t volume = 1000;
    while (!storm_stop.load()) {
      const int32_t update = quote->BeginUpdate();
      quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(++volume));
      quote->EndUpdate(update);
      // Every parked order is looked at; none is due before 12:59:00.
      sim::SimHost::Write(system_time, {{L"SystemDate", Variant::I4(20261123)},
                                        {L"SystemTime", Variant::I4(120000)},
                                        {L"TimeDiff", Variant::I4(0)}});
      ++storm_writes;
      // Paced by the event thread: the storm keeps it busy without letting
      // its queue grow, so that the rounds' own waits for delivery end (on
      // Windows a delivery through IDispatch is slower than a write).
      TsmWaitEventsDelivered();
    }
  });
  auto count_sent = [this](const std::wstring& topic, const std::wstring& text) {
    int n = 0;
    for (const auto& e : host_.Sent(topic)) n += e.text == text ? 1 : 0;
    return n;
  };
  auto count_logged = [this](const std::wstring& line) {
    int n = 0;
    for (const auto& logged : host_.Logs()) n += logged == line ? 1 : 0;
    return n;
  };
  auto wait_until = [](const std::function<bool()>& done) {
    for (long i = 0; i < 20000000; ++i) {
      if (done()) return true;
      std::this_thread::yield();
    }
    return done();
  };

  int parents = 0, children = 0, redeliveries = 0, without_final = 0, deaf = 0, hangs = 0;
  for (int r = 0; r < kRounds; ++r) {
    watchdog.Stage("a round of rare sequences");
    const std::wstring n = std::to_wstring(r);
    auto* manager = new CTradeSliceManager(&clock_);
    manager->AddRef();
    uint32_t cookie = 0;
    manager->Advise(&host_, &cookie);
    manager->SetStage(1, 1);
    manager->SetStage(1, 2);
    CTradeSliceManagerPeer peer(manager);
    std::weak_ptr<void> worker = peer.Worker();
    auto topic = [&](const std::wstring& name, int32_t p2, const std::wstring& text, IBaseData* record) {
      Variant data = Variant::I4(static_cast<int32_t>(host_.Publish(record)));
      manager->SetTopic(name, 0, p2, text, &data);
      TsmWaitEventsDelivered();
    };

    // A timed parent and a volume parent, both past the session check.
    IBaseData* timed = Record(L"order", {{L"LevelKey", Variant::Text(L"TP" + n)},
                                         {L"SliceID", Variant::Text(L"TS" + n)},
                                         {L"SlicedType", Variant::I4(2)},
                                         {L"Interval", Variant::I4(500)},
                                         {L"LeftoverAction", Variant::I4(1)},
                                         {L"DiscloseQty", Variant::I4(300)},
                                         {L"Variance", Variant::I4(20)},
                                         {L"OrderQty", Variant::I4(3000)},
                                         {L"LeavesQty", Variant::I4(3000)},
                                         {L"SecurityType", Variant::Text(L"F")},
                                         {L"Symbol", Variant::Text(timed_symbol)},
                                         {L"TimeInForce", Variant::I4(6)}});
    topic(L"TRADE.SLICE.MANAGER", 0, L"-1", timed);
    IBaseData* by_volume = Record(L"order", {{L"LevelKey", Variant::Text(L"VP" + n)},
                                             {L"SliceID", Variant::Text(L"VS" + n)},
                                             {L"SlicedType", Variant::I4(3)},
                                             {L"Interval", Variant::I4(1)},
                                             {L"LeftoverAction", Variant::I4(1)},
                                             {L"DiscloseQty", Variant::I4(300)},
                                             {L"OrderQty", Variant::I4(3000)},
                                             {L"LeavesQty", Variant::I4(3000)},
                                             {L"SecurityType", Variant::Text(L"F")},
                                             {L"Symbol", Variant::Text(volume_symbol)},
                                             {L"TimeInForce", Variant::I4(6)}});
    topic(L"TRADE.SLICE.MANAGER", 0, L"-1", by_volume);
    parents += 2;
    // The timed child's session is closed until 13:00.
    {
      ScopedLock<CCriticalSection> guard(peer.SessionTimesLock());
      peer.SessionTimes().SetAt(timed_symbol, new std::vector<stcOCTime>{{1300, 1400}});
    }
    IBaseData* child = Record(L"order", {{L"LevelKey", Variant::Text(L"TC" + n)},
                                         {L"SliceID", Variant::Text(L"TS" + n)},
                                         {L"SlicedType", Variant::I4(0)},
                                         {L"ExecType", Variant::I4(0)},
                                         {L"OriginalQty", Variant::I4(300)},
                                         {L"CumQty", Variant::I4(0)},
                                         {L"Symbol", Variant::Text(timed_symbol)}});
    IBaseData* volume_child = Record(L"order", {{L"LevelKey", Variant::Text(L"VC" + n)},
                                                {L"SliceID", Variant::Text(L"VS" + n)},
                                                {L"SlicedType", Variant::I4(3)},
                                                {L"Symbol", Variant::Text(volume_symbol)}});
    topic(L"TRADE.HOT.MONTH", 0, L"1", child);
    topic(L"TRADE.HOT.MONTH", 0, L"2", volume_child);
    children += 2;
    sim::SimHost::Write(volume_child, {{L"ExecType", Variant::I4(0)}, {L"OrderID", Variant::Text(L"X" + n)}});
    Advance(500);  // the timed child's step parks it

    // Ended by the host's replacement, delivered again before timer 103.
    sim::SimHost::Write(child, {{L"ExecType", Variant::I4(8)}, {L"ClientModify", Variant::I4(1)}});
    Advance(0);
    sim::SimHost::Write(child, {{L"ExecType", Variant::I4(0)}, {L"ClientModify", Variant::I4(0)},
                                {L"ClientModifyNew", Variant::I4(1)}});
    topic(L"TRADE.HOT.MONTH", 0, L"1", child);
    ++redeliveries;
    Advance(10000 + 500 * (r % 5));  // timer 103, then 104 on what was dropped
    const std::wstring heard = L"<CTradeSliceManager>OnDataUpdate : LevelKey=TC" + n + L", SliceID=TS" + n +
                               L", ExecType=12";
    sim::SimHost::Write(child, {{L"ExecType", Variant::I4(12)}});
    Advance(0);
    deaf += count_logged(heard) == 0 ? 1 : 0;
    Advance(1500 + 250 * (r % 4));  // more than 10 s after the drop: freed unless still named

    if (r % 2 == 0) {
      // The session opens and timer 105 releases the child: its step applies
      // the leftover action.
      {
        ScopedLock<CCriticalSection> guard(peer.SessionTimesLock());
        void* table = nullptr;
        peer.SessionTimes().Lookup(timed_symbol, table);
        *static_cast<std::vector<stcOCTime>*>(table) = {{900, 1500}};
      }
      {
        ScopedLock<CCriticalSection> guard(peer.WaitOpenOrdersLock());
        peer.DueWaitOrders().push_back(L"TC" + n);
      }
      peer.Timer().StartTimer(CTradeSliceManager::kTimerWaitOrders, 1000, &CTradeSliceManager::OnTimerTick,
                              manager);
      Advance(1100);
      if (count_sent(L"TRADE.CANCELORDER", L"REPORTID=TC" + n) == 0) {
        ++without_final;
        ADD_FAILURE() << "parked child TC" << r << " released without its leftover action";
      }
    } else {
      IBaseData* request = Record(L"order", {{L"LevelKey", Variant::Text(L"TC" + n)},
                                             {L"SliceID", Variant::Text(L"TS" + n)},
                                             {L"ExecType", Variant::I4(0)}});
      topic(L"TRADE.SLICE.MANAGER.CANCEL", 1, L"TC" + n, request);
      if (count_sent(L"TRADE.PRICE.TRIGGER.CANCEL", L"LevelKey=TC" + n) == 0) {
        ++without_final;
        ADD_FAILURE() << "parked child TC" << r << " cancelled without its request";
      }
    }
    // The volume child is cancelled by the worker while the quote storms.
    if (!wait_until([&] { return count_sent(L"TRADE.CANCELORDER", L"REPORTID=VC" + n) > 0; })) {
      ++without_final;
      ADD_FAILURE() << "volume child VC" << r << " never cancelled";
    }

    // Released between "ORDERSET.LOCK" and "ORDERSET.UNLOCK" while timer 102
    // waits for the order mutex.
    {
      ScopedLock<CMutex> guard(peer.SliceMutex());
      peer.FinishList().push_back(L"TP" + n);
    }
    peer.Timer().StartTimer(CTradeSliceManager::kTimerFinish, 10, &CTradeSliceManager::OnTimerTick, manager);
    Variant none;
    manager->SetTopic(L"ORDERSET.LOCK", 0, 0, L"", &none);
    std::thread advancing([this] { Advance(10); });
    const bool waiting = WaitForWaiter(peer.OrderMutex());
    manager->Unadvise(cookie);
    manager->Release();
    advancing.join();
    hangs += waiting && wait_until([&] { return worker.expired(); }) ? 0 : 1;
  }
  storm_stop = true;
  storm.join();
  watchdog.Stage("done");

  std::printf("rare sequences: rounds %d, parents %d, children %d, re-deliveries %d, quote and system time writes "
              "%lld, orders without a final request %d, deaf after timer 103 %d, hangs %d\n",
              kRounds, parents, children, redeliveries, static_cast<long long>(storm_writes.load()), without_final,
              deaf, hangs);
  RecordProperty("redeliveries", std::to_string(redeliveries));
  EXPECT_EQ(without_final, 0);
  EXPECT_EQ(deaf, 0);
  EXPECT_EQ(hangs, 0);
}

}  // namespace
}  // namespace tsm
