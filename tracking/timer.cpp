#include "tracking/timer.h"

#include <condition_variable>
#include <mutex>
#include <vector>

#include "platform/clock.h"
#include "platform/system_text.h"
#include "platform/thread.h"

namespace tsm {

// What a timer thread and Shutdown share. It outlives the instance, so that a
// thread still finishing after Shutdown can see that the instance is gone.
struct CTimer::Liveness {
  mutable std::mutex lock;  // guards threads, shutting_down_timer_threads and gone
  std::condition_variable changed;
  // Threads being started or running; each has let go of the instance once
  // it is no longer counted.
  int threads = 0;
  // Timer threads of this instance that are inside Shutdown: they cannot end
  // while they wait, so the wait does not count them.
  int shutting_down_timer_threads = 0;
  // Shutdown is complete; the instance may already be destroyed.
  bool gone = false;

  bool Gone() const {
    std::lock_guard<std::mutex> guard(lock);
    return gone;
  }
  void ThreadEnded() {
    std::lock_guard<std::mutex> guard(lock);
    --threads;
    changed.notify_all();
  }
};

// One arming of one id. Owned by its thread once the thread runs; by
// StartTimer until then.
struct CTimer::TimerEntry {
  unsigned id = 0;
  CString key;
  // Stop event and waitable timer. Shared so that StopTimer can signal after
  // unlocking even if a failed StartTimer frees the entry meanwhile.
  std::shared_ptr<ITimerWait> wait;
  void* context = nullptr;
  TimerCallback callback = nullptr;
  CTimer* owner = nullptr;
  int interval = 0;
  std::shared_ptr<Liveness> liveness;
};

namespace {
// The liveness block of the instance whose timer thread this is, so that
// Shutdown called from a callback does not wait for its own thread.
thread_local const void* t_timer_thread_of = nullptr;
}  // namespace

CTimer::CTimer(IClock* clock)
    : clock_(clock != nullptr ? *clock : RealClock()), liveness_(std::make_shared<Liveness>()) {}

CTimer::~CTimer() { Shutdown(); }

CString CTimer::KeyFor(unsigned id) const {
  // "%x.%d" of the instance's low 32 bits and the id, written without a
  // format: every arming and stop of a timer makes its key.
  uint32_t instance = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this));
  const int32_t signed_id = static_cast<int32_t>(id);
  uint32_t magnitude = signed_id < 0 ? 0u - static_cast<uint32_t>(signed_id) : static_cast<uint32_t>(signed_id);
  wchar_t key[24];
  wchar_t* const end = key + 24;
  wchar_t* p = end;
  do {
    *--p = static_cast<wchar_t>(L'0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (signed_id < 0) *--p = L'-';
  *--p = L'.';
  do {
    *--p = L"0123456789abcdef"[instance & 0xF];
    instance >>= 4;
  } while (instance != 0);
  return CString(p, static_cast<std::size_t>(end - p));
}

int CTimer::StartTimer(unsigned id, int interval_ms, TimerCallback callback, void* context) {
  const CString key = KeyFor(id);
  TimerEntry* entry = nullptr;
  {
    ScopedLock<CMutex> guard(m_mutex);
    if (shut_down_) return 1;
    if (m_mapActiveTimers.Contains(key)) return 0;
    entry = new TimerEntry;
    entry->id = id;
    entry->key = key;
    entry->wait = clock_.CreateTimerWait(key.wstr());
    entry->context = context;
    entry->callback = callback;
    entry->owner = this;
    entry->interval = interval_ms;
    entry->liveness = liveness_;
    m_mapActiveTimers.SetAt(key, entry);
    // Counted before it exists, so that Shutdown also waits for a thread
    // that is still being started.
    std::lock_guard<std::mutex> live(liveness_->lock);
    ++liveness_->threads;
  }

  uint32_t error = 0;
  for (int attempt = 0; attempt < kThreadAttempts; ++attempt) {
    if (attempt > 0) clock_.Sleep(kThreadRetryMs);
    error = StartThread([entry] { TimerThreadProc(entry); }, kThreadStackBytes);
    if (error == 0) return 1;
  }

  {
    // Someone may have stopped this arming and armed the id anew meanwhile:
    // only this entry is removed.
    ScopedLock<CMutex> guard(m_mutex);
    void* armed = nullptr;
    if (m_mapActiveTimers.Lookup(key, armed) && armed == entry) m_mapActiveTimers.RemoveKey(key);
  }
  RemoveRetiredEntry(entry);
  delete entry;
  liveness_->ThreadEnded();
  ReportThreadFailure(error);
  return 1;
}

void CTimer::StopTimer(unsigned id) {
  const CString key = KeyFor(id);
  std::shared_ptr<ITimerWait> wait;
  {
    ScopedLock<CMutex> guard(m_mutex);
    void* value = nullptr;
    if (!m_mapActiveTimers.Lookup(key, value)) return;
    m_mapActiveTimers.RemoveKey(key);
    m_mapRetiredTimers.SetAt(key, value);
    wait = static_cast<TimerEntry*>(value)->wait;
  }
  wait->SignalStop();
}

void CTimer::RemoveRetired(unsigned id) {
  ScopedLock<CMutex> guard(m_mutex);
  m_mapRetiredTimers.RemoveKey(KeyFor(id));
}

void CTimer::RemoveRetiredEntry(const TimerEntry* entry) {
  ScopedLock<CMutex> guard(m_mutex);
  void* retired = nullptr;
  if (m_mapRetiredTimers.Lookup(entry->key, retired) && retired == entry) m_mapRetiredTimers.RemoveKey(entry->key);
}

bool CTimer::IsArmed(const TimerEntry* entry) {
  ScopedLock<CMutex> guard(m_mutex);
  void* armed = nullptr;
  return m_mapActiveTimers.Lookup(entry->key, armed) && armed == entry;
}

CString CTimer::ThreadFailureMessage(uint32_t error_code, const std::wstring& system_text) {
  if (system_text.empty()) {
    return CString::Formatted(L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : %d", error_code);
  }
  return CString::Formatted(L"Win32 API function 'CreateThread' fails!\r\n\r\nErrorCode : %d\r\nDecription : %s",
                            error_code, system_text);
}

void CTimer::ReportThreadFailure(uint32_t error_code) {
  ShowFailureMessage(ThreadFailureMessage(error_code, SystemErrorText(error_code)).wstr());
}

void CTimer::TimerThreadProc(TimerEntry* entry) {
  if (entry == nullptr) return;
  const std::shared_ptr<Liveness> liveness = entry->liveness;
  t_timer_thread_of = liveness.get();
  {
    ComApartment apartment;
    ITimerWait& wait = *entry->wait;
    wait.Arm(entry->interval, entry->interval);
    // Most armed timers only wait: what starting the thread left resident
    // below this frame goes back before the first wait (see kStackKeptBytes).
    ReleaseStackBelowCaller(kStackKeptBytes);
    // Anything but the stop event calls back, a failed wait included.
    while (wait.Wait() != 0) {
      // Once Shutdown has finished (called from this thread's own callback)
      // the instance may be gone: only the stop, already signalled, is left.
      if (liveness->Gone()) continue;
      if (!entry->owner->IsArmed(entry)) continue;
      try {
        entry->callback(entry->id, entry->context);
      } catch (...) {
        // The owner's failure must not end its timer.
      }
    }
    if (!liveness->Gone()) entry->owner->RemoveRetiredEntry(entry);
    delete entry;
  }
  t_timer_thread_of = nullptr;
  liveness->ThreadEnded();
}

void CTimer::Shutdown() {
  std::vector<std::shared_ptr<ITimerWait>> to_stop;
  {
    ScopedLock<CMutex> guard(m_mutex);
    shut_down_ = true;
    m_mapActiveTimers.ForEach([this, &to_stop](const CString& key, void* value) {
      m_mapRetiredTimers.SetAt(key, value);
      to_stop.push_back(static_cast<TimerEntry*>(value)->wait);
    });
    m_mapActiveTimers.RemoveAll();
  }
  for (auto& wait : to_stop) wait->SignalStop();

  // Not under m_mutex: the threads waited for need it to finish, and a
  // callback may be stopping its own timer right now.
  const bool on_own_timer_thread = t_timer_thread_of == liveness_.get();
  {
    std::unique_lock<std::mutex> live(liveness_->lock);
    if (on_own_timer_thread) ++liveness_->shutting_down_timer_threads;
    liveness_->changed.wait(live, [this] { return liveness_->threads <= liveness_->shutting_down_timer_threads; });
    if (on_own_timer_thread) --liveness_->shutting_down_timer_threads;
    liveness_->gone = true;
  }

  // What is left belongs to this very thread, which will not report back.
  ScopedLock<CMutex> guard(m_mutex);
  m_mapRetiredTimers.RemoveAll();
}

int CTimer::ActiveCount() {
  ScopedLock<CMutex> guard(m_mutex);
  return m_mapActiveTimers.GetCount();
}

int CTimer::RetiredCount() {
  ScopedLock<CMutex> guard(m_mutex);
  return m_mapRetiredTimers.GetCount();
}

int CTimer::ThreadCount() const {
  std::lock_guard<std::mutex> guard(liveness_->lock);
  return liveness_->threads;
}

}  // namespace tsm
