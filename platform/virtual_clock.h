// A clock for tests: time stands still until `Advance` moves it.
//
// `Advance(ms)` fires every timer expiry that falls due within the step, in
// time order (ties in arming order), and returns only when the callbacks it
// started have finished: the timer's thread has come back to its wait or has
// ended. Before each expiry it also runs the registered quiescers, so other
// event sources (the base-data component's event thread) drain first, and it
// waits for timers that were created but not yet armed by their thread. A
// test of ten-second timers thus runs in microseconds and always the same way.
//
// `Sleep` does not block: it only adds to `SleptMs()`, which tests read.
//
// Threading: any thread may read the clock, create and use timers. `Advance`
// must not be called from a timer callback, and the advancing thread must not
// hold a lock that a callback due in the step will wait for.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace tsm {

class VirtualClock final : public IClock {
 public:
  // `start_utc_ms`: milliseconds since 1970-01-01 UTC at which time starts.
  explicit VirtualClock(int64_t start_utc_ms = 0);
  ~VirtualClock() override;

  void Advance(int64_t ms);
  // Runs `quiesce` (outside the clock's lock) before every expiry and at the
  // end of each Advance.
  void AddQuiescer(std::function<void()> quiesce);
  // The local time zone's distance from UTC, for ToLocal/FromLocal.
  void SetLocalOffsetSeconds(int32_t seconds);
  int64_t SleptMs() const;
  // Timers armed and not yet expired (periodic ones count while armed).
  int ArmedTimerCount() const;
  // Returns when every timer created so far has been armed by its thread.
  // Ties are broken by arming order, so a host that waits here between its
  // steps makes that order its own. Not from a thread whose timer is pending.
  void WaitForArming();

  int64_t NowMs() override;
  int64_t UtcSeconds() override;
  void Sleep(int64_t ms) override;
  std::unique_ptr<ITimerWait> CreateTimerWait(const std::wstring& name) override;
  bool ToUtc(int64_t seconds, std::tm* out) override;
  bool ToLocal(int64_t seconds, std::tm* out) override;
  int64_t FromLocal(std::tm* in) override;

 private:
  class Timer;
  friend class Timer;

  void Quiesce();

  mutable std::mutex lock_;  // guards every member below
  std::condition_variable changed_;  // Advance and WaitForArming wait on it; timers have their own
  int64_t now_ms_;
  int64_t slept_ms_ = 0;
  int32_t local_offset_s_ = 0;
  uint64_t next_sequence_ = 0;
  std::vector<Timer*> timers_;
  std::vector<std::function<void()>> quiescers_;
};

}  // namespace tsm
