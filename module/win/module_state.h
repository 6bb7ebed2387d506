// What keeps TradeSliceManager.dll loaded: live COM objects, class-object
// locks and module holds (DllCanUnloadNow), and the module's handle and path.
//
// Threading: the counts are atomic; any thread.
#pragma once

#include <windows.h>

#include <string>

#include "tradeslice/clock.h"

namespace tsm::module {

void ObjectCreated();
void ObjectDestroyed();
void ServerLock();
void ServerUnlock();
// S_OK only with no object alive, no lock held and no hold on the module
// (platform/module_hold.h: threads of the module, callbacks that outlive their
// object); S_FALSE otherwise.
HRESULT CanUnloadNow();

// The clock new objects are made with (null: the wall clock).
void SetClockForNewObjects(IClock* clock);
IClock* ClockForNewObjects();

void SetModuleHandle(HMODULE module);
HMODULE ModuleHandle();
std::wstring ModuleFileName();

}  // namespace tsm::module
