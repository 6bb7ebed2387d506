// The clock of the objects TradeSliceManager.dll creates through COM. A
// platform never sets it (the objects run on the wall clock); the host
// simulator sets its virtual clock before CoCreateInstance, so that a run
// through COM keeps the same time as one through the factory export.
//
// Threading: any thread; objects take the clock set when they are created.
#pragma once

#include "tradeslice/clock.h"
#include "tradeslice/export.h"

extern "C" {

// `clock` (null: the wall clock) must outlive every object created after.
TSM_COMPONENT_API void TsmSetClockForNewObjects(tsm::IClock* clock);

}  // extern "C"
