// The CPU-time clock of a thread: how much processor time the thread itself
// has used, read through a clock the thread hands out so that another thread
// can read it while it runs.
//
// Threading: `OfCurrentThread` on the thread to be measured; `ReadNs` from any
// thread.
#pragma once

#include <cstdint>
#include <memory>

namespace tsm {

class ThreadCpuClock {
 public:
  // The clock of the calling thread.
  static ThreadCpuClock OfCurrentThread();
  // The calling thread's CPU time in nanoseconds; -1 when the system cannot
  // tell.
  static int64_t CurrentThreadNs();

  ThreadCpuClock();
  ~ThreadCpuClock();
  ThreadCpuClock(ThreadCpuClock&&) noexcept;
  ThreadCpuClock& operator=(ThreadCpuClock&&) noexcept;

  // The thread's CPU time in nanoseconds; -1 once the thread has ended where
  // the system forgets an ended thread's clock, or when it cannot tell.
  int64_t ReadNs() const;

 private:
  struct Native;
  std::unique_ptr<Native> native_;
};

}  // namespace tsm
