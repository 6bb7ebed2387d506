// Detached threads with a chosen stack size, and the thread's COM apartment.
//
// Threading: `StartThread` may be called from any thread; the body runs on
// the new thread, which nothing joins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tsm {

// Starts `body` on a new detached thread whose stack reserves `stack_bytes`
// (0: the platform default). Returns 0 on success, otherwise the system's
// error code for the failure. The thread holds this module (module_hold.h)
// until it has left the module's code; on Windows it also keeps a reference
// to the module's image, let go of as it exits.
uint32_t StartThread(std::function<void()> body, std::size_t stack_bytes);

// Enters the multithreaded COM apartment for the current thread's lifetime
// where the platform has COM; nothing elsewhere.
class ComApartment {
 public:
  ComApartment();
  ~ComApartment();
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;

 private:
  bool entered_ = false;
};

// Test hook: while set, StartThread fails with this code instead of starting
// anything (0 restores normal behaviour).
void SetThreadStartFailureForTesting(uint32_t error_code);

}  // namespace tsm
