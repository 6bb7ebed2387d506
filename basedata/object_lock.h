// `ObjectLock`: the lock of one object of the component. Objects are read
// far more often than two threads meet on one, so an uncontended lock and
// unlock are one atomic instruction each, inline; a thread that finds the
// lock taken sleeps on the lock's condition variable until the holder lets
// go. (std::atomic's own wait is not used: where the platform has no futex,
// the standard library's emulation of it can miss a wake-up.)
// Not re-entrant. Meets the standard's Lockable (std::lock_guard).
//
// Threading: any thread may lock; only the holder unlocks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tsm::basedata {

class ObjectLock {
 public:
  ObjectLock() = default;
  ObjectLock(const ObjectLock&) = delete;
  ObjectLock& operator=(const ObjectLock&) = delete;

  void lock() {
    uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed)) {
      LockContended();
    }
  }

  bool try_lock() {
    uint32_t expected = kFree;
    return state_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
  }

  void unlock() {
    if (state_.exchange(kFree, std::memory_order_release) == kHeldWithSleepers) WakeOne();
  }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  // Held, and a thread may be asleep: the unlock wakes one.
  static constexpr uint32_t kHeldWithSleepers = 2;

  // Marks the lock as slept on and sleeps until it is free. A thread that
  // takes it this way keeps the mark, since others may still be asleep. The
  // mark is set under sleep_lock_, which the waking thread takes before it
  // notifies: no thread is between its mark and its sleep at that moment.
  void LockContended() {
    std::unique_lock<std::mutex> guard(sleep_lock_);
    while (state_.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) wake_.wait(guard);
  }

  void WakeOne() {
    { std::lock_guard<std::mutex> guard(sleep_lock_); }
    wake_.notify_one();
  }

  std::atomic<uint32_t> state_{kFree};
  std::mutex sleep_lock_;             // guards the step from marking to sleeping
  std::condition_variable wake_;      // signalled once per unlock of a marked lock
};

}  // namespace tsm::basedata
