// Resident memory of this process, for footprint figures (the timer service
// promises that thousands of armed timers stay small), and the heap setting
// of a host process that allocates quickly from several threads.
//
// Threading: may be called from any thread.
#pragma once

#include <cstdint>

namespace tsm {

// Bytes of the process's resident set (the working set on Windows); 0 when the
// system cannot tell.
int64_t ResidentBytes();

// Lets the C library's heap grow in large steps. For a host process, once at
// start, before its threads: glibc otherwise grows each thread's arena a
// little at a time, and every step changes the page protection of the
// mapping, which stalls the other threads of the process. Does nothing where
// the heap has no such cost.
void GrowHeapInLargeSteps();

}  // namespace tsm
