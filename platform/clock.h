// The wall clock behind the injected `IClock` interface.
//
// Threading: may be used from any thread.
#pragma once

#include "tradeslice/clock.h"

namespace tsm {

// The process's wall clock.
IClock& RealClock();

}  // namespace tsm
