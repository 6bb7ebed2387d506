// Timer-driven processing and order updates on the virtual clock: timer 101
// draining a full send queue, one per-order step, and one fill update from
// the component's event thread to the next child queued.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "manager/trade_slice_manager.h"
#include "platform/virtual_clock.h"
#include "slicehost/sim_host.h"

namespace tsm {
namespace {

constexpr int64_t kStartUtcMs = 1795426200000LL;  // 2026-11-23 09:30:00 UTC

Variant T(const std::wstring& text) { return Variant::Text(text); }
Variant I4(int32_t value) { return Variant::I4(value); }

int NoVariance() { return 0; }

// A started manager on a virtual clock, advised to a recording host.
struct World {
  World() : clock(kStartUtcMs), host(clock), manager(new CTradeSliceManager(&clock)) {
    manager->AddRef();
    manager->Advise(&host, &sink);
    manager->SetRandomSourceForTesting(&NoVariance);
    clock.AddQuiescer([] { TsmWaitEventsDelivered(); });
    manager->SetStage(1, 1);
  }
  ~World() {
    manager->Unadvise(sink);
    manager->Release();
    TsmWaitEventsDelivered();
    for (IBaseData* record : records) record->Release();
  }

  IBaseData* Record(const sim::FieldList& fields) {
    IBaseData* record = sim::SimHost::NewRecord(L"order", fields);
    records.push_back(record);
    return record;
  }
  Variant Cookie(IBaseData* record) { return I4(static_cast<int32_t>(host.Publish(record))); }
  void Topic(const std::wstring& topic, const std::wstring& text, Variant data) {
    manager->SetTopic(topic, 0, 0, text, &data);
  }

  // A parent that never runs out: slices of 300 from a very large order.
  IBaseData* Parent(int32_t sliced_type, int32_t interval, int32_t leftover_action, int p = 1) {
    slice = L"S" + std::to_wstring(p);
    IBaseData* parent = Record({{L"LevelKey", T(L"P" + std::to_wstring(p))},
                                {L"SliceID", T(slice)},
                                {L"SlicedType", I4(sliced_type)},
                                {L"LeavesQty", I4(2000000000)},
                                {L"DiscloseQty", I4(300)},
                                {L"SecurityType", T(L"F")},
                                {L"Symbol", T(L"QX.F.TW.TXF")},
                                {L"Interval", I4(interval)},
                                {L"LeftoverAction", I4(leftover_action)},
                                {L"TimeInForce", I4(6)}});
    Topic(L"TRADE.SLICE.MANAGER", L"0", Cookie(parent));
    return parent;
  }

  IBaseData* Child(int n) {
    IBaseData* child = Record({{L"LevelKey", T(L"C" + std::to_wstring(n))},
                               {L"SliceID", T(slice)},
                               {L"OriginalQty", I4(300)},
                               {L"CumQty", I4(0)},
                               {L"LeavesQty", I4(300)},
                               {L"OrderID", T(L"X" + std::to_wstring(n))},
                               {L"TimeInForce", I4(6)}});
    Topic(L"TRADE.HOT.MONTH", std::to_wstring(n), Cookie(child));
    return child;
  }

  VirtualClock clock;
  sim::SimHost host;
  CTradeSliceManager* manager;
  uint32_t sink = 0;
  std::vector<IBaseData*> records;
  std::wstring slice;  // of the latest parent; children join it
};

// Timer 101 sending a queue of 1,000 new-order commands (per command).
void BM_SendTimerDrainsAThousandCommands(benchmark::State& state) {
  constexpr int kCommands = 1000;
  World world;
  world.Parent(1, 0, 0);
  CBaseData* parent = CBaseData::FromCookie(world.host.Publish(world.records.front()), nullptr, &world.clock);
  world.clock.Advance(100);
  for (auto _ : state) {
    state.PauseTiming();
    world.host.ClearEvents();
    for (int i = 0; i < kCommands; ++i) world.manager->DoSlicedWorkFirst(parent);
    state.ResumeTiming();
    world.clock.Advance(100);
  }
  delete parent;
  state.SetItemsProcessed(state.iterations() * kCommands);
}
BENCHMARK(BM_SendTimerDrainsAThousandCommands)->Unit(benchmark::kMicrosecond)->UseRealTime();

// One per-order step of a timed child: the next slice sent at once and the
// cancel request for the child (the expiry's hand-over on the clock included).
void BM_PerOrderStep(benchmark::State& state) {
  World world;
  world.Parent(2, 1, 1);
  world.clock.Advance(100);
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if (n % 100 == 0) {
      world.host.ClearEvents();
      world.Parent(2, 1, 1, n / 100 + 2);
    }
    world.Child(++n);
    state.ResumeTiming();
    world.clock.Advance(1);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PerOrderStep)->Unit(benchmark::kMicrosecond)->UseRealTime();

// One fill written into a listened child, through the component's event
// thread, to the next child in the send queue.
void BM_FillUpdateToNextChildQueued(benchmark::State& state) {
  World world;
  world.Parent(1, 0, 0);
  world.clock.Advance(100);
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    // A fresh parent every 100 children: a parent's list of children grows
    // with each one, and every fill walks it.
    if (n % 100 == 0) {
      world.clock.Advance(100);
      world.host.ClearEvents();
      world.Parent(1, 0, 0, n / 100 + 2);
    }
    IBaseData* child = world.Child(++n);
    state.ResumeTiming();
    sim::SimHost::Write(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
    TsmWaitEventsDelivered();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FillUpdateToNextChildQueued)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same, 100 fills written back to back and waited for once: the cost of
// one fill with the event thread's wake-up shared out.
void BM_FillUpdatesToNextChildrenQueuedBatched(benchmark::State& state) {
  constexpr int kBatch = 100;
  World world;
  world.Parent(1, 0, 0);
  world.clock.Advance(100);
  int n = 0;
  std::vector<IBaseData*> children;
  for (auto _ : state) {
    state.PauseTiming();
    world.clock.Advance(100);
    world.host.ClearEvents();
    world.Parent(1, 0, 0, n / kBatch + 2);
    children.clear();
    for (int i = 0; i < kBatch; ++i) children.push_back(world.Child(++n));
    state.ResumeTiming();
    for (IBaseData* child : children) {
      sim::SimHost::Write(child, {{L"ExecType", I4(3)}, {L"CumQty", I4(300)}, {L"LeavesQty", I4(0)}});
    }
    TsmWaitEventsDelivered();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_FillUpdatesToNextChildrenQueuedBatched)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
}  // namespace tsm
