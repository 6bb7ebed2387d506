// The in-process server exports of QX_DataBase64.dll: the class object of
// QXBaseData, unloading, and registration per machine (DllRegisterServer) or
// per user (DllInstall with "user"), type library included.
#include <windows.h>
#include <oleauto.h>
#include <olectl.h>

#include <atomic>
#include <cwchar>
#include <new>
#include <string>

#include "basedata/base_data_guids.h"
#include "basedata/base_data_object.h"
#include "basedata/create_failure.h"
#include "basedata/win/com_base_data.h"
#include "platform/win/com_win.h"

// In oleaut32 but not declared by mingw-w64's headers.
extern "C" {
HRESULT WINAPI RegisterTypeLibForUser(ITypeLib* library, OLECHAR* path, OLECHAR* help_dir);
HRESULT WINAPI UnRegisterTypeLibForUser(REFGUID libid, WORD major, WORD minor, LCID lcid, SYSKIND syskind);
}

namespace tsm::basedata {

namespace {

HMODULE g_module = nullptr;

// Stateless; lives as long as the DLL. Its references lock the module.
class ClassFactory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IClassFactory) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IClassFactory*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    ModuleLock();
    return refs_.fetch_add(1) + 1;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    ModuleUnlock();
    return refs_.fetch_sub(1) - 1;
  }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (outer != nullptr) return CLASS_E_NOAGGREGATION;
    if (TakeCreateFailure()) return E_FAIL;
    BaseDataObject* native = new (std::nothrow) BaseDataObject(std::wstring());
    if (native == nullptr) return E_OUTOFMEMORY;
    const HRESULT result = CreateComBaseData(native, iid, out);
    native->Release();
    return result;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      ModuleLock();
    } else {
      ModuleUnlock();
    }
    return S_OK;
  }

 private:
  std::atomic<ULONG> refs_{0};
};

ClassFactory g_factory;

std::wstring ModuleFileName() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(g_module, path, MAX_PATH);
  return std::wstring(path, length);
}

// Where the class keys go: HKEY_CLASSES_ROOT for the machine, the user's
// Software\Classes for one user.
struct ClassesRoot {
  HKEY hive;
  std::wstring prefix;
};

ClassesRoot RootFor(bool per_user) {
  if (per_user) return ClassesRoot{HKEY_CURRENT_USER, L"Software\\Classes\\"};
  return ClassesRoot{HKEY_CLASSES_ROOT, L""};
}

HRESULT SetText(const ClassesRoot& root, const std::wstring& key, const wchar_t* name, const std::wstring& value) {
  const LSTATUS status =
      RegSetKeyValueW(root.hive, (root.prefix + key).c_str(), name, REG_SZ, value.c_str(),
                      static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(status);
}

std::wstring ClassKey() { return std::wstring(L"CLSID\\") + kBaseDataClsidText; }

HRESULT Unregister(bool per_user) {
  const ClassesRoot root = RootFor(per_user);
  RegDeleteTreeW(root.hive, (root.prefix + ClassKey()).c_str());
  RegDeleteKeyW(root.hive, (root.prefix + ClassKey()).c_str());
  RegDeleteTreeW(root.hive, (root.prefix + kBaseDataProgId).c_str());
  RegDeleteKeyW(root.hive, (root.prefix + kBaseDataProgId).c_str());
  if (per_user) {
    UnRegisterTypeLibForUser(LIBID_QX_DataLib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
  } else {
    UnRegisterTypeLib(LIBID_QX_DataLib, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
  }
  return S_OK;
}

HRESULT Register(bool per_user) {
  const ClassesRoot root = RootFor(per_user);
  const std::wstring path = ModuleFileName();
  const std::wstring class_key = ClassKey();
  HRESULT result = SetText(root, class_key, nullptr, L"QX_Data BaseData");
  if (SUCCEEDED(result)) result = SetText(root, class_key + L"\\InprocServer32", nullptr, path);
  if (SUCCEEDED(result)) result = SetText(root, class_key + L"\\InprocServer32", L"ThreadingModel", L"Both");
  if (SUCCEEDED(result)) result = SetText(root, class_key + L"\\ProgID", nullptr, kBaseDataProgId);
  if (SUCCEEDED(result)) result = SetText(root, class_key + L"\\TypeLib", nullptr, kBaseDataLibidText);
  if (SUCCEEDED(result)) result = SetText(root, kBaseDataProgId, nullptr, L"QX_Data BaseData");
  if (SUCCEEDED(result)) result = SetText(root, std::wstring(kBaseDataProgId) + L"\\CLSID", nullptr, kBaseDataClsidText);
  if (SUCCEEDED(result)) {
    platform::ComPtr<ITypeLib> library;
    result = LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.Put());
    // Both registration calls take a non-const path.
    std::wstring writable = path;
    if (SUCCEEDED(result)) {
      result = per_user ? RegisterTypeLibForUser(library.get(), writable.data(), nullptr)
                        : RegisterTypeLib(library.get(), writable.data(), nullptr);
    }
  }
  if (FAILED(result)) {
    Unregister(per_user);
    return SELFREG_E_CLASS;
  }
  return S_OK;
}

}  // namespace

HMODULE ComponentModule() { return g_module; }

}  // namespace tsm::basedata

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    tsm::basedata::g_module = instance;
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (clsid != CLSID_QXBaseData) return CLASS_E_CLASSNOTAVAILABLE;
  tsm::basedata::EnsureProcessApartment();
  return tsm::basedata::g_factory.QueryInterface(iid, out);
}

STDAPI DllCanUnloadNow() { return tsm::basedata::ModuleInUse() ? S_FALSE : S_OK; }

STDAPI DllRegisterServer() { return tsm::basedata::Register(false); }

STDAPI DllUnregisterServer() { return tsm::basedata::Unregister(false); }

// "user" registers for the current user only; anything else for the machine.
STDAPI DllInstall(BOOL install, LPCWSTR command_line) {
  const bool per_user = command_line != nullptr && _wcsicmp(command_line, L"user") == 0;
  return install ? tsm::basedata::Register(per_user) : tsm::basedata::Unregister(per_user);
}

}  // extern "C"
