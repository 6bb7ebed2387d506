#include "slicehost/thread_cpu_ledger.h"

#include <gtest/gtest.h>

#include <thread>

namespace tsm::sim {
namespace {

// Work the optimiser cannot drop, so that the thread's clock moves.
uint64_t Burn() {
  volatile uint64_t sum = 0;
  const int64_t start = ThreadCpuClock::CurrentThreadNs();
  while (ThreadCpuClock::CurrentThreadNs() == start) {
    for (int i = 0; i < 100000; ++i) sum = sum + static_cast<uint64_t>(i);
  }
  return sum;
}

std::size_t At(ThreadClass kind) { return static_cast<std::size_t>(kind); }

// The ledger is one per process; each test uses classes the others leave
// alone and compares counts before and after.
TEST(ThreadCpuLedgerTest, EndedThreadLeavesItsOwnLastReading) {
  ThreadCpuLedger& ledger = ThreadCpuLedger::Instance();
  ledger.SetEnabled(true);
  const ThreadCpuLedger::Totals before = ledger.Read();
  std::thread worker([] {
    ThreadCpuLedger::Instance().Note(ThreadClass::kTimer);
    Burn();
  });
  worker.join();
  const ThreadCpuLedger::Totals after = ledger.Read();
  EXPECT_EQ(after.threads[At(ThreadClass::kTimer)], before.threads[At(ThreadClass::kTimer)] + 1);
  EXPECT_GT(after.ns[At(ThreadClass::kTimer)], before.ns[At(ThreadClass::kTimer)]);
  // Ended: reading again gives the same figure.
  EXPECT_EQ(ledger.Read().ns[At(ThreadClass::kTimer)], after.ns[At(ThreadClass::kTimer)]);
  ledger.SetEnabled(false);
}

TEST(ThreadCpuLedgerTest, LiveThreadIsReadThroughItsClockAndEntersOnce) {
  ThreadCpuLedger& ledger = ThreadCpuLedger::Instance();
  ledger.SetEnabled(true);
  const int before = ledger.Read().threads[At(ThreadClass::kHostLoop)];
  ledger.Note(ThreadClass::kHostLoop);
  ledger.Note(ThreadClass::kHostLoop);
  ledger.Note(ThreadClass::kEvent);  // entered already, under its first class
  const ThreadCpuLedger::Totals first = ledger.Read();
  EXPECT_EQ(first.threads[At(ThreadClass::kHostLoop)], before + 1);
  Burn();
  EXPECT_GT(ledger.Read().ns[At(ThreadClass::kHostLoop)], first.ns[At(ThreadClass::kHostLoop)]);
  ledger.SetEnabled(false);
}

TEST(ThreadCpuLedgerTest, ThreadsNotedWhileTheLedgerIsOffStayOut) {
  ThreadCpuLedger& ledger = ThreadCpuLedger::Instance();
  ledger.SetEnabled(false);
  const int before = ledger.Read().threads[At(ThreadClass::kDriver)];
  std::thread worker([] { ThreadCpuLedger::Instance().Note(ThreadClass::kDriver); });
  worker.join();
  EXPECT_EQ(ledger.Read().threads[At(ThreadClass::kDriver)], before);
}

}  // namespace
}  // namespace tsm::sim
