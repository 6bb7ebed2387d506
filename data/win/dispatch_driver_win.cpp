// The driver on Windows: late-bound IDispatch::Invoke by DISPID on the
// component's automation object, its connection point for the events, and
// COM's standard global interface table under the component's interface.
#include <windows.h>
#include <objbase.h>
#include <ocidl.h>
#include <oleauto.h>

#include <atomic>
#include <new>
#include <utility>

#include "basedata/base_data_guids.h"
#include "data/base_data.h"
#include "data/component_field_key.h"
#include "data/dispatch_driver.h"
#include "platform/module_hold.h"
#include "platform/win/com_win.h"

namespace tsm {

namespace {

using platform::ComPtr;
using platform::UniqueVariant;

constexpr DISPID kDispidBeginUpdate = 1;
constexpr DISPID kDispidSetData = 3;
constexpr DISPID kDispidEndUpdate = 4;
constexpr DISPID kDispidGetData = 5;
constexpr DISPID kDispidOnUpdate = 1;
constexpr DISPID kDispidOnReplace = 2;
constexpr DWORD kDirectoryChars = 256;

GUID ParseGuid(const wchar_t* text) {
  GUID guid = GUID_NULL;
  CLSIDFromString(text, &guid);
  return guid;
}

const IID& ComponentIid() {
  static const IID iid = ParseGuid(kBaseDataIidText);
  return iid;
}

const IID& EventsIid() {
  static const IID iid = ParseGuid(kBaseDataEventsIidText);
  return iid;
}

// Arguments are passed right to left, as DISPPARAMS has them.
HRESULT InvokeMethod(IDispatch* dispatch, DISPID dispid, VARIANTARG* reversed_args, UINT count, VARIANT* result) {
  DISPPARAMS params = {reversed_args, nullptr, count, 0};
  return dispatch->Invoke(dispid, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, result, nullptr,
                          nullptr);
}

// A VARIANTARG that views a Variant: numbers by value, text as a BSTR of
// its own.
class Argument {
 public:
  explicit Argument(const Variant& value) { platform::ToVariant(value, held_.get()); }
  explicit Argument(int32_t value) {
    held_.get()->vt = VT_I4;
    held_.get()->lVal = value;
  }
  const VARIANT& value() const { return held_.value(); }

 private:
  UniqueVariant held_;
};

// The record's event sink: an automation object answering the events'
// DISPIDs. Aggregates the free-threaded marshaler so that the component can
// keep it in the global interface table and call it from its event thread.
class EventSink final : public IDispatch {
 public:
  explicit EventSink(std::shared_ptr<DispatchEventHandler> handler) : handler_(std::move(handler)) {}
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  HRESULT Init() { return CoCreateFreeThreadedMarshaler(this, marshaler_.Put()); }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == EventsIid()) {
      AddRef();
      *out = static_cast<IDispatch*>(this);
      return S_OK;
    }
    if (iid == IID_IMarshal && marshaler_) return marshaler_->QueryInterface(iid, out);
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return refs_.fetch_add(1) + 1; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = refs_.fetch_sub(1) - 1;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }

  // The dispatch map of the record: OnUpdate (1) and OnReplace (2).
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD, DISPPARAMS* params, VARIANT*, EXCEPINFO*,
                                   UINT*) override {
    if (params == nullptr) return E_INVALIDARG;
    try {
      if (dispid == kDispidOnUpdate) {
        if (params->cArgs != 2) return DISP_E_BADPARAMCOUNT;
        const Variant id = platform::FromVariant(params->rgvarg[1]);
        const Variant text = platform::FromVariant(params->rgvarg[0]);
        if (id.type() != VarType::I4) return DISP_E_TYPEMISMATCH;
        handler_->HandleUpdate(id.i4(), text.type() == VarType::BStr ? text.text() : std::wstring());
        return S_OK;
      }
      if (dispid == kDispidOnReplace) {
        if (params->cArgs != 1) return DISP_E_BADPARAMCOUNT;
        const Variant id = platform::FromVariant(params->rgvarg[0]);
        if (id.type() != VarType::I4) return DISP_E_TYPEMISMATCH;
        handler_->HandleReplace(id.i4());
        return S_OK;
      }
    } catch (...) {
      // A receiver's failure stays on this side of the event interface.
      return E_FAIL;
    }
    return DISP_E_MEMBERNOTFOUND;
  }

 private:
  ~EventSink() = default;

  std::atomic<ULONG> refs_{1};
  const std::shared_ptr<DispatchEventHandler> handler_;
  ComPtr<IUnknown> marshaler_;
  // The component's event thread calls in here, possibly after the object
  // that listened is gone: the module stays until the sink does.
  const ModuleHold hold_;
};

