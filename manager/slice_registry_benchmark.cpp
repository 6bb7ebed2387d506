// Intake of a parent on the host's thread: "TRADE.SLICE.MANAGER" for a
// type-1 parent, from the topic to its first child queued for timer 101, with
// the session check of an initialised security on the way.
#include <time.h>

#include <chrono>

#include <benchmark/benchmark.h>

#include "testing/manager_fixture.h"

namespace tsm {
namespace {

const wchar_t kSymbol[] = L"QX.F.CN.IF2612";

// CPU time of the calling thread: what a call costs, whatever else the
// machine runs meanwhile.
double ThreadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void BM_SetTopicSliceManagerTypeOneToFirstChildQueued(benchmark::State& state) {
  VirtualClock clock(kDefaultStartUtcMs);  // 09:30, inside the morning session
  sim::SimHost host(clock);
  auto* manager = new CTradeSliceManager(&clock);
  manager->AddRef();
  uint32_t sink = 0;
  manager->Advise(&host, &sink);
  IBaseData* entry = sim::SimHost::NewRecord(
      L"entry", {{kSymbol, Variant::Text(L"{\"OpenCloseTime\":\"09:30~11:30;13:00~15:00\"}")}});
  TsmSetChild(host.Topic(L"Security.Info"), L"QX.F.CN", entry);
  manager->SetStage(1, 1);
  manager->SetStage(1, 2);
  manager->InitSecurityInfo(kSymbol);
  CTradeSliceManagerPeer peer(manager);

  IBaseData* parent = sim::SimHost::NewRecord(
      L"order", {{L"LevelKey", Variant::Text(L"L1")},      {L"SliceID", Variant::Text(L"S1")},
                 {L"SlicedType", Variant::I4(1)},          {L"Interval", Variant::I4(5)},
                 {L"LeftoverAction", Variant::I4(1)},      {L"Symbol", Variant::Text(kSymbol)},
                 {L"SecurityType", Variant::Text(L"F")},   {L"BrokerID", Variant::Text(L"B1")},
                 {L"Account", Variant::Text(L"A1")},       {L"Side", Variant::Text(L"B")},
                 {L"DiscloseQty", Variant::I4(300)},       {L"Variance", Variant::I4(0)},
                 {L"Price", Variant::I8(12345)},           {L"PriceString", Variant::Text(L"123.45")},
                 {L"OrderType", Variant::I4(2)},           {L"TimeInForce", Variant::I4(0)},
                 {L"GroupType", Variant::I4(1)},           {L"GroupID", Variant::Text(L"G1")}});
  const Variant cookie = Variant::I4(static_cast<int32_t>(host.Publish(parent)));
  const std::wstring topic = L"TRADE.SLICE.MANAGER";
  const std::wstring index = L"3";
  const sim::FieldList full = {
      {L"OrderQty", Variant::I4(1000)}, {L"LeavesQty", Variant::I4(1000)}, {L"SendQty", Variant::I4(1000)}};

  // Only the host's call is timed: the parent is reset and taken out of the
  // registry again between calls, so that every call takes it in anew.
  double cpu_seconds = 0;
  for (auto _ : state) {
    sim::SimHost::Write(parent, full);
    Variant data = cookie;
    const double cpu_start = ThreadCpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    manager->SetTopic(topic, 0, 0, index, &data);
    const auto end = std::chrono::steady_clock::now();
    cpu_seconds += ThreadCpuSeconds() - cpu_start;
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());

    void* slot = nullptr;
    const bool queued = peer.OrderData().Lookup(L"L1", slot) && peer.SendQueue().size() == 1;
    peer.OrderData().RemoveKey(L"L1");
    delete static_cast<CBaseData*>(slot);
    peer.OrderIndex().RemoveKey(L"L1");
    peer.SliceIdToLevelKey().RemoveKey(L"S1");
    peer.SliceParams().RemoveKey(L"S1");
    peer.SlicedOrders().RemoveKey(L"L1");
    peer.SendQueue().clear();
    host.ClearEvents();
    if (!queued) {
      state.SkipWithError("no child queued");
      break;
    }
  }
  state.counters["thread_cpu_ns"] = benchmark::Counter(cpu_seconds * 1e9, benchmark::Counter::kAvgIterations);

  manager->Unadvise(sink);
  manager->Release();
  TsmWaitEventsDelivered();
  parent->Release();
  entry->Release();
}
BENCHMARK(BM_SetTopicSliceManagerTypeOneToFirstChildQueued)->UseManualTime();

}  // namespace
}  // namespace tsm
