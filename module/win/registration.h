// Registration of TradeSliceManager.dll, per machine (HKEY_CLASSES_ROOT) or
// per user (HKEY_CURRENT_USER\Software\Classes): the module's own block, the
// class keys and the type library, written and removed as the module's two
// registry scripts describe them.
//
// Threading: called by regsvr32 or an installer on one thread; the thread
// locale is switched to LOCALE_SYSTEM_DEFAULT for the call and restored.
#pragma once

#include <windows.h>

#include <string>

namespace tsm::module {

HRESULT RegisterServer(bool per_user);
HRESULT UnregisterServer(bool per_user);

// DllInstall: a command line of exactly "user" (any case) registers per user;
// a failed install is undone and its error returned.
HRESULT InstallServer(BOOL install, const wchar_t* command_line);

// The directory part of `path`: up to and including the last '\\', '/' or ':'.
std::wstring HelpDirectoryOf(const std::wstring& path);

}  // namespace tsm::module
