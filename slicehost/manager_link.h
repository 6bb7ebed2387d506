// How the simulator obtains the slice manager it plays against. Through the
// factory export TsmCreateTradeSliceManager, or on Windows as the platform
// does it: both DLLs registered in the prefix, the class created by ProgID
// with CoCreateInstance, SetStage and SetTopic called through
// IDispatch::Invoke, and the host's sink advised as an IDispatch through
// IConnectionPointContainer. Either way the caller sees one INordaManager.
//
// Threading: as INordaManager; create and release on one thread.
#pragma once

#include <string>

#include "tradeslice/clock.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

enum class ManagerPath { Com, Factory };

// The path a run takes when nothing asks otherwise: COM where the system has
// it, the factory export elsewhere.
ManagerPath DefaultManagerPath();

// A manager with one reference for the caller, on `clock` (which must
// outlive it); null with `problem` set when it cannot be made.
INordaManager* CreateManager(IClock* clock, ManagerPath path, std::string* problem);

}  // namespace tsm::sim
