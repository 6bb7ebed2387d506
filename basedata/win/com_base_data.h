// The automation objects of the component on Windows: each is a COM object
// with the dual interface IQXBaseData (IDispatch served from the embedded
// type library), a connection point for _IQXBaseDataEvents, and the
// free-threaded marshaler, over one object of the component (IBaseData).
// Objects cross threads through the standard global interface table.
//
// Threading: every method may be called from any thread (threading model
// "Both"); the object underneath serialises its own reads and writes.
// Events are raised on the component's event thread, which fetches each
// sink from the global interface table for every call.
#pragma once

#include <windows.h>
#include <objidl.h>

#include "basedata/win/qx_data.h"
#include "tradeslice/base_data_api.h"

namespace tsm::basedata {

// Makes a new automation object over `native` (which it keeps a reference
// on) and queries it for `iid`.
HRESULT CreateComBaseData(IBaseData* native, REFIID iid, void** out);

// The object of the component behind one of its automation objects, with a
// reference for the caller; null for any other COM object.
IBaseData* NativeOf(IUnknown* object);

// The process's standard global interface table (created once, kept).
::IGlobalInterfaceTable* ProcessInterfaceTable();

// Keeps the multithreaded apartment of the process alive from the first
// call on, so that threads that entered no apartment (the component's event
// thread among them) use it implicitly; pins this DLL in the process.
void EnsureProcessApartment();

// Automation objects and class-object locks alive (DllCanUnloadNow).
void ModuleLock();
void ModuleUnlock();
bool ModuleInUse();

// This DLL's module handle and full path.
HMODULE ComponentModule();

}  // namespace tsm::basedata
