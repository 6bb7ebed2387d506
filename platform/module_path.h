// Modules (the program and the shared libraries it has loaded): where the
// module holding a piece of code lies on disk, and loading a library by path
// to look up its entry points.
//
// Threading: all functions may be called from any thread. On Windows,
// `LoadModuleFromItsFolder` changes the process's current directory and DLL
// search directory for the duration of the load.
#pragma once

#include <string>

namespace tsm {

// The full file name of the module that holds `address` (a function or
// object of that module); empty when it cannot be told. On Windows the
// module is pinned in the process from then on.
std::wstring ModulePathContaining(const void* address);

// Loads the library at `path`. On Windows the library's folder is made the
// current directory and the DLL search directory while it loads, so that its
// own dependencies come from there; both are restored afterwards. Null when
// it cannot be loaded.
void* LoadModuleFromItsFolder(const std::wstring& path);

// The exported function `name` of a loaded module, or null.
void* ModuleEntryPoint(void* module, const char* name);

// Drops one load of the module.
void UnloadModule(void* module);

}  // namespace tsm
