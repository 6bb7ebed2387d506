#include "basedata/win/com_base_data.h"

#include <oleauto.h>
#include <olectl.h>
#include <ocidl.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>

#include "platform/win/com_win.h"

namespace tsm::basedata {

namespace {

using platform::ComPtr;

// How the component finds its own object behind one of its automation
// objects; private to this DLL, never in the type library.
const IID IID_INativeBaseData = {0xfd51a280, 0xe11d, 0x4b50, {0x87, 0xe0, 0x00, 0x24, 0x26, 0xa7, 0xf7, 0x57}};

struct INativeBaseData : public IUnknown {
  // No reference added.
  virtual IBaseData* STDMETHODCALLTYPE Native() = 0;
};

std::atomic<LONG> g_locks{0};

// The interface's type information from the type library embedded in this
// DLL; loaded once and kept for the life of the process.
ITypeInfo* TypeInfo() {
  static ITypeInfo* info = [] {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(ComponentModule(), path, MAX_PATH);
    ComPtr<ITypeLib> library;
    ITypeInfo* loaded = nullptr;
    if (SUCCEEDED(LoadTypeLibEx(path, REGKIND_NONE, library.Put()))) {
      library->GetTypeInfoOfGuid(IID_IQXBaseData, &loaded);
    }
    return loaded;
  }();
  return info;
}

// Delivers the events of one connection: fetches the sink from the global
// interface table on the event thread and invokes it by DISPID.
//
// The connection also holds the module whose code the sink runs: that module
// can then not be unmapped while the event thread may still call into it, and
// the last reference is let go of here, in a module that stays loaded.
class EventForwarder final : public IBaseDataEvents {
 public:
  EventForwarder(DWORD sink_cookie, IUnknown* sink) : sink_cookie_(sink_cookie), sink_module_(ModuleOf(sink)) {
    ModuleLock();
  }
  EventForwarder(const EventForwarder&) = delete;
  EventForwarder& operator=(const EventForwarder&) = delete;

  uint32_t AddRef() override { return refs_.fetch_add(1) + 1; }
  uint32_t Release() override {
    const uint32_t left = refs_.fetch_sub(1) - 1;
    if (left == 0) delete this;
    return left;
  }

  void OnUpdate(int32_t update_id, const std::wstring& text) override {
    platform::UniqueBstr bstr(text);
    VARIANTARG args[2];
    // Arguments go right to left.
    VariantInit(&args[0]);
    args[0].vt = VT_BSTR;
    args[0].bstrVal = bstr.get();
    VariantInit(&args[1]);
    args[1].vt = VT_I4;
    args[1].lVal = update_id;
    Raise(IBaseDataEvents::kDispidOnUpdate, args, 2);
  }

  void OnReplace(int32_t id) override {
    VARIANTARG arg;
    VariantInit(&arg);
    arg.vt = VT_I4;
    arg.lVal = id;
    Raise(IBaseDataEvents::kDispidOnReplace, &arg, 1);
  }

 private:
  ~EventForwarder() {
    if (::IGlobalInterfaceTable* table = ProcessInterfaceTable()) table->RevokeInterfaceFromGlobal(sink_cookie_);
    if (sink_module_ != nullptr) FreeLibrary(sink_module_);
    ModuleUnlock();
  }

  // A reference to the module that holds the object's interface table, or
  // null.
  static HMODULE ModuleOf(IUnknown* object) {
    HMODULE module = nullptr;
    const void* table = *reinterpret_cast<void* const*>(object);
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, static_cast<LPCWSTR>(table), &module)) {
      return nullptr;
    }
    return module;
  }

  void Raise(DISPID dispid, VARIANTARG* args, UINT count) {
    ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
    ComPtr<IDispatch> sink;
    if (table == nullptr || FAILED(table->GetInterfaceFromGlobal(sink_cookie_, IID_IDispatch, sink.PutVoid()))) return;
    DISPPARAMS params = {args, nullptr, count, 0};
    sink->Invoke(dispid, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, nullptr, nullptr, nullptr);
  }

