// CPU time of the run's threads by class, each read from the thread's own
// CPU clock: the base-data event thread, the host loop, the manager's timer
// threads (and its other short-lived threads), and the thread that drives
// the clock. A thread enters the ledger the first time it calls into the
// simulated host; one that ends leaves its last reading, taken by itself as
// it ends.
//
// Threading: every member may be called from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/thread_cpu.h"

namespace tsm::sim {

enum class ThreadClass { kEvent = 0, kHostLoop, kTimer, kDriver, kCount };

const char* ThreadClassName(ThreadClass kind);

class ThreadCpuLedger {
 public:
  struct Totals {
    std::array<int64_t, static_cast<std::size_t>(ThreadClass::kCount)> ns{};
    std::array<int, static_cast<std::size_t>(ThreadClass::kCount)> threads{};
  };

  // The process's ledger: threads of every module note themselves here.
  static ThreadCpuLedger& Instance();

  // Enters the calling thread under `kind` unless it is in already. Cheap
  // after its first call, and while the ledger is off (then it does nothing).
  // True when the thread is in the ledger.
  bool Note(ThreadClass kind);
  void SetEnabled(bool enabled);
  // The CPU time so far of every thread entered, by class.
  Totals Read() const;

 private:
  struct Entry;
  struct Holder;
  ThreadCpuLedger() = default;

  mutable std::mutex lock_;
  std::vector<std::shared_ptr<Entry>> entries_;
  std::atomic<bool> enabled_{false};
};

}  // namespace tsm::sim