ComPtr<IConnectionPoint> EventConnectionPoint(IDispatch* dispatch) {
  ComPtr<IConnectionPointContainer> container;
  ComPtr<IConnectionPoint> point;
  if (SUCCEEDED(dispatch->QueryInterface(IID_IConnectionPointContainer, container.PutVoid())) && container) {
    container->FindConnectionPoint(EventsIid(), point.Put());
  }
  return point;
}

// Puts the current directory and the DLL search directory back as they were
// when it was made.
class SavedDirectories {
 public:
  SavedDirectories() {
    GetCurrentDirectoryW(kDirectoryChars, current_);
    GetDllDirectoryW(kDirectoryChars, dll_);
  }
  ~SavedDirectories() {
    SetCurrentDirectoryW(current_);
    SetDllDirectoryW(dll_[0] != L'\0' ? dll_ : nullptr);
  }
  SavedDirectories(const SavedDirectories&) = delete;
  SavedDirectories& operator=(const SavedDirectories&) = delete;

 private:
  wchar_t current_[kDirectoryChars] = {};
  wchar_t dll_[kDirectoryChars] = {};
};

}  // namespace

void COleDispatchDriver::AttachDispatch(ComponentObject* dispatch, bool add_ref) {
  if (dispatch != nullptr && add_ref) dispatch->AddRef();
  ReleaseDispatch();
  m_lpDispatch = dispatch;
}

void COleDispatchDriver::ReleaseDispatch() {
  if (m_lpDispatch != nullptr) std::exchange(m_lpDispatch, nullptr)->Release();
}

bool COleDispatchDriver::CreateDispatch(const wchar_t* prog_id) {
  CLSID clsid = GUID_NULL;
  if (FAILED(CLSIDFromProgID(prog_id, &clsid))) return false;
  IDispatch* created = nullptr;
  if (FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IDispatch, reinterpret_cast<void**>(&created))) ||
      created == nullptr) {
    return false;
  }
  AttachDispatch(created, false);
  return true;
}

int32_t COleDispatchDriver::BeginUpdate() {
  if (m_lpDispatch == nullptr) return -1;
  UniqueVariant result;
  if (FAILED(InvokeMethod(m_lpDispatch, kDispidBeginUpdate, nullptr, 0, result.get()))) return -1;
  const Variant id = platform::FromVariant(result.value());
  return id.type() == VarType::I4 ? id.i4() : -1;
}

void COleDispatchDriver::SetData(int32_t update_id, int32_t kind, const Variant& key, const Variant& value) {
  if (m_lpDispatch == nullptr) return;
  Argument a_value(value), a_key(key), a_kind(kind), a_id(update_id);
  VARIANTARG args[4] = {a_value.value(), a_key.value(), a_kind.value(), a_id.value()};
  InvokeMethod(m_lpDispatch, kDispidSetData, args, 4, nullptr);
}

void COleDispatchDriver::EndUpdate(int32_t update_id) {
  if (m_lpDispatch == nullptr) return;
  Argument a_id(update_id);
  VARIANTARG args[1] = {a_id.value()};
  InvokeMethod(m_lpDispatch, kDispidEndUpdate, args, 1, nullptr);
}

Variant COleDispatchDriver::GetData(int32_t kind, const Variant& argument) {
  if (m_lpDispatch == nullptr) return Variant();
  Argument a_argument(argument), a_kind(kind);
  VARIANTARG args[2] = {a_argument.value(), a_kind.value()};
  UniqueVariant result;
  if (FAILED(InvokeMethod(m_lpDispatch, kDispidGetData, args, 2, result.get()))) return Variant();
  return platform::FromVariant(result.value());
}

