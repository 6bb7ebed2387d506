// Type information behind the object's IDispatch: INordaManager's, from the
// host's registered type library, loaded the first time it is needed. Where
// the host library is not registered, the copy this module carries
// (resource 2) serves.
//
// Threading: any thread; loaded once and kept for the process.
#pragma once

#include <oaidl.h>

namespace tsm::module {

// Null when neither library can be loaded.
ITypeInfo* HostManagerTypeInfo();

}  // namespace tsm::module
