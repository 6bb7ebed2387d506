#include "slicehost/thread_cpu_ledger.h"

#include <atomic>

namespace tsm::sim {

struct ThreadCpuLedger::Entry {
  ThreadClass kind;
  ThreadCpuClock clock;
  std::atomic<int64_t> final_ns{-1};  // set by the thread itself as it ends
};

// One per thread entered: its destructor runs on that thread as it ends.
struct ThreadCpuLedger::Holder {
  std::shared_ptr<Entry> entry;
  ~Holder() {
    if (entry) entry->final_ns.store(ThreadCpuClock::CurrentThreadNs(), std::memory_order_release);
  }
};

const char* ThreadClassName(ThreadClass kind) {
  switch (kind) {
    case ThreadClass::kEvent: return "event thread";
    case ThreadClass::kHostLoop: return "host loop";
    case ThreadClass::kTimer: return "timer threads";
    case ThreadClass::kDriver: return "clock driver";
    default: return "?";
  }
}

ThreadCpuLedger& ThreadCpuLedger::Instance() {
  // Kept for the life of the process: threads may end after main returns.
  static ThreadCpuLedger* ledger = new ThreadCpuLedger();
  return *ledger;
}

void ThreadCpuLedger::SetEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }

bool ThreadCpuLedger::Note(ThreadClass kind) {
  if (!enabled_.load(std::memory_order_relaxed)) return false;
  thread_local Holder holder;
  if (holder.entry) return true;
  std::lock_guard<std::mutex> guard(lock_);
  auto entry = std::make_shared<Entry>();
  entry->kind = kind;
  entry->clock = ThreadCpuClock::OfCurrentThread();
  entries_.push_back(entry);
  holder.entry = std::move(entry);
  return true;
}

ThreadCpuLedger::Totals ThreadCpuLedger::Read() const {
  Totals totals;
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& entry : entries_) {
    int64_t ns = entry->final_ns.load(std::memory_order_acquire);
    if (ns < 0) ns = entry->clock.ReadNs();
    // Ended between the two loads: its own last reading is there now.
    if (ns < 0) ns = entry->final_ns.load(std::memory_order_acquire);
    const auto at = static_cast<std::size_t>(entry->kind);
    if (ns > 0) totals.ns[at] += ns;
    ++totals.threads[at];
  }
  return totals;
}

}  // namespace tsm::sim
