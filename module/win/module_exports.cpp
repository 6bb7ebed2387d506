// The in-process server exports of TradeSliceManager.dll: the cached class
// object of TradeSliceManager, unloading, and registration per machine
// (DllRegisterServer) or per user (DllInstall "user").
#include <windows.h>
#include <olectl.h>

#include <atomic>
#include <new>

#include "module/win/com_trade_slice_manager.h"
#include "module/win/module_state.h"
#include "module/win/object_clock.h"
#include "module/win/qx_trade_slice_manager.h"
#include "module/win/registration.h"

namespace tsm::module {

namespace {

// One for the module's life. Its own references do not keep the module:
// LockServer does, as do the objects it makes.
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
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
    return CreateTradeSliceManager(outer, iid, out, ClockForNewObjects());
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
    if (lock) {
      ServerLock();
    } else {
      ServerUnlock();
    }
    return S_OK;
  }

 private:
  std::atomic<ULONG> refs_{0};
};

ClassFactory g_factory;

}  // namespace

// Runs one export; no C++ exception goes back to the caller.
template <typename Body>
HRESULT Guarded(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

}  // namespace tsm::module

extern "C" {

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    tsm::module::SetModuleHandle(instance);
    DisableThreadLibraryCalls(instance);
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (clsid != CLSID_TradeSliceManager) return CLASS_E_CLASSNOTAVAILABLE;
  return tsm::module::g_factory.QueryInterface(iid, out);
}

void TsmSetClockForNewObjects(tsm::IClock* clock) { tsm::module::SetClockForNewObjects(clock); }

STDAPI DllCanUnloadNow() { return tsm::module::CanUnloadNow(); }

STDAPI DllRegisterServer() {
  return tsm::module::Guarded([] { return tsm::module::RegisterServer(false); });
}

STDAPI DllUnregisterServer() {
  return tsm::module::Guarded([] { return tsm::module::UnregisterServer(false); });
}

STDAPI DllInstall(BOOL install, LPCWSTR command_line) {
  return tsm::module::Guarded([&] { return tsm::module::InstallServer(install, command_line); });
}

}  // extern "C"
