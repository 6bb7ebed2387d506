// `CTimer`: numbered timers for one owner. Each armed timer has its own
// thread, waiting on "stop event or timer" from the injected clock, and calls
// the owner's callback on every expiry until it is stopped. The slice manager
// stops a timer in its callback, so each of its armings is a one-shot delay.
//
// Keys are "%x.%d" (low 32 bits of the instance address, timer id); the same
// text names the waitable timer.
//
// Threading: all methods may be called from any thread, including from a
// callback of the same timer (stop it, arm the same id again, shut the
// instance down). The maps are guarded by one owner-tracked recursive mutex
// that is never held while a callback runs. Callbacks of different timers run
// concurrently. A thread calls back only while its entry is armed, so an
// expiry that races a StopTimer is dropped.
//
// Lifetime: threads cannot be ended from outside, so `Shutdown` (and the
// destructor, which calls it) stops every timer and waits until every timer
// thread of the instance has let go of it; only the caller's own thread, when
// it is a timer thread of this instance, finishes later without touching the
// instance. After Shutdown, StartTimer returns 1 without arming anything.
// Shutdown must not be called while holding a lock that a callback waits for.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "data/containers.h"
#include "platform/sync.h"
#include "tradeslice/clock.h"

namespace tsm {

using TimerCallback = void (*)(unsigned id, void* context);

class CTimer {
 public:
  // Timer threads reserve this much stack. The deepest callback seen (the
  // slice manager's, through the simulated host, debug build) used 13.3 KiB;
  // the rest is room for the host's own code, which runs on this thread. A
  // smaller reservation saves no resident memory: only touched pages are
  // resident, and Wine reserves at least 1 MiB whatever is asked.
  static constexpr std::size_t kThreadStackBytes = 256 * 1024;
  // Stack a waiting timer thread keeps resident below its own frame, which
  // also holds the call that gives the rest back; the rest of what its start
  // touched goes back (a callback that goes deeper faults pages in again).
  static constexpr std::size_t kStackKeptBytes = 8 * 1024;
  static constexpr int kThreadAttempts = 6;
  static constexpr int64_t kThreadRetryMs = 10;

  // `clock` must outlive the timer; null means the wall clock.
  explicit CTimer(IClock* clock = nullptr);
  virtual ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // 0 when `id` is already armed on this instance (nothing changes); 1
  // otherwise, also when the thread could not be created (reported through
  // ReportThreadFailure) and after Shutdown (nothing is armed then).
  int StartTimer(unsigned id, int interval_ms, TimerCallback callback, void* context);
  // Stopping an id that is not armed does nothing.
  void StopTimer(unsigned id);
  // Forgets whatever retired entry `id` has. Finishing timer threads forget
  // only their own entry, so that a re-armed and stopped id keeps its newer one.
  void RemoveRetired(unsigned id);
  // "Win32 API function 'CreateThread' fails!..." as a modal message.
  void ReportThreadFailure(uint32_t error_code);
  // The text ReportThreadFailure shows; `system_text` empty: without the
  // description line.
  static CString ThreadFailureMessage(uint32_t error_code, const std::wstring& system_text);

  // Stops every timer without calling back again, waits for the timer threads
  // (callbacks included) on other threads to let go of the instance, and
  // refuses later arming. The owner calls it before its own members go; the
  // destructor calls it too.
  void Shutdown();

  // For tests and diagnostics.
  int ActiveCount();
  int RetiredCount();
  // Timer threads of this instance that are starting or still running.
  int ThreadCount() const;
  CString KeyFor(unsigned id) const;

 private:
  struct TimerEntry;
  struct Liveness;
  static void TimerThreadProc(TimerEntry* entry);
  // True while `entry` is the armed entry of its key.
  bool IsArmed(const TimerEntry* entry);
  // Removes `entry` from the retired map only if it is still the one there.
  void RemoveRetiredEntry(const TimerEntry* entry);

  IClock& clock_;
  CMapStringToPtr m_mapActiveTimers;   // TimerKey -> TimerEntry*, armed timers
  CMapStringToPtr m_mapRetiredTimers;  // TimerKey -> TimerEntry*, stopped, thread finishing
  CMutex m_mutex;                      // guards both maps and shut_down_
  bool shut_down_ = false;
  // Shared with every timer thread: lets them tell whether the instance is
  // gone, and lets Shutdown wait for them. Has its own lock (see Liveness).
  std::shared_ptr<Liveness> liveness_;
};

}  // namespace tsm
