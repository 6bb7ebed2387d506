// Benchmark support: threads that do nothing but wait on one shared event,
// made with the system's own thread call, to measure what a thread costs the
// process (the floor under the timer service's one thread per armed timer).
//
// Threading: one owner thread; the threads started only wait.
#pragma once

#include <cstddef>
#include <memory>

namespace tsm {

class BareThreads {
 public:
  BareThreads();
  // Lets every thread go and waits for them.
  ~BareThreads();
  BareThreads(const BareThreads&) = delete;
  BareThreads& operator=(const BareThreads&) = delete;

  // Starts `count` threads whose stacks reserve `stack_bytes` (0: the
  // default of the executable). With `release_stack`, each first gives back
  // what its start left resident on its stack (ReleaseStackBelowCaller).
  // Returns how many started.
  int Start(int count, std::size_t stack_bytes, bool release_stack);
  // Lets every thread go and waits until all have ended; later threads wait
  // again.
  void Join();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tsm
