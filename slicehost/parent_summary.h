// What became of each parent of a run: its children's spans and outcomes
// gathered from the events, and the summary table the program prints and
// the HTML report shows.
//
// Threading: pure functions; no shared state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "slicehost/exchange.h"
#include "slicehost/run_result.h"
#include "slicehost/sim_host.h"

namespace tsm::sim {

// Per parent (first the entered ones, then any other the exchange saw): its
// children and final portion with their spans, and the unfilled quantity
// over time up to `end_ms` (the run's end) or its own end.
std::vector<ParentReport> BuildReports(const std::vector<HostEvent>& events, const std::vector<ParentInfo>& parents,
                                       const SimExchange& exchange, const ExecTypeCodes& codes, int64_t end_ms);

// How a parent's children ended (its final portion not counted): filled,
// cancelled or replaced, and failed (sent as "TRADE.FAILORDER" or rejected).
struct ChildCounts {
  int32_t filled = 0;
  int32_t cancelled = 0;
  int32_t failed = 0;
};
ChildCounts CountChildren(const ParentReport& parent);

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
