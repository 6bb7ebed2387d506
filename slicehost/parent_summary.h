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

// How the parent ended, in words: "finished at T", "cancelled by the host
// at T", "final portion transferred at T", "still parked until its session
// opens at HH:MM", "children replaced and not filled (Q), the rest finished
// at T", "final portion rejected at T" (or cancelled), "not taken in
// (SlicedType below 1)", or "still working at the end of the run".
std::string ParentOutcome(const ParentReport& parent);

// The headers of the summary's columns, and the cells of one parent's row
// in the same order: parent, slice, kind, qty, children sent, filled,
// cancelled, failed, final portion, filled qty, cancelled qty, start, end,
// outcome. The text summary and the HTML report both show these.
const std::vector<std::string>& SummaryColumns();
std::vector<std::string> SummaryCells(const ParentReport& parent);
// The per-parent summary table.
std::string SummaryText(const RunResult& result);
// Kind of a parent by its "SlicedType": "iceberg", "timed", "volume",
// "slice-all", "on-release", or the number.
std::string SliceKindName(int32_t sliced_type);

}  // namespace tsm::sim
