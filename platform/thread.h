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
  [[maybe_unused]] bool entered_ = false;  // read only where there is COM
};

// Gives the pages of the calling thread's stack that lie more than
// `keep_bytes` below the caller's frame back to the system; they come back as
// zero pages if the stack grows into them again. Call it where nothing below
// the caller is still in use (at the top of a thread body): what lies there
// is dead. `keep_bytes` must hold the call itself (a few hundred bytes).
// Under Wine the start of every thread leaves about 964 KiB of its stack
// resident below the thread body, whatever the stack size; elsewhere there
// is nothing to give back and this does nothing.
void ReleaseStackBelowCaller(std::size_t keep_bytes);

// Test hook: while set, StartThread fails with this code instead of starting
// anything (0 restores normal behaviour).
void SetThreadStartFailureForTesting(uint32_t error_code);

}  // namespace tsm
