#include "module/win/type_info.h"

#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <string>

#include "module/win/module_state.h"
#include "platform/win/com_win.h"
#include "tradeslice/norda_host.h"

namespace tsm::module {

namespace {

platform::ComPtr<ITypeLib> LoadHostLibrary() {
  platform::ComPtr<ITypeLib> library;
  if (SUCCEEDED(LoadRegTypeLib(LIBID_NordaHostLib, 1, 0, LOCALE_NEUTRAL, library.Put()))) return library;
  const std::wstring embedded = ModuleFileName() + L"\\2";
  if (SUCCEEDED(LoadTypeLibEx(embedded.c_str(), REGKIND_NONE, library.Put()))) return library;
  return platform::ComPtr<ITypeLib>();
}

}  // namespace

ITypeInfo* HostManagerTypeInfo() {
  // Kept for the life of the process: the one reference here is never
  // released. Two threads that load at once keep the first.
  static std::atomic<ITypeInfo*> cached{nullptr};
  ITypeInfo* known = cached.load();
  if (known != nullptr) return known;
  platform::ComPtr<ITypeLib> library = LoadHostLibrary();
  if (!library) return nullptr;
  ITypeInfo* loaded = nullptr;
  if (FAILED(library->GetTypeInfoOfGuid(IID_INordaManager, &loaded))) return nullptr;
  if (!cached.compare_exchange_strong(known, loaded)) {
    loaded->Release();
    return known;
  }
  return loaded;
}

}  // namespace tsm::module
