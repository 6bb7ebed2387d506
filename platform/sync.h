// Synchronisation primitives of the component: the owner-tracked recursive
// mutex (`CMutex`), the critical section (`CCriticalSection`), events, and
// scoped guards for them.
//
// Threading: every type here is safe to use from any thread. `CMutex` is the
// kernel-mutex kind: the owning thread may re-enter it, an unlock from a
// thread that does not own it does nothing, and a lock taken in one call may be
// released in a later call on the same thread (the host's order-set lock spans
// two of its calls). None of these types can be copied.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace tsm {

class CMutex {
 public:
  CMutex() = default;
  CMutex(const CMutex&) = delete;
  CMutex& operator=(const CMutex&) = delete;

  // Waits without limit; re-entrant for the owning thread.
  void Lock();
  // Releases one level of ownership. Returns false (and does nothing) when the
  // calling thread does not own the mutex.
  bool Unlock();
  // Ownership levels held by the calling thread (0 when another thread or no
  // thread owns it). For tests and assertions.
  int LevelsHeldByCaller() const;
  // Threads blocked in Lock, waiting for the owner to let go. A test reads it
  // to know that another thread is stuck on this mutex, without waiting.
  int Waiting() const;

 private:
  // Only the owning thread can find its own id here, so it re-enters and
  // releases inner levels without taking state_lock_; taking the mutex from
  // no owner and giving it back to none go through state_lock_.
  std::atomic<std::thread::id> owner_{};
  // Touched only by the owning thread; handed on through state_lock_.
  int depth_ = 0;
  mutable std::mutex state_lock_;  // guards waiting_ and every change of owner_ between no owner and an owner
  std::condition_variable released_;
  int waiting_ = 0;
};

// Recursive critical section; unlike CMutex it must be released by its owner.
class CCriticalSection {
 public:
  CCriticalSection() = default;
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;
  bool Lock() {
    if (!lock_.try_lock()) {
      waiting_.fetch_add(1);
      lock_.lock();
      waiting_.fetch_sub(1);
    }
    return true;
  }
  bool Unlock() { lock_.unlock(); return true; }
  // Threads that found the section taken and wait in Lock. A test reads it to
  // know that another thread is stuck here, without waiting.
  int Waiting() const { return waiting_.load(); }

 private:
  std::recursive_mutex lock_;
  std::atomic<int> waiting_{0};
};

// Manual- or auto-reset event. Waits are measured on the wall clock: they are
// safety bounds, not scheduled work.
class CEvent {
 public:
  CEvent(bool manual_reset, bool initially_signalled)
      : manual_reset_(manual_reset), signalled_(initially_signalled) {}
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  void Set();
  void Reset();
  // Returns true when signalled, false on time-out. A negative timeout waits
  // without limit. An auto-reset event is reset by the wait that takes it.
  bool Wait(int64_t timeout_ms = -1);
  // Whether the event is signalled now. A waiter on an event that is not
  // signalled cannot go on until someone sets it.
  bool IsSignalled() const;

 private:
  mutable std::mutex lock_;  // guards signalled_
  std::condition_variable cv_;
  const bool manual_reset_;
  bool signalled_;
};

// Holds a lock for one scope. Works with CMutex and CCriticalSection.
template <typename Lockable>
class ScopedLock {
 public:
  explicit ScopedLock(Lockable& lockable) : lockable_(lockable) { lockable_.Lock(); }
  ~ScopedLock() { lockable_.Unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Lockable& lockable_;
};

}  // namespace tsm
