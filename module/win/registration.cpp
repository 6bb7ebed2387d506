#include "module/win/registration.h"

#include <oleauto.h>

#include <cwchar>
#include <string>
#include <utility>

#include "module/win/module_guids.h"
#include "module/win/module_state.h"
#include "platform/win/com_win.h"

namespace tsm::module {

namespace {

// One open registry key, closed with the owner.
class UniqueKey {
 public:
  UniqueKey() = default;
  ~UniqueKey() {
    if (key_ != nullptr) RegCloseKey(key_);
  }
  UniqueKey(const UniqueKey&) = delete;
  UniqueKey& operator=(const UniqueKey&) = delete;
  HKEY* Put() { return &key_; }
  HKEY get() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

// The thread locale switched for the registration and restored after it.
class ThreadLocaleScope {
 public:
  ThreadLocaleScope() : saved_(GetThreadLocale()) { SetThreadLocale(LOCALE_SYSTEM_DEFAULT); }
  ~ThreadLocaleScope() { SetThreadLocale(saved_); }
  ThreadLocaleScope(const ThreadLocaleScope&) = delete;
  ThreadLocaleScope& operator=(const ThreadLocaleScope&) = delete;

 private:
  LCID saved_;
};

// Where the class keys go.
struct ClassesRoot {
  HKEY hive;
  std::wstring prefix;
};

ClassesRoot RootFor(bool per_user) {
  if (per_user) return ClassesRoot{HKEY_CURRENT_USER, L"Software\\Classes\\"};
  return ClassesRoot{HKEY_CLASSES_ROOT, L""};
}

HRESULT FromStatus(LSTATUS status) { return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(status); }

// Creates `key` (and its parents) and sets its value `name` (null: the
// default value) to `value`, or leaves it without a value when `value` is null.
HRESULT WriteKey(const ClassesRoot& root, const std::wstring& key, const wchar_t* name, const wchar_t* value) {
  UniqueKey opened;
  const LSTATUS status = RegCreateKeyExW(root.hive, (root.prefix + key).c_str(), 0, nullptr, 0, KEY_SET_VALUE,
                                         nullptr, opened.Put(), nullptr);
  if (status != ERROR_SUCCESS) return FromStatus(status);
  if (value == nullptr) return S_OK;
  const DWORD bytes = static_cast<DWORD>((std::wcslen(value) + 1) * sizeof(wchar_t));
  return FromStatus(RegSetValueExW(opened.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), bytes));
}

// Removes `key` with everything under it; a key already gone is no failure.
HRESULT DeleteTree(const ClassesRoot& root, const std::wstring& key) {
  const LSTATUS status = RegDeleteTreeW(root.hive, (root.prefix + key).c_str());
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return FromStatus(status);
  const LSTATUS gone = RegDeleteKeyW(root.hive, (root.prefix + key).c_str());
  if (gone != ERROR_SUCCESS && gone != ERROR_FILE_NOT_FOUND) return FromStatus(gone);
  return S_OK;
}

std::wstring ClassKey() { return std::wstring(L"CLSID\\") + kClsidText; }

// The class script: both ProgIDs, and the CLSID key, which is ForceRemove
// (dropped before it is written) under the NoRemove CLSID parent.
HRESULT RunClassScript(const ClassesRoot& root, bool install) {
  const std::wstring progid = kProgId;
  const std::wstring independent = kVersionIndependentProgId;
  const std::wstring clsid = ClassKey();
  if (!install) {
    HRESULT result = DeleteTree(root, clsid);
    const HRESULT progid_result = DeleteTree(root, progid);
    const HRESULT independent_result = DeleteTree(root, independent);
    if (SUCCEEDED(result)) result = progid_result;
    if (SUCCEEDED(result)) result = independent_result;
    return result;
  }
  const std::wstring path = ModuleFileName();
  HRESULT result = WriteKey(root, progid, nullptr, kClassDescription);
  if (SUCCEEDED(result)) result = WriteKey(root, progid + L"\\CLSID", nullptr, kClsidText);
  if (SUCCEEDED(result)) result = WriteKey(root, independent, nullptr, kClassDescription);
  if (SUCCEEDED(result)) result = WriteKey(root, independent + L"\\CLSID", nullptr, kClsidText);
  if (SUCCEEDED(result)) result = WriteKey(root, independent + L"\\CurVer", nullptr, kProgId);
  if (SUCCEEDED(result)) result = DeleteTree(root, clsid);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid, nullptr, kClassDescription);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\ProgID", nullptr, kProgId);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\VersionIndependentProgID", nullptr, kVersionIndependentProgId);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\Programmable", nullptr, nullptr);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\InprocServer32", nullptr, path.c_str());
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\InprocServer32", L"ThreadingModel", L"Both");
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\TypeLib", nullptr, kLibidText);
  if (SUCCEEDED(result)) result = WriteKey(root, clsid + L"\\Version", nullptr, kTypeLibVersion);
  return result;
}

