// The simulator as a COM host of TradeSliceManager.dll.
#include "slicehost/manager_link.h"

#include <windows.h>
#include <oleauto.h>
#include <ocidl.h>

#include <atomic>
#include <map>
#include <mutex>
#include <new>

#include "module/win/object_clock.h"
#include "platform/win/com_win.h"
#include "platform/win/topic_arguments_win.h"
#include "tradeslice/norda_host.h"

namespace tsm::sim {

namespace {

using platform::ComPtr;
using platform::UniqueBstr;
using platform::UniqueVariant;

constexpr wchar_t kProgId[] = L"Norda.TradeSliceManager.1";

// Calls DllInstall(TRUE, "user") of `dll`; with `per_user` false,
// DllRegisterServer instead.
HRESULT RegisterDll(const wchar_t* dll, bool per_user) {
  HMODULE module = LoadLibraryW(dll);
  if (module == nullptr) return HRESULT_FROM_WIN32(GetLastError());
  HRESULT result = E_NOTIMPL;
  if (per_user) {
    using Install = HRESULT(STDAPICALLTYPE*)(BOOL, LPCWSTR);
    auto install = reinterpret_cast<Install>(reinterpret_cast<void*>(GetProcAddress(module, "DllInstall")));
    if (install != nullptr) result = install(TRUE, L"user");
  } else {
    using Register = HRESULT(STDAPICALLTYPE*)();
    auto reg = reinterpret_cast<Register>(reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
    if (reg != nullptr) result = reg();
  }
  FreeLibrary(module);
  return result;
}

// Registers both DLLs for the user once per process. Where the system's COM
// does not read the user's classes (Wine's reads only the machine's), the
// ProgID stays unknown after that, and they are registered for the machine
// of the prefix as well.
HRESULT EnsureRegistered(CLSID* clsid) {
  static std::once_flag once;
  std::call_once(once, [] {
    RegisterDll(L"QX_DataBase64.dll", true);
    RegisterDll(L"TradeSliceManager.dll", true);
    CLSID probe;
    if (FAILED(CLSIDFromProgID(kProgId, &probe))) {
      RegisterDll(L"QX_DataBase64.dll", false);
      RegisterDll(L"TradeSliceManager.dll", false);
    }
  });
  return CLSIDFromProgID(kProgId, clsid);
}

// The host's events as an IDispatch sink: each Invoke is handed to the
// simulator's INordaManagerEvents with the arguments taken out of
// DISPPARAMS (last first), SendTopic's data by reference both ways. It takes
// calls on any thread as they come.
class EventSink final : public IDispatch {
 public:
  explicit EventSink(INordaManagerEvents* host) : host_(host) { host_->AddRef(); }
  ~EventSink() { host_->Release(); }
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IDispatch && iid != DIID__INordaManagerEvents) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IDispatch*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO*, UINT*) override {
    try {
      return Dispatch(dispid, params, result);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    } catch (...) {
      return E_UNEXPECTED;
    }
  }

 private:
  // Argument `index` in declaration order.
  static const VARIANT& Arg(DISPPARAMS* params, UINT index) { return params->rgvarg[params->cArgs - 1 - index]; }
  static std::wstring TextArg(DISPPARAMS* params, UINT index) {
    const VARIANT& v = Arg(params, index);
    if (v.vt != VT_BSTR || v.bstrVal == nullptr) return std::wstring();
    return std::wstring(v.bstrVal, SysStringLen(v.bstrVal));
  }
  static int32_t NumberArg(DISPPARAMS* params, UINT index) {
    const VARIANT& v = Arg(params, index);
    return v.vt == VT_I4 ? v.lVal : 0;
  }
  static HRESULT Answer(const Variant& value, VARIANT* result) {
    if (result == nullptr) return S_OK;
    VariantInit(result);
    return platform::ToVariant(value, result);
  }

  HRESULT Dispatch(DISPID dispid, DISPPARAMS* params, VARIANT* result) {
    if (params == nullptr) return E_POINTER;
    Variant answer;
    switch (dispid) {
      case INordaManagerEvents::kDispidRegisterTopic:
        if (params->cArgs != 1) return DISP_E_BADPARAMCOUNT;
        host_->RegisterTopic(TextArg(params, 0), &answer);
        return Answer(answer, result);
      case INordaManagerEvents::kDispidGetTopicData:
        if (params->cArgs != 1) return DISP_E_BADPARAMCOUNT;
        host_->GetTopicData(TextArg(params, 0), &answer);
        return Answer(answer, result);
      case INordaManagerEvents::kDispidSendTopic: {
        if (params->cArgs != 5) return DISP_E_BADPARAMCOUNT;
        VARIANT& data_arg = params->rgvarg[0];
        VARIANT* data_value = data_arg.vt == (VT_VARIANT | VT_BYREF) ? data_arg.pvarVal : &data_arg;
        Variant data = platform::FromVariant(*data_value);
        const HRESULT hr = host_->SendTopic(TextArg(params, 0), NumberArg(params, 1), NumberArg(params, 2),
                                            TextArg(params, 3), &data, &answer);
        if (data_value != &data_arg) {
          VariantClear(data_value);
          platform::ToVariant(data, data_value);
        }
        if (FAILED(hr)) return hr;
        return Answer(answer, result);
      }
      case INordaManagerEvents::kDispidWriteLog:
        if (params->cArgs != 1) return DISP_E_BADPARAMCOUNT;
        return host_->WriteLog(TextArg(params, 0));
      default:
        return DISP_E_MEMBERNOTFOUND;
    }
  }

