// The slice manager as a COM object: the creatable class TradeSliceManager
// of TradeSliceManager.dll. It answers for ITradeSliceManager (dual, no
// members of its own), the host's dual INordaManager (SetStage, SetTopic) and
// IConnectionPointContainer over two points: _ITradeSliceManagerEvents (never
// raised) and _INordaManagerEvents, through which the manager core's four
// events reach the host's sinks by IDispatch::Invoke. IDispatch itself is
// INordaManager's, so that script clients reach SetStage and SetTopic.
//
// Instances are made plainly or inside an aggregate; reference counts are
// atomic. No C++ exception leaves a method.
//
// Threading: threading model "Both": every method from any thread.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include "tradeslice/clock.h"

namespace tsm::module {

// Creates an object (inside `outer` when not null; then `iid` must be
// IID_IUnknown) and queries it for `iid`. `clock` (null: the wall clock)
// must outlive the object.
HRESULT CreateTradeSliceManager(IUnknown* outer, REFIID iid, void** out, IClock* clock = nullptr);

}  // namespace tsm::module
