#include <windows.h>

#include <string>

#include "platform/module_path.h"

namespace tsm {

namespace {

constexpr DWORD kPathChars = 260;
constexpr DWORD kDirectoryChars = 256;

}  // namespace

std::wstring ModulePathContaining(const void* address) {
  // Without GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT: the reference taken
  // here is never given back, which keeps the module loaded for good.
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, static_cast<LPCWSTR>(address), &module)) {
    return std::wstring();
  }
  wchar_t buffer[kPathChars] = {};
  const DWORD length = GetModuleFileNameW(module, buffer, kPathChars);
  return std::wstring(buffer, length);
}

void* LoadModuleFromItsFolder(const std::wstring& path) {
  wchar_t saved_current[kDirectoryChars] = {};
  wchar_t saved_dll[kDirectoryChars] = {};
  GetCurrentDirectoryW(kDirectoryChars, saved_current);
  GetDllDirectoryW(kDirectoryChars, saved_dll);

  const std::size_t slash = path.rfind(L'\\');
  if (slash != std::wstring::npos) {
    const std::wstring folder = path.substr(0, slash + 1);
    SetCurrentDirectoryW(folder.c_str());
    SetDllDirectoryW(folder.c_str());
  }
  HMODULE module = LoadLibraryW(path.c_str());

  SetCurrentDirectoryW(saved_current);
  SetDllDirectoryW(saved_dll[0] != L'\0' ? saved_dll : nullptr);
  return reinterpret_cast<void*>(module);
}

void* ModuleEntryPoint(void* module, const char* name) {
  if (module == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

void UnloadModule(void* module) {
  if (module != nullptr) FreeLibrary(static_cast<HMODULE>(module));
}

}  // namespace tsm