  std::atomic<uint32_t> refs_{1};
  const DWORD sink_cookie_;
  const HMODULE sink_module_;  // a reference of the forwarder's own, or null
};

class ComBaseData final : public IQXBaseData,
                          public IConnectionPointContainer,
                          public IConnectionPoint,
                          public INativeBaseData {
 public:
  explicit ComBaseData(IBaseData* native) : native_(native) {
    native_->AddRef();
    ModuleLock();
  }
  ComBaseData(const ComBaseData&) = delete;
  ComBaseData& operator=(const ComBaseData&) = delete;

  HRESULT Init() {
    return CoCreateFreeThreadedMarshaler(static_cast<IQXBaseData*>(this), marshaler_.Put());
  }

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == IID_IQXBaseData) {
      *out = static_cast<IQXBaseData*>(this);
    } else if (iid == IID_IConnectionPointContainer) {
      *out = static_cast<IConnectionPointContainer*>(this);
    } else if (iid == IID_IConnectionPoint) {
      *out = static_cast<IConnectionPoint*>(this);
    } else if (iid == IID_INativeBaseData) {
      *out = static_cast<INativeBaseData*>(this);
    } else if (iid == IID_IMarshal && marshaler_) {
      return marshaler_->QueryInterface(iid, out);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  // Every reference on this automation object is also one on the object
  // behind it, so that the component's objects live as long, and are
  // counted alike, whether they are held as automation objects or not.
  ULONG STDMETHODCALLTYPE AddRef() override {
    native_->AddRef();
    return refs_.fetch_add(1) + 1;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    IBaseData* const native = native_;
    const ULONG left = refs_.fetch_sub(1) - 1;
    if (left == 0) delete this;
    native->Release();
    return left;
  }

  // IDispatch, served from the type library.
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = TypeInfo() != nullptr ? 1 : 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) override {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    ITypeInfo* type_info = TypeInfo();
    if (type_info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    type_info->AddRef();
    *info = type_info;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
    ITypeInfo* type_info = TypeInfo();
    if (type_info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    return DispGetIDsOfNames(type_info, names, count, ids);
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO* exception, UINT* arg_error) override {
    ITypeInfo* type_info = TypeInfo();
    if (type_info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    return DispInvoke(static_cast<IQXBaseData*>(this), type_info, dispid, flags, params, result, exception,
                      arg_error);
  }

  // IQXBaseData. No exception leaves a COM method.
  HRESULT STDMETHODCALLTYPE BeginUpdate(LONG* update_id) override {
    if (update_id == nullptr) return E_POINTER;
    return Guarded([&] { *update_id = native_->BeginUpdate(); });
  }
  HRESULT STDMETHODCALLTYPE SetData(LONG update_id, LONG kind, VARIANT key, VARIANT value) override {
    return Guarded([&] {
      native_->SetData(update_id, kind, platform::FromVariant(key), platform::FromVariant(value));
    });
  }
  HRESULT STDMETHODCALLTYPE EndUpdate(LONG update_id) override {
    return Guarded([&] { native_->EndUpdate(update_id); });
  }
  HRESULT STDMETHODCALLTYPE GetData(LONG kind, VARIANT argument, VARIANT* result) override {
    if (result == nullptr) return E_POINTER;
    VariantInit(result);
    HRESULT converted = S_OK;
    const HRESULT called = Guarded([&] {
      converted = platform::ToVariant(native_->GetData(kind, platform::FromVariant(argument)), result);
    });
    return FAILED(called) ? called : converted;
  }

  // IConnectionPointContainer: the one connection point is this object.
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints** out) override {
    if (out != nullptr) *out = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != DIID__IQXBaseDataEvents) return CONNECT_E_NOCONNECTION;
    AddRef();
    *out = static_cast<IConnectionPoint*>(this);
    return S_OK;
  }

  // IConnectionPoint. The sink is kept in the global interface table, so
  // that the event thread can call it whatever apartment it was advised from.
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override {
    if (iid == nullptr) return E_POINTER;
    *iid = DIID__IQXBaseDataEvents;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** out) override {
    if (out == nullptr) return E_POINTER;
    AddRef();
    *out = static_cast<IConnectionPointContainer*>(this);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override {
    if (cookie == nullptr) return E_POINTER;
    *cookie = 0;
    if (sink == nullptr) return E_POINTER;
    ComPtr<IDispatch> events;
    if (FAILED(sink->QueryInterface(DIID__IQXBaseDataEvents, events.PutVoid())) &&
        FAILED(sink->QueryInterface(IID_IDispatch, events.PutVoid()))) {
      return CONNECT_E_CANNOTCONNECT;
    }
    ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
    DWORD sink_cookie = 0;
    if (table == nullptr || FAILED(table->RegisterInterfaceInGlobal(events.get(), IID_IDispatch, &sink_cookie))) {
      return CONNECT_E_CANNOTCONNECT;
    }
    EventForwarder* forwarder = new (std::nothrow) EventForwarder(sink_cookie, events.get());
    if (forwarder == nullptr) {
      table->RevokeInterfaceFromGlobal(sink_cookie);
      return E_OUTOFMEMORY;
    }
    uint32_t advise_cookie = 0;
    HRESULT advised = E_FAIL;
    Guarded([&] { advised = native_->Advise(forwarder, &advise_cookie); });
    forwarder->Release();
    if (advised != kS_OK) return CONNECT_E_CANNOTCONNECT;
    *cookie = advise_cookie;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override {
    HRESULT removed = E_FAIL;
    Guarded([&] { removed = native_->Unadvise(cookie); });
    return removed == kS_OK ? S_OK : CONNECT_E_NOCONNECTION;
  }
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections** out) override {
    if (out != nullptr) *out = nullptr;
    return E_NOTIMPL;
  }

  // INativeBaseData
  IBaseData* STDMETHODCALLTYPE Native() override { return native_; }

 private:
  ~ComBaseData() { ModuleUnlock(); }

  template <class Call>
  static HRESULT Guarded(Call call) {
    try {
      call();
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    } catch (...) {
      return E_FAIL;
    }
  }

  std::atomic<ULONG> refs_{1};
  IBaseData* const native_;  // one reference for each of this object's own
  ComPtr<IUnknown> marshaler_;
};

}  // namespace

