// The benchmark of the simulator: many parents of one slicing kind with
// instant fills on the virtual clock, measured in children per second.
//
// Threading: `RunBench` is called on one thread, which drives the clock; it
// starts and ends every thread it uses before returning.
#pragma once

#include <cstdint>

namespace tsm::sim {

struct BenchOptions {
  int parents = 1000;
  // Children of one parent: each parent's quantity is this many times its
  // disclosed size of 100 (the final portion is the last of them).
  int children_per_parent = 20;
  int32_t sliced_type = 1;  // 1: iceberg (a child after each fill), 4: slice-all (all children at once)
};

struct BenchResult {
  int parents = 0;
  int64_t children = 0;           // new orders the exchange took
  double wall_seconds = 0;        // from the first parent to the last fill
  double children_per_second = 0;
  double host_us_per_parent = 0;  // host-thread time inside the manager's SetTopic, per parent
  int64_t simulated_ms = 0;
};

BenchResult RunBench(const BenchOptions& options);

}  // namespace tsm::sim
