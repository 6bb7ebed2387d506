// What a played scenario leaves behind: every event of the run, and per
// parent what the scenario entered, the orders the exchange worked for it and
// how its unfilled quantity went down.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "slicehost/exchange.h"
#include "slicehost/sim_host.h"

namespace tsm::sim {

// A parent order as the scenario entered it.
struct ParentInfo {
  std::wstring level_key;
  std::wstring slice_id;
  std::wstring symbol;
  int32_t sliced_type = 0;
  int64_t qty = 0;        // "OrderQty" (or "LeavesQty") when it was entered, up to 64 bits
  int64_t submit_ms = -1;
};

// One order the exchange worked for a parent, from send to end.
struct ChildSpan {
  std::wstring level_key;
  int64_t qty = 0;
  int64_t filled = 0;      // its cumulative fill when it ended (or at the end of the run)
  int64_t start_ms = 0;
  int64_t end_ms = -1;     // -1: still working when the run ended
  std::string outcome;     // "filled", "cancelled", "replaced", "rejected", "working"
  bool final_portion = false;
  std::wstring command;    // the new-order command (empty for a final portion)
  std::vector<std::pair<int64_t, int64_t>> fills;  // (t, quantity) of each fill
};

// A stretch in which the manager held the parent back outside its
// security's sessions.
struct ParkedSpan {
  int64_t start_ms = 0;
  int64_t end_ms = -1;     // its first order reached the exchange; -1: parked to the end
  std::string opens_at;    // "HH:MM", exchange time of the session it waited for
};

struct ParentReport {
  ParentInfo info;
  ParentAccount account;
  std::vector<ChildSpan> children;                      // children, then the final portion
  std::vector<std::pair<int64_t, int64_t>> remaining;  // (t, quantity not yet filled), stepwise
  std::vector<ParkedSpan> parked;
  int64_t end_ms = -1;                                  // filled, transferred or cancelled; -1: open
  int64_t cancelled_at_ms = -1;                         // the host's cancel request; -1: none
  // Unfilled quantity of the children (and final portion) that ended by a
  // cancel or a replace.
  int64_t qty_cancelled = 0;
};

struct RunResult {
  std::string name;
  std::string description;
  std::vector<HostEvent> events;
  std::vector<ParentReport> parents;
  int64_t duration_ms = 0;
  // Exchange clock at simulated time 0, in milliseconds since 1970 (UTC
  // start plus the time offset), and that offset: the report's time axis.
  int64_t clock_origin_ms = 0;
  int32_t time_offset_s = 0;
  double wall_seconds = 0;
};

}  // namespace tsm::sim
