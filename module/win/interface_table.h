// The process's standard global interface table, as TradeSliceManager.dll
// uses it for the host's event sinks. Created on first use and kept.
//
// Threading: any thread in an apartment. Null when the table cannot be
// made (the calling thread is in no apartment).
#pragma once

#include <objidl.h>

namespace tsm::module {

::IGlobalInterfaceTable* ProcessInterfaceTable();

}  // namespace tsm::module