uint32_t COleDispatchDriver::ConnectionAdvise(std::shared_ptr<DispatchEventHandler> handler) {
  if (m_lpDispatch == nullptr) return 0;
  ComPtr<IConnectionPoint> point = EventConnectionPoint(m_lpDispatch);
  if (!point) return 0;
  EventSink* sink = new (std::nothrow) EventSink(std::move(handler));
  if (sink == nullptr) return 0;
  DWORD cookie = 0;
  if (FAILED(sink->Init()) || FAILED(point->Advise(sink, &cookie))) cookie = 0;
  // The connection keeps the sink; the record adds no reference of its own.
  sink->Release();
  return cookie;
}

void COleDispatchDriver::ConnectionUnadvise(uint32_t cookie) {
  if (m_lpDispatch == nullptr) return;
  if (ComPtr<IConnectionPoint> point = EventConnectionPoint(m_lpDispatch)) point->Unadvise(cookie);
}

InterfaceTableRef::~InterfaceTableRef() {
  if (table_ != nullptr) static_cast<::IGlobalInterfaceTable*>(table_)->Release();
}

bool InterfaceTableRef::Create() {
  if (table_ != nullptr) return true;
  ::IGlobalInterfaceTable* table = nullptr;
  if (FAILED(CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                              IID_IGlobalInterfaceTable, reinterpret_cast<void**>(&table)))) {
    return false;
  }
  table_ = table;
  return table_ != nullptr;
}

uint32_t InterfaceTableRef::Register(ComponentObject* object) {
  DWORD cookie = 0;
  if (FAILED(static_cast<::IGlobalInterfaceTable*>(table_)->RegisterInterfaceInGlobal(object, ComponentIid(),
                                                                                      &cookie))) {
    return 0;
  }
  return cookie;
}

ComponentObject* InterfaceTableRef::Get(uint32_t cookie) {
  IDispatch* object = nullptr;
  const HRESULT fetched = static_cast<::IGlobalInterfaceTable*>(table_)->GetInterfaceFromGlobal(
      cookie, ComponentIid(), reinterpret_cast<void**>(&object));
  if (fetched != S_OK || object == nullptr) {
    if (object != nullptr) object->Release();
    return nullptr;
  }
  return object;
}

void InterfaceTableRef::Revoke(uint32_t cookie) {
  static_cast<::IGlobalInterfaceTable*>(table_)->RevokeInterfaceFromGlobal(cookie);
}

// A key crosses IDispatch as a BSTR copy: an address means nothing to the
// object on the other side.
const Variant* ComponentFieldKey(std::wstring_view) { return nullptr; }

bool LoadComponentObject(const std::wstring& path, void** module, ComponentObject** object) {
  *object = nullptr;
  const SavedDirectories saved;
  const IID iid = ParseGuid(kBaseDataIidText);
  const CLSID clsid = ParseGuid(kBaseDataClsidText);
  // The component's own dependencies load from its folder.
  const std::size_t slash = path.rfind(L'\\');
  if (slash != std::wstring::npos) {
    const std::wstring folder = path.substr(0, slash + 1);
    SetCurrentDirectoryW(folder.c_str());
    SetDllDirectoryW(folder.c_str());
  }
  HMODULE library = LoadLibraryW(path.c_str());
  *module = library;
  if (library == nullptr) return false;
  using GetClassObjectFn = HRESULT(WINAPI*)(REFCLSID, REFIID, void**);
  const auto get_class_object =
      reinterpret_cast<GetClassObjectFn>(reinterpret_cast<void*>(GetProcAddress(library, "DllGetClassObject")));
  if (get_class_object == nullptr) return false;
  ComPtr<IClassFactory> factory;
  if (FAILED(get_class_object(clsid, IID_IClassFactory, factory.PutVoid())) || !factory) return false;
  ComPtr<IUnknown> instance;
  const HRESULT created = factory->CreateInstance(nullptr, iid, instance.PutVoid());
  factory.Reset();
  if (FAILED(created) || !instance) throw ComError(ComError::kNoObject);
  IDispatch* dispatch = nullptr;
  if (FAILED(instance->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&dispatch)))) return false;
  *object = dispatch;
  return dispatch != nullptr;
}

}  // namespace tsm
