// `CTimer`: numbered timers for one owner. Each armed timer has its own
// thread, waiting on "stop event or timer" from the injected clock, and calls
// the owner's callback on every expiry until it is stopped. The slice manager
// stops a timer in its callback, so each of its armings is a one-shot delay.
//
// Keys are "%x.%d" (low 32 bits of the instance address, timer id); the same
// text names the waitable timer.
//
// Threading: all methods may be called from any thread, including from a
// callback of the same timer (stop it, arm the same id again). The maps are
// guarded by one owner-tracked recursive mutex that is never held while a
// callback runs. Callbacks of different timers run concurrently.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "data/containers.h"
#include "platform/sync.h"
#include "tradeslice/clock.h"

namespace tsm {

using TimerCallback = void (*)(unsigned id, void* context);

class CTimer {
 public:
  // Timer threads reserve this much stack: 2,000 armed timers must fit in a
  // small resident footprint.
  static constexpr std::size_t kThreadStackBytes = 64 * 1024;
  static constexpr int kThreadAttempts = 6;
  static constexpr int64_t kThreadRetryMs = 10;

  // `clock` must outlive the timer; null means the wall clock.
  explicit CTimer(IClock* clock = nullptr);
  virtual ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // 0 when `id` is already armed on this instance (nothing changes); 1
  // otherwise, also when the thread could not be created (reported through
  // ReportThreadFailure).
  int StartTimer(unsigned id, int interval_ms, TimerCallback callback, void* context);
  // Stopping an id that is not armed does nothing.
  void StopTimer(unsigned id);
  // Forgets the retired entry of `id`; called by a finishing timer thread.
  void RemoveRetired(unsigned id);
  // "Win32 API function 'CreateThread' fails!..." as a modal message.
  void ReportThreadFailure(uint32_t error_code);

  // Stops every timer without calling back again, waits for callbacks running
  // on other threads to return, and refuses later arming. The owner calls it
  // before its own members go; the destructor calls it too.
  void Shutdown();

  // For tests and diagnostics.
  int ActiveCount();
  int RetiredCount();
  CString KeyFor(unsigned id) const;

 private:
  struct TimerEntry;
  static void TimerThreadProc(TimerEntry* entry);

  IClock& clock_;
  CMapStringToPtr m_mapActiveTimers;   // TimerKey -> TimerEntry*, armed timers
  CMapStringToPtr m_mapRetiredTimers;  // TimerKey -> TimerEntry*, stopped, thread finishing
  CMutex m_mutex;                      // guards both maps and shut_down_
  bool shut_down_ = false;
  struct Liveness;
  std::shared_ptr<Liveness> liveness_;  // lets finishing threads tell whether the owner is gone
};

}  // namespace tsm
