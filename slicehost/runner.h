// Plays a scenario against the slice manager as the platform would: loads the
// component through its factory export, advises the recording host, serves
// the topic records ("NordaSystemTime", "Security.Info" with its per-product
// children, "PERMISSIONS.General", "TRADE.ORDERSET", "MARZIPAN.REQUEST", a
// quote record per security), ticks the system time every simulated second,
// runs the timed steps on the host's thread and lets the simulated exchange
// work the orders. It also holds the embedded demo scenario, the benchmark,
// and the readable timeline and summary of a run.
//
// On the virtual clock (the default) a run is reproducible: after every host
// action the host waits until the manager's reactions have finished (record
// change events; after a quote change, the volume worker's check), and the
// clock moves only between them. `--real-time` plays the same steps on the
// wall clock.
//
// Threading: `RunScenario` and `RunBench` are called on one thread, which
// becomes the driver of the clock; they start and end every thread they use
// (the host loop, the manager's timers and worker) before returning. The
// `on_event` callback runs on that same thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "slicehost/exchange.h"
#include "slicehost/manager_link.h"
#include "slicehost/scenario.h"
#include "slicehost/sim_host.h"

namespace tsm::sim {

struct RunOptions {
  bool real_time = false;
  // Through COM where the system has it; the factory export by choice.
  ManagerPath path = DefaultManagerPath();
  // Every event, in order, shortly after it happened (on the caller's thread).
  std::function<void(const HostEvent&)> on_event;
};

// A parent order as the scenario entered it.
struct ParentInfo {
  std::wstring level_key;
  std::wstring slice_id;
  std::wstring symbol;
  int32_t sliced_type = 0;
  int32_t qty = 0;        // "OrderQty" (or "LeavesQty") when it was entered
  int64_t submit_ms = -1;
};

// One order the exchange worked for a parent, from send to end.
struct ChildSpan {
  std::wstring level_key;
  int32_t qty = 0;
  int64_t start_ms = 0;
  int64_t end_ms = -1;     // -1: still working when the run ended
  std::string outcome;     // "filled", "cancelled", "replaced", "rejected", "working"
  bool final_portion = false;
};

struct ParentReport {
  ParentInfo info;
  ParentAccount account;
  std::vector<ChildSpan> children;                      // children, then the final portion
  std::vector<std::pair<int64_t, int64_t>> remaining;  // (t, quantity not yet filled), stepwise
  int64_t end_ms = -1;                                  // filled, transferred or cancelled; -1: open
};

struct RunResult {
  std::string name;
  std::string description;
  std::vector<HostEvent> events;
  std::vector<ParentReport> parents;
  int64_t duration_ms = 0;
  double wall_seconds = 0;
};

// Plays `scenario`; never throws for a well-formed scenario. Steps that
// name something unknown are skipped with a "HostStepIgnored" event.
RunResult RunScenario(const Scenario& scenario, const RunOptions& options);

// The embedded demo scenario (JSON).
const std::string& DemoScenarioJson();

struct BenchOptions {
  int parents = 1000;
  int children_per_parent = 20;
  int32_t sliced_type = 1;  // 1: iceberg (a child after each fill), 4: slice-all (all children at once)
  ManagerPath path = DefaultManagerPath();
};

struct BenchResult {
  int parents = 0;
  int64_t children = 0;           // new orders the exchange took
  double wall_seconds = 0;        // from the first parent to the last fill
  double children_per_second = 0;
  double host_us_per_parent = 0;  // host-thread time inside the manager's SetTopic, per parent
  int64_t simulated_ms = 0;
};

// Many parents of one slicing kind with instant fills on the virtual clock.
BenchResult RunBench(const BenchOptions& options);

// How a parent's children ended (its final portion not counted): filled,
// cancelled or replaced, and failed (sent as "TRADE.FAILORDER" or rejected).
struct ChildCounts {
  int32_t filled = 0;
  int32_t cancelled = 0;
  int32_t failed = 0;
};
ChildCounts CountChildren(const ParentReport& parent);

// "mm:ss.mmm" (or "h:mm:ss.mmm") of simulated milliseconds.
std::string FormatSimTime(int64_t ms);
// One readable timeline line for an event; empty for the events only
// `verbose` shows (log lines, topic fetches, security-information requests).
std::string TimelineLine(const HostEvent& event, bool verbose);
// The cells of one parent's row of the summary, in the order of its
// columns: parent, slice, kind, qty, sent, filled, cancelled, failed, final
// portion, done qty, start, end. The text summary and the HTML report both
// show these.
std::vector<std::string> SummaryCells(const ParentReport& parent);
// The per-parent summary table.
std::string SummaryText(const RunResult& result);
// Kind of a parent by its "SlicedType": "iceberg", "timed", "volume",
// "slice-all", "on-release", or the number.
std::string SliceKindName(int32_t sliced_type);

}  // namespace tsm::sim