using RegisterForUser = HRESULT(WINAPI*)(ITypeLib*, OLECHAR*, OLECHAR*);
using UnregisterForUser = HRESULT(WINAPI*)(REFGUID, WORD, WORD, LCID, SYSKIND);

// The per-user type library functions of "OLEAUT32.DLL"; null where the
// system has none, and the machine-wide functions serve instead.
template <typename Function>
Function OleAutomationFunction(const char* name) {
  HMODULE oleaut = GetModuleHandleW(L"OLEAUT32.DLL");
  if (oleaut == nullptr) return nullptr;
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(oleaut, name)));
}

// Registers or removes the type library embedded in the module file.
HRESULT RunTypeLibrary(bool per_user, bool install) {
  const std::wstring path = ModuleFileName();
  platform::ComPtr<ITypeLib> library;
  HRESULT result = LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put());
  if (FAILED(result)) return result;
  if (install) {
    // Both registration calls take non-const texts.
    std::wstring writable_path = path;
    std::wstring help_dir = HelpDirectoryOf(path);
    RegisterForUser for_user = per_user ? OleAutomationFunction<RegisterForUser>("RegisterTypeLibForUser") : nullptr;
    if (for_user != nullptr) return for_user(library.get(), writable_path.data(), help_dir.data());
    return RegisterTypeLib(library.get(), writable_path.data(), help_dir.data());
  }
  TLIBATTR* attributes = nullptr;
  result = library->GetLibAttr(&attributes);
  if (FAILED(result)) return result;
  const TLIBATTR copy = *attributes;
  library->ReleaseTLibAttr(attributes);
  UnregisterForUser for_user =
      per_user ? OleAutomationFunction<UnregisterForUser>("UnRegisterTypeLibForUser") : nullptr;
  if (for_user != nullptr) {
    return for_user(copy.guid, copy.wMajorVerNum, copy.wMinorVerNum, copy.lcid, copy.syskind);
  }
  return UnRegisterTypeLib(copy.guid, copy.wMajorVerNum, copy.wMinorVerNum, copy.lcid, copy.syskind);
}

// The module's own block is an empty HKEY_CLASSES_ROOT block run with the
// APPID replacement: it writes and removes nothing. The class script and the
// type library follow; registration stops at the first failure.
HRESULT Run(bool per_user, bool install) {
  ThreadLocaleScope locale;
  const ClassesRoot root = RootFor(per_user);
  HRESULT result = RunClassScript(root, install);
  if (FAILED(result) && install) return result;
  const HRESULT library_result = RunTypeLibrary(per_user, install);
  return SUCCEEDED(result) ? library_result : result;
}

}  // namespace

std::wstring HelpDirectoryOf(const std::wstring& path) {
  const std::size_t cut = path.find_last_of(L"\\/:");
  if (cut == std::wstring::npos) return std::wstring();
  return path.substr(0, cut + 1);
}

HRESULT RegisterServer(bool per_user) { return Run(per_user, true); }

HRESULT UnregisterServer(bool per_user) { return Run(per_user, false); }

HRESULT InstallServer(BOOL install, const wchar_t* command_line) {
  const bool per_user = command_line != nullptr && _wcsnicmp(command_line, L"user", 5) == 0;
  if (!install) return UnregisterServer(per_user);
  const HRESULT result = RegisterServer(per_user);
  if (FAILED(result)) UnregisterServer(per_user);
  return result;
}

}  // namespace tsm::module
