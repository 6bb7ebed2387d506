// The cost of the COM surface under Wine: SetTopic through IDispatch::Invoke
// against the same call on the manager core, and one event raise through
// the global interface table and Invoke, to a plain sink and to one that
// aggregates the free-threaded marshaler. Items are calls.
#include <windows.h>
#include <oleauto.h>
#include <ocidl.h>

#include <atomic>

#include <benchmark/benchmark.h>

#include "manager/trade_slice_manager.h"
#include "module/win/qx_trade_slice_manager.h"
#include "module/win/event_bridge.h"
#include "module/win/sink_point.h"
#include "platform/thread.h"
#include "platform/win/com_win.h"
#include "tradeslice/norda_host.h"

namespace tsm::module {
namespace {

using platform::ComPtr;
using platform::UniqueBstr;

// A sink that answers every Invoke with S_OK; with `free_threaded` it
// aggregates the free-threaded marshaler.
class QuietSink final : public IDispatch {
 public:
  explicit QuietSink(bool free_threaded) {
    if (free_threaded) CoCreateFreeThreadedMarshaler(static_cast<IDispatch*>(this), marshaler_.Put());
  }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    *out = nullptr;
    if (iid == IID_IMarshal && marshaler_) return marshaler_->QueryInterface(iid, out);
    if (iid != IID_IUnknown && iid != IID_IDispatch) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IDispatch*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return S_OK;
  }

 private:
  ComPtr<IUnknown> marshaler_;
  std::atomic<ULONG> refs_{1};
};

// An object made by TradeSliceManager.dll's class object, as COM makes it
// (the DLL carries the type library its IDispatch reads).
HRESULT CreateFromDll(REFIID iid, void** out) {
  static const HMODULE dll = LoadLibraryW(L"TradeSliceManager.dll");
  using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
  auto get = reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(dll, "DllGetClassObject")));
  if (get == nullptr) return E_FAIL;
  ComPtr<IClassFactory> factory;
  HRESULT result = get(CLSID_TradeSliceManager, IID_IClassFactory, factory.PutVoid());
  if (FAILED(result)) return result;
  return factory->CreateInstance(nullptr, iid, out);
}

class Owner final : public IUnknown {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override {
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

void BM_SetTopicThroughInvoke(benchmark::State& state) {
  ComApartment apartment;
  ComPtr<IDispatch> manager;
  if (FAILED(CreateFromDll(IID_IDispatch, manager.PutVoid()))) {
    state.SkipWithError("no object");
    return;
  }
  DISPID id = 0;
  LPOLESTR names[] = {const_cast<LPOLESTR>(L"SetTopic")};
  manager->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  UniqueBstr topic(L"TRADE.SLICE.ORDER");
  UniqueBstr text(L"0");
  VARIANT data;
  data.vt = VT_BSTR;
  data.bstrVal = text.get();
  VARIANT args[5];
  args[4].vt = VT_BSTR;
  args[4].bstrVal = topic.get();
  args[3].vt = VT_I4;
  args[3].lVal = 1;
  args[2].vt = VT_I4;
  args[2].lVal = 1;
  args[1].vt = VT_BSTR;
  args[1].bstrVal = text.get();
  args[0].vt = VT_VARIANT | VT_BYREF;
  args[0].pvarVal = &data;
  DISPPARAMS params{args, nullptr, 5, 0};
  for (auto _ : state) {
    manager->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetTopicThroughInvoke);

// SetStage with a kind that does nothing: the cost of Invoke alone.
// Argument 1: the numbers come as VT_I2, for DispInvoke to coerce.
void BM_NoOpSetStageThroughInvoke(benchmark::State& state) {
  ComApartment apartment;
  ComPtr<IDispatch> manager;
  if (FAILED(CreateFromDll(IID_IDispatch, manager.PutVoid()))) {
    state.SkipWithError("no object");
    return;
  }
  DISPID id = 0;
  LPOLESTR names[] = {const_cast<LPOLESTR>(L"SetStage")};
  manager->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  VARIANT args[2];
  if (state.range(0) != 0) {
    args[1].vt = VT_I2;
    args[1].iVal = 2;
    args[0].vt = VT_I2;
    args[0].iVal = 1;
  } else {
    args[1].vt = VT_I4;
    args[1].lVal = 2;
    args[0].vt = VT_I4;
    args[0].lVal = 1;
  }
  DISPPARAMS params{args, nullptr, 2, 0};
  for (auto _ : state) {
    manager->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NoOpSetStageThroughInvoke)->Arg(0)->Arg(1);

// The same through the interface's own slot, without Invoke.
void BM_NoOpSetStageThroughTheVtable(benchmark::State& state) {
  ComApartment apartment;
  ComPtr<::INordaManager> manager;
  if (FAILED(CreateFromDll(IID_INordaManager, manager.PutVoid()))) {
    state.SkipWithError("no object");
    return;
  }
  for (auto _ : state) manager->SetStage(2, 1);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NoOpSetStageThroughTheVtable);

// The same call on the manager core, as the factory export hands it out.
void BM_SetTopicOnTheCore(benchmark::State& state) {
  ComApartment apartment;
  auto* manager = new CTradeSliceManager();
  manager->AddRef();
  Variant data = Variant::Text(L"0");
  for (auto _ : state) manager->SetTopic(L"TRADE.SLICE.ORDER", 1, 1, L"0", &data);
  manager->Release();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SetTopicOnTheCore);

// One WriteLog raise to one sink: fetched out of the interface table, then
// Invoke. Argument 0: the sink aggregates the free-threaded marshaler.
void BM_EventRaiseThroughTableAndInvoke(benchmark::State& state) {
  ComApartment apartment;
  Owner owner;
  SinkPoint point(DIID__INordaManagerEvents, &owner, nullptr);
  QuietSink sink(state.range(0) != 0);
  DWORD cookie = 0;
  if (FAILED(point.Advise(&sink, &cookie))) {
    state.SkipWithError("advise failed");
    return;
  }
  EventBridge bridge(&point);
  const std::wstring line = L"<CTradeSliceManager>SetTopic:TRADE.SLICE.ORDER, 0";
  for (auto _ : state) bridge.WriteLog(line);
  point.Unadvise(cookie);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventRaiseThroughTableAndInvoke)->Arg(0)->Arg(1);

}  // namespace
}  // namespace tsm::module
