// Resident memory of this process, for footprint figures (the timer service
// promises that thousands of armed timers stay small).
//
// Threading: may be called from any thread.
#pragma once

#include <cstdint>

namespace tsm {

// Bytes of the process's resident set (the working set on Windows); 0 when the
// system cannot tell.
int64_t ResidentBytes();

}  // namespace tsm
