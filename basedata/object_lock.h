// `ObjectLock`: the lock of one object of the component. Objects are read
// far more often than two threads meet on one, so an uncontended lock and
// unlock are one atomic instruction each, inline; a thread that finds the
// lock taken sleeps on its word (std::atomic wait) until the holder lets go.
// Not re-entrant. Meets the standard's Lockable (std::lock_guard).
//
// Threading: any thread may lock; only the holder unlocks.
#pragma once

#include <atomic>
#include <cstdint>

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
    if (state_.exchange(kFree, std::memory_order_release) == kHeldWithSleepers) state_.notify_one();
  }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  // Held, and a thread may be asleep on the word: the unlock wakes one.
  static constexpr uint32_t kHeldWithSleepers = 2;

  // Marks the lock as slept on and sleeps until it is free. A thread that
  // takes it this way keeps the mark, since others may still be asleep.
  void LockContended() {
    while (state_.exchange(kHeldWithSleepers, std::memory_order_acquire) != kFree) {
      state_.wait(kHeldWithSleepers, std::memory_order_relaxed);
    }
  }

  std::atomic<uint32_t> state_{kFree};
};

}  // namespace tsm::basedata