  INordaManagerEvents* host_;
  std::atomic<ULONG> refs_{1};
};

// The COM object seen as INordaManager: SetStage and SetTopic by DISPID
// through IDispatch::Invoke, sinks through the connection point.
class ComManager final : public INordaManager {
 public:
  ComManager(ComPtr<IDispatch> object, DISPID set_stage, DISPID set_topic)
      : object_(std::move(object)), set_stage_(set_stage), set_topic_(set_topic) {}

  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t left = --refs_;
    if (left == 0) delete this;
    return left;
  }

  HResult SetStage(int32_t kind, int32_t stage) override {
    VARIANT args[2];
    args[1].vt = VT_I4;
    args[1].lVal = kind;
    args[0].vt = VT_I4;
    args[0].lVal = stage;
    DISPPARAMS params{args, nullptr, 2, 0};
    return object_->Invoke(set_stage_, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr,
                           nullptr);
  }

  HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                   Variant* data) override {
    platform::TopicArguments arguments(topic, param1, param2, text, data);
    if (!arguments.ok()) return E_OUTOFMEMORY;
    return object_->Invoke(set_topic_, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, arguments.params(), nullptr,
                           nullptr, nullptr);
  }

  HResult Advise(INordaManagerEvents* sink, uint32_t* cookie) override {
    ComPtr<IConnectionPoint> point;
    HRESULT result = Point(&point);
    if (FAILED(result)) return result;
    auto* dispatch = new (std::nothrow) EventSink(sink);
    if (dispatch == nullptr) return E_OUTOFMEMORY;
    DWORD connection = 0;
    result = point->Advise(dispatch, &connection);
    dispatch->Release();
    if (SUCCEEDED(result)) *cookie = connection;
    return result;
  }

  HResult Unadvise(uint32_t cookie) override {
    ComPtr<IConnectionPoint> point;
    const HRESULT result = Point(&point);
    if (FAILED(result)) return result;
    return point->Unadvise(cookie);
  }

 private:
  HRESULT Point(ComPtr<IConnectionPoint>* point) {
    ComPtr<IConnectionPointContainer> container;
    HRESULT result = object_->QueryInterface(IID_IConnectionPointContainer, container.PutVoid());
    if (FAILED(result)) return result;
    return container->FindConnectionPoint(DIID__INordaManagerEvents, point->Put());
  }

  ComPtr<IDispatch> object_;
  DISPID set_stage_;
  DISPID set_topic_;
  std::atomic<uint32_t> refs_{1};
};

DISPID IdOf(IDispatch* object, const wchar_t* name) {
  DISPID id = DISPID_UNKNOWN;
  LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
  object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  return id;
}

INordaManager* CreateThroughCom(IClock* clock, std::string* problem) {
  // The calling thread joins the process's multithreaded apartment for good.
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  CLSID clsid;
  if (FAILED(EnsureRegistered(&clsid))) {
    *problem = "Norda.TradeSliceManager.1 is not registered";
    return nullptr;
  }
  ComPtr<IDispatch> object;
  TsmSetClockForNewObjects(clock);
  const HRESULT created = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.PutVoid());
  TsmSetClockForNewObjects(nullptr);
  if (FAILED(created)) {
    *problem = "CoCreateInstance of Norda.TradeSliceManager.1 failed";
    return nullptr;
  }
  const DISPID set_stage = IdOf(object.get(), L"SetStage");
  const DISPID set_topic = IdOf(object.get(), L"SetTopic");
  if (set_stage == DISPID_UNKNOWN || set_topic == DISPID_UNKNOWN) {
    *problem = "the slice manager's IDispatch knows no SetStage or SetTopic";
    return nullptr;
  }
  auto* manager = new (std::nothrow) ComManager(std::move(object), set_stage, set_topic);
  if (manager == nullptr) *problem = "out of memory";
  return manager;
}

}  // namespace

ManagerPath DefaultManagerPath() { return ManagerPath::Com; }

INordaManager* CreateManager(IClock* clock, ManagerPath path, std::string* problem) {
  if (path == ManagerPath::Com) return CreateThroughCom(clock, problem);
  INordaManager* manager = nullptr;
  if (TsmCreateTradeSliceManager(clock, &manager) != kS_OK || manager == nullptr) {
    *problem = "the component made no slice manager";
    return nullptr;
  }
  return manager;
}

}  // namespace tsm::sim
