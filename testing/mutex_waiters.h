// Test support: waits until another thread is blocked on a CMutex or a
// CCriticalSection, so that a test shows a thread is stuck by the lock's own
// count of waiters instead of letting time pass.
//
// Threading: called on the test's thread while other threads take the lock.
#pragma once

#include <atomic>
#include <thread>

#include "platform/sync.h"

namespace tsm {

// Yields until a thread waits in `lock.Lock()`. Returns false when `give_up`
// becomes true first (the thread got past the point the test expected it to
// stop at) or after a generous bound.
template <typename Lockable>
bool WaitForWaiter(const Lockable& lock, const std::atomic<bool>* give_up = nullptr) {
  for (long i = 0; i < 50000000; ++i) {
    if (lock.Waiting() > 0) return true;
    if (give_up != nullptr && give_up->load()) return false;
    std::this_thread::yield();
  }
  return lock.Waiting() > 0;
}

}  // namespace tsm
