// The benchmark of the simulator: many parents of one slicing kind with
// instant fills on the virtual clock, measured in children per second.
//
// Threading: `RunBench` is called on one thread, which drives the clock; it
// starts and ends every thread it uses before returning.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "slicehost/manager_link.h"
#include "slicehost/thread_cpu_ledger.h"

namespace tsm::sim {

// The most orders (parents times orders per parent) one run may make: every
// child record stays registered with the manager until the run ends, and
// larger runs take minutes and gigabytes.
constexpr int64_t kBenchMaxOrders = 200000;

struct BenchOptions {
  int parents = 1000;
  // Children of one parent: each parent's quantity is this many times its
  // disclosed size of 100 (the final portion is the last of them).
  int children_per_parent = 20;
  int32_t sliced_type = 1;  // 1: iceberg (a child after each fill), 4: slice-all (all children at once)
  ManagerPath path = DefaultManagerPath();
  // Called about once a second once the run has taken 2 s: children sent so
  // far, children the run will send, seconds so far.
  std::function<void(int64_t, int64_t, double)> progress;
};

struct BenchResult {
  int parents = 0;
  int64_t children = 0;           // new orders the exchange took
  double wall_seconds = 0;        // from the first parent to the last fill
  double children_per_second = 0;
  double host_us_per_parent = 0;  // host-thread time inside the manager's SetTopic, per parent
  int64_t simulated_ms = 0;
  // CPU time of each thread class during the timed part, from each thread's
  // own clock, and how many threads of the class took part.
  std::array<int64_t, static_cast<std::size_t>(ThreadClass::kCount)> cpu_ns{};
  std::array<int, static_cast<std::size_t>(ThreadClass::kCount)> threads{};
};

BenchResult RunBench(const BenchOptions& options);

}  // namespace tsm::sim
