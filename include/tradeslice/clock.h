// The clock a host hands to the component. Every wait, sleep and reading of
// the time of day in the component goes through it, so that a host (or a
// test) can run the component on a virtual clock and move time itself.
//
// Threading: `IClock` methods may be called from any thread. An `ITimerWait`
// is armed and waited on by one thread (the timer's own) and stopped from any.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace tsm {

// A waitable timer paired with its stop event: what a timer thread waits on.
// Expiries are auto-reset, and so is the stop event.
class ITimerWait {
 public:
  virtual ~ITimerWait() = default;
  // First expiry after due_ms, then every period_ms (0: once). A negative
  // period is refused, as the kernel's waitable timer refuses it: the timer
  // stays as it was (never armed, for a new one) and does not expire.
  virtual void Arm(int64_t due_ms, int64_t period_ms) = 0;
  // Sets the stop event.
  virtual void SignalStop() = 0;
  // Waits without limit for the stop event (returns 0; it wins a tie) or an
  // expiry (returns 1).
  virtual int Wait() = 0;
};

class IClock {
 public:
  virtual ~IClock() = default;
  // Milliseconds on a monotonic scale, for intervals.
  virtual int64_t NowMs() = 0;
  // Seconds since 1970-01-01 UTC (the C runtime's _time64).
  virtual int64_t UtcSeconds() = 0;
  virtual void Sleep(int64_t ms) = 0;
  // `name` names the kernel object where the platform has named timers.
  virtual std::unique_ptr<ITimerWait> CreateTimerWait(const std::wstring& name) = 0;
  // Calendar breakdown in UTC or in the local time zone; false when the time
  // cannot be represented.
  virtual bool ToUtc(int64_t seconds, std::tm* out) = 0;
  virtual bool ToLocal(int64_t seconds, std::tm* out) = 0;
  // Inverse of ToLocal (the C runtime's mktime); -1 when it fails.
  virtual int64_t FromLocal(std::tm* in) = 0;
};

}  // namespace tsm