HRESULT CreateComBaseData(IBaseData* native, REFIID iid, void** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (native == nullptr) return E_INVALIDARG;
  EnsureProcessApartment();
  ComBaseData* object = new (std::nothrow) ComBaseData(native);
  if (object == nullptr) return E_OUTOFMEMORY;
  HRESULT result = object->Init();
  if (SUCCEEDED(result)) result = object->QueryInterface(iid, out);
  object->Release();
  return result;
}

IBaseData* NativeOf(IUnknown* object) {
  if (object == nullptr) return nullptr;
  ComPtr<INativeBaseData> own;
  if (FAILED(object->QueryInterface(IID_INativeBaseData, own.PutVoid())) || !own) return nullptr;
  IBaseData* native = own->Native();
  native->AddRef();
  return native;
}

void EnsureProcessApartment() {
  static std::once_flag once;
  std::call_once(once, [] {
    CO_MTA_USAGE_COOKIE cookie = nullptr;
    CoIncrementMTAUsage(&cookie);
    // The event thread, once started, runs this DLL's code until the process
    // ends: from the first automation object on, the DLL is never unloaded.
    HMODULE pinned = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&EnsureProcessApartment), &pinned);
  });
}

::IGlobalInterfaceTable* ProcessInterfaceTable() {
  static ::IGlobalInterfaceTable* table = [] {
    EnsureProcessApartment();
    ::IGlobalInterfaceTable* created = nullptr;
    CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER, IID_IGlobalInterfaceTable,
                     reinterpret_cast<void**>(&created));
    return created;
  }();
  return table;
}

void ModuleLock() { g_locks.fetch_add(1); }
void ModuleUnlock() { g_locks.fetch_sub(1); }
bool ModuleInUse() { return g_locks.load() != 0; }

}  // namespace tsm::basedata
