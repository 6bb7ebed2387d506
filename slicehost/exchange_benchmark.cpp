// The full life of iceberg parents of 10 children each, end to end on the
// virtual clock: host loop, simulated exchange with instant fills, the
// base-data component's event thread and the manager's timers. Items are
// children.
#include <cstdint>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "manager/trade_slice_manager.h"
#include "platform/virtual_clock.h"
#include "slicehost/exchange.h"
#include "slicehost/host_loop.h"
#include "slicehost/sim_host.h"

namespace tsm {
namespace {

constexpr int64_t kStartUtcMs = 1795426200000LL;  // 2026-11-23 09:30:00 UTC
constexpr int kChildrenPerParent = 10;

int NoVariance() { return 0; }

struct World {
  World() : clock(kStartUtcMs), host(clock), manager(new CTradeSliceManager(&clock)), loop(clock),
            exchange(host, loop, clock, manager) {
    host.SetKeepEvents(false);  // nothing reads the recorded calls
    manager->AddRef();
    manager->Advise(&host, &sink);
    manager->SetRandomSourceForTesting(&NoVariance);
    clock.AddQuiescer([] { TsmWaitEventsDelivered(); });
    sim::SymbolBehaviour instant;
    instant.ack_delay_ms = 0;
    instant.fill_delay_ms = 0;
    exchange.SetDefaultBehaviour(instant);
    loop.PostSetStage(manager, 1, 1);
    loop.PostSetStage(manager, 1, 2);
    clock.Advance(0);
  }
  ~World() {
    loop.Stop();
    manager->Unadvise(sink);
    manager->Release();
    TsmWaitEventsDelivered();
  }

  VirtualClock clock;
  sim::SimHost host;
  CTradeSliceManager* manager;
  uint32_t sink = 0;
  sim::HostLoop loop;
  sim::SimExchange exchange;
};

// range(0) parents run side by side; each is 3,300 in slices of 300: ten
// children and a final order of 300.
void BM_IcebergFullLifeInstantFills(benchmark::State& state) {
  const int parents = static_cast<int>(state.range(0));
  int64_t children = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto world = std::make_unique<World>();
    for (int p = 0; p < parents; ++p) {
      const std::wstring n = std::to_wstring(p + 1);
      world->exchange.SubmitParent({{L"LevelKey", Variant::Text(L"P" + n)},
                                    {L"SliceID", Variant::Text(L"S" + n)},
                                    {L"SlicedType", Variant::I4(1)},
                                    {L"LeavesQty", Variant::I4(300 * (kChildrenPerParent + 1))},
                                    {L"DiscloseQty", Variant::I4(300)},
                                    {L"SecurityType", Variant::Text(L"F")},
                                    {L"Symbol", Variant::Text(L"QX.F.TW.TXF")},
                                    {L"Side", Variant::Text(L"B")}});
    }
    state.ResumeTiming();
    // Each child waits out the 100 ms send timer; everything else is instant.
    for (int step = 0; step < 2 * kChildrenPerParent + 10; ++step) world->clock.Advance(100);
    state.PauseTiming();
    int64_t done = 0;
    for (const auto& account : world->exchange.Accounts()) {
      if (account.final_portion_filled && account.children_filled == kChildrenPerParent) ++done;
    }
    if (done != parents) state.SkipWithError("not every parent reached its end");
    children += static_cast<int64_t>(parents) * kChildrenPerParent;
    world.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(children);
  state.counters["children_per_s"] = benchmark::Counter(static_cast<double>(children), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_IcebergFullLifeInstantFills)->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace tsm
