#include "slicehost/bench.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "slicehost/player.h"
#include "slicehost/scenario.h"
#include "slicehost/thread_cpu_ledger.h"
#include "slicehost/watched_quote.h"

namespace tsm::sim {

using Wall = std::chrono::steady_clock;

BenchResult RunBench(const BenchOptions& options) {
  Scenario scenario;
  scenario.name = "bench";
  scenario.source = "bench";
  scenario.start_utc_ms = *ParseUtcTime("2026-11-23T01:30:00Z");
  scenario.time_offset_s = 28800;
  scenario.duration_ms = 7LL * 24 * 3600 * 1000;
  scenario.exchange.delivery_delay_ms = 0;
  scenario.exchange.ack_delay_ms = 0;
  scenario.exchange.fill_delay_ms = 0;
  Security security;
  security.symbol = L"QX.S.TW.2330";
  security.info = L"2330|100|x|100";
  security.source = "none";
  scenario.securities.push_back(security);
  const int32_t disclose = 100;
  scenario.steps.reserve(static_cast<size_t>(std::max(0, options.parents)));
  for (int i = 0; i < options.parents; ++i) {
    Step step;
    step.kind = Step::Kind::kSubmit;
    step.at_ms = 1000;
    const int32_t qty = disclose * std::max(1, options.children_per_parent);
    step.fields = {{L"LevelKey", Variant::Text(L"P" + std::to_wstring(i + 1))},
                   {L"SliceID", Variant::Text(L"S" + std::to_wstring(i + 1))},
                   {L"Symbol", Variant::Text(security.symbol)},
                   {L"Side", Variant::Text(L"B")},
                   {L"SecurityType", Variant::Text(L"S")},
                   {L"Account", Variant::Text(L"A1")},
                   {L"Price", Variant::I8(5000)},
                   {L"OrderQty", Variant::I4(qty)},
                   {L"LeavesQty", Variant::I4(qty)},
                   {L"SendQty", Variant::I4(qty)},
                   {L"DiscloseQty", Variant::I4(disclose)},
                   {L"Variance", Variant::I4(0)},
                   {L"SlicedType", Variant::I4(options.sliced_type)},
                   {L"TimeInForce", Variant::I4(6)}};
    scenario.steps.push_back(std::move(step));
  }
  BenchResult result;
  result.parents = options.parents;
  // Before the player starts its host loop, so that the loop enters itself.
  ThreadCpuLedger& ledger = ThreadCpuLedger::Instance();
  ledger.SetEnabled(true);
  ledger.Note(ThreadClass::kDriver);
  RunOnEventThread([] { ThreadCpuLedger::Instance().Note(ThreadClass::kEvent); });
  Player play(scenario, false, false, options.path);
  // Nothing below reads the recorded calls.
  play.host().SetKeepEvents(false);
  play.Schedule(false);
  play.AdvanceTo(999);
  const ThreadCpuLedger::Totals cpu_start = ledger.Read();
  const auto wall_start = Wall::now();
  auto next_progress = wall_start + std::chrono::seconds(2);
  // Each parent ends in its children and one final portion, which is no child.
  const int64_t expected_children =
      static_cast<int64_t>(options.parents) *
      (options.sliced_type == 4 ? std::max(1, options.children_per_parent)
                                : std::max(0, std::max(1, options.children_per_parent) - 1));
  int64_t t = 999;
  for (;;) {
    t += 100;
    play.AdvanceTo(t);
    const SimExchange& exchange = play.exchange();
    const int32_t ended = exchange.EndedAccountCount();
    if (exchange.AccountCount() == options.parents && ended == options.parents) break;
    if (t > 3600 * 1000) break;
    if (options.progress && Wall::now() >= next_progress) {
      options.progress(exchange.ChildrenSent(), expected_children,
                       std::chrono::duration<double>(Wall::now() - wall_start).count());
      next_progress = Wall::now() + std::chrono::seconds(1);
    }
  }
  result.wall_seconds = std::chrono::duration<double>(Wall::now() - wall_start).count();
  const ThreadCpuLedger::Totals cpu_end = ledger.Read();
  for (std::size_t i = 0; i < result.cpu_ns.size(); ++i) {
    result.cpu_ns[i] = cpu_end.ns[i] - cpu_start.ns[i];
    result.threads[i] = cpu_end.threads[i];
  }
  result.children = play.exchange().ChildrenSent();
  result.simulated_ms = t - 999;
  result.children_per_second = result.wall_seconds > 0 ? static_cast<double>(result.children) / result.wall_seconds : 0;
  result.host_us_per_parent =
      options.parents > 0 ? static_cast<double>(play.proxy().InsideNs()) / 1000.0 / options.parents : 0;
  return result;
}

}  // namespace tsm::sim
