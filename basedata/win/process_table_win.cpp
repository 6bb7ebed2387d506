// The process's interface table on Windows: the standard global interface
// table of COM, holding the automation objects of the component. A cookie
// handed out here is a cookie of that table, so that any record or client in
// the process can open it under IQXBaseData.
#include <windows.h>

#include "basedata/win/com_base_data.h"
#include "platform/win/com_win.h"
#include "basedata/base_data_binding.h"

namespace tsm {

namespace {

using platform::ComPtr;

class ComInterfaceTable final : public IGlobalInterfaceTable {
 public:
  HResult RegisterInterfaceInGlobal(IBaseData* object, uint32_t* cookie) override {
    if (cookie == nullptr) return kE_INVALIDARG;
    *cookie = 0;
    ::IGlobalInterfaceTable* table = basedata::ProcessInterfaceTable();
    if (object == nullptr || table == nullptr) return kE_INVALIDARG;
    ComPtr<IQXBaseData> automation;
    HRESULT result = basedata::CreateComBaseData(object, IID_IQXBaseData, automation.PutVoid());
    if (FAILED(result)) return result;
    DWORD registered = 0;
    result = table->RegisterInterfaceInGlobal(automation.get(), IID_IQXBaseData, &registered);
    if (FAILED(result)) return result;
    *cookie = registered;
    return kS_OK;
  }

  // Only objects of this component come back; a foreign automation object
  // registered by someone else has no IBaseData behind it.
  HResult GetInterfaceFromGlobal(uint32_t cookie, IBaseData** object) override {
    if (object == nullptr) return kE_INVALIDARG;
    *object = nullptr;
    ::IGlobalInterfaceTable* table = basedata::ProcessInterfaceTable();
    if (table == nullptr) return kE_FAIL;
    ComPtr<IUnknown> automation;
    const HRESULT result = table->GetInterfaceFromGlobal(cookie, IID_IQXBaseData, automation.PutVoid());
    if (FAILED(result)) return result;
    *object = basedata::NativeOf(automation.get());
    return *object != nullptr ? kS_OK : kE_NOINTERFACE;
  }

  HResult RevokeInterfaceFromGlobal(uint32_t cookie) override {
    ::IGlobalInterfaceTable* table = basedata::ProcessInterfaceTable();
    if (table == nullptr) return kE_FAIL;
    return table->RevokeInterfaceFromGlobal(cookie);
  }
};

}  // namespace

extern "C" {

IGlobalInterfaceTable* TsmGetGlobalInterfaceTable() {
  static ComInterfaceTable* table = new ComInterfaceTable();  // reachable for the life of the process
  return table;
}

ComponentObject* TsmComponentObject(IBaseData* object) {
  IDispatch* automation = nullptr;
  if (object == nullptr) return nullptr;
  if (FAILED(basedata::CreateComBaseData(object, IID_IDispatch, reinterpret_cast<void**>(&automation)))) {
    return nullptr;
  }
  return automation;
}

}  // extern "C"

}  // namespace tsm
