// What a record's calls cost under COM, piece by piece: the global
// interface table's creation and a register/get/revoke on it, and one
// Invoke of the read method, for comparison with the record's own figures.
#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <benchmark/benchmark.h>

#include "platform/win/com_win.h"
#include "tradeslice/base_data_binding.h"

namespace tsm {
namespace {

using platform::ComPtr;

// An object of the component with one field, as its automation object.
class AutomationObject {
 public:
  AutomationObject() {
    TsmField field{L"OrderQty", Variant::I4(1500)};
    native_ = TsmCreateBaseDataWithFields(L"Order", &field, 1);
    dispatch_ = ComPtr<IDispatch>::Attach(TsmComponentObject(native_));
  }
  ~AutomationObject() {
    dispatch_.Reset();
    native_->Release();
  }
  IDispatch* get() const { return dispatch_.get(); }

 private:
  IBaseData* native_;
  ComPtr<IDispatch> dispatch_;
};

const IID& ComponentIid() {
  static const IID iid = [] {
    IID parsed = GUID_NULL;
    CLSIDFromString(L"{97317107-0418-4767-A4E5-FF14228A6FAF}", &parsed);
    return parsed;
  }();
  return iid;
}

void BM_ComInterfaceTableCreate(benchmark::State& state) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  for (auto _ : state) {
    ComPtr<::IGlobalInterfaceTable> table;
    CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER, IID_IGlobalInterfaceTable,
                     table.PutVoid());
    benchmark::DoNotOptimize(table.get());
  }
}
BENCHMARK(BM_ComInterfaceTableCreate);

void BM_ComInterfaceTableRegisterGetRevoke(benchmark::State& state) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  AutomationObject object;
  ComPtr<::IGlobalInterfaceTable> table;
  CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER, IID_IGlobalInterfaceTable,
                   table.PutVoid());
  for (auto _ : state) {
    DWORD cookie = 0;
    table->RegisterInterfaceInGlobal(object.get(), ComponentIid(), &cookie);
    ComPtr<IDispatch> fetched;
    table->GetInterfaceFromGlobal(cookie, ComponentIid(), fetched.PutVoid());
    benchmark::DoNotOptimize(fetched.get());
    table->RevokeInterfaceFromGlobal(cookie);
  }
}
BENCHMARK(BM_ComInterfaceTableRegisterGetRevoke);

// One read by name (DISPID 5, kind 3) straight through Invoke.
void BM_ComInvokeReadByName(benchmark::State& state) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  AutomationObject object;
  platform::UniqueBstr name(L"OrderQty");
  for (auto _ : state) {
    VARIANTARG args[2];
    VariantInit(&args[0]);
    args[0].vt = VT_BSTR;
    args[0].bstrVal = name.get();
    VariantInit(&args[1]);
    args[1].vt = VT_I4;
    args[1].lVal = 3;
    DISPPARAMS params = {args, nullptr, 2, 0};
    platform::UniqueVariant result;
    object.get()->Invoke(5, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, result.get(), nullptr,
                         nullptr);
    benchmark::DoNotOptimize(result.value().lVal);
  }
}
BENCHMARK(BM_ComInvokeReadByName);

}  // namespace
}  // namespace tsm
