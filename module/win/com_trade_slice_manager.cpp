#include "module/win/com_trade_slice_manager.h"

#include <oleauto.h>
#include <ocidl.h>
#include <olectl.h>

#include <atomic>
#include <new>
#include <string>

#include "manager/trade_slice_manager.h"
#include "module/win/event_bridge.h"
#include "module/win/module_state.h"
#include "module/win/qx_trade_slice_manager.h"
#include "module/win/sink_point.h"
#include "module/win/type_info.h"
#include "platform/win/com_win.h"
#include "tradeslice/norda_host.h"

namespace tsm::module {

namespace {

// The _INordaManagerEvents point and the bridge the core raises through,
// counted apart from the object: the object holds one reference, the core one
// while the bridge is advised and one more for every raise in progress. A
// timer callback that outlives the object (the core leaves itself to its last
// callback) thus still raises through a live point, to the sinks still
// advised on it.
class HostEvents final : public tsm::INordaManagerEvents {
 public:
  // `owner` and `container` are the object's, for the point's COM methods,
  // which only holders of the object can call.
  HostEvents(IUnknown* owner, IConnectionPointContainer* container)
      : point_(DIID__INordaManagerEvents, owner, container), bridge_(&point_) {}
  HostEvents(const HostEvents&) = delete;
  HostEvents& operator=(const HostEvents&) = delete;

  SinkPoint* point() { return &point_; }

  uint32_t AddRef() override { return ++refs_; }
  uint32_t Release() override {
    const uint32_t left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HResult RegisterTopic(const std::wstring& topic, Variant* result) override {
    return bridge_.RegisterTopic(topic, result);
  }
  HResult GetTopicData(const std::wstring& topic, Variant* result) override {
    return bridge_.GetTopicData(topic, result);
  }
  HResult SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                    Variant* data, Variant* result) override {
    return bridge_.SendTopic(topic, param1, param2, text, data, result);
  }
  HResult WriteLog(const std::wstring& line) override { return bridge_.WriteLog(line); }

 private:
  ~HostEvents() = default;

  std::atomic<uint32_t> refs_{1};
  SinkPoint point_;
  EventBridge bridge_;
};

class ComTradeSliceManager final : public ITradeSliceManager,
                                   public ::INordaManager,
                                   public IConnectionPointContainer {
 public:
  ComTradeSliceManager(IUnknown* outer, tsm::CTradeSliceManager* core)
      : controlling_(outer != nullptr ? outer : &inner_),
        inner_(this),
        core_(core),
        own_events_(DIID__ITradeSliceManagerEvents, controlling_, this),
        host_events_(new (std::nothrow) HostEvents(controlling_, this)) {
    ObjectCreated();
  }
  ~ComTradeSliceManager() {
    // A callback that outlives the object keeps the host events alive
    // through its own reference for as long as it raises.
    core_->Unadvise(bridge_cookie_);
    core_->Release();
    if (host_events_ != nullptr) host_events_->Release();
    ObjectDestroyed();
  }
  ComTradeSliceManager(const ComTradeSliceManager&) = delete;
  ComTradeSliceManager& operator=(const ComTradeSliceManager&) = delete;

  HRESULT Connect() {
    if (host_events_ == nullptr) return E_OUTOFMEMORY;
    return core_->Advise(host_events_, &bridge_cookie_);
  }
  IUnknown* Inner() { return &inner_; }

  // IUnknown, delegated to the controlling unknown.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    return controlling_->QueryInterface(iid, out);
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return controlling_->AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return controlling_->Release(); }

  // IDispatch of INordaManager (ITradeSliceManager's slots land here too:
  // both derive from IDispatch and share these overrides).
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 1;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (index != 0) return DISP_E_BADINDEX;
    ITypeInfo* info = HostManagerTypeInfo();
    if (info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    info->AddRef();
    *out = info;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
    ITypeInfo* info = HostManagerTypeInfo();
    if (info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    return DispGetIDsOfNames(info, names, count, ids);
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID dispid, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO* exception, UINT* bad_arg) override {
    ITypeInfo* info = HostManagerTypeInfo();
    if (info == nullptr) return TYPE_E_CANTLOADLIBRARY;
    return DispInvoke(static_cast<::INordaManager*>(this), info, dispid, flags, params, result, exception, bad_arg);
  }

  // INordaManager.
  HRESULT STDMETHODCALLTYPE SetStage(LONG kind, LONG stage) override {
    try {
      return core_->SetStage(kind, stage);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    } catch (...) {
      return E_UNEXPECTED;
    }
  }
  HRESULT STDMETHODCALLTYPE SetTopic(BSTR topic, LONG param1, LONG param2, BSTR text, VARIANT* data) override {
    try {
      Variant value = data != nullptr ? platform::FromVariant(*data) : Variant();
      return core_->SetTopic(std::wstring(topic != nullptr ? topic : L"", SysStringLen(topic)), param1, param2,
                             std::wstring(text != nullptr ? text : L"", SysStringLen(text)), &value);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    } catch (...) {
      return E_UNEXPECTED;
    }
  }

  // IConnectionPointContainer.
  HRESULT STDMETHODCALLTYPE EnumConnectionPoints(IEnumConnectionPoints** out) override;
  HRESULT STDMETHODCALLTYPE FindConnectionPoint(REFIID iid, IConnectionPoint** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    SinkPoint* point = nullptr;
    if (iid == DIID__INordaManagerEvents) point = host_events_->point();
    if (iid == DIID__ITradeSliceManagerEvents) point = &own_events_;
    if (point == nullptr) return CONNECT_E_NOCONNECTION;
    point->AddRef();
    *out = point;
    return S_OK;
  }

 private:
  // The object's own IUnknown: the one an aggregate's outer object holds.
  class InnerUnknown final : public IUnknown {
   public:
    explicit InnerUnknown(ComTradeSliceManager* object) : object_(object) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override { return object_->Find(iid, out); }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
      const ULONG left = --refs_;
      if (left == 0) delete object_;
      return left;
    }

   private:
    ComTradeSliceManager* object_;
    std::atomic<ULONG> refs_{0};
  };

  HRESULT Find(REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    IUnknown* found = nullptr;
    if (iid == IID_IUnknown) {
      found = &inner_;
    } else if (iid == IID_IDispatch || iid == IID_INordaManager) {
      found = static_cast<::INordaManager*>(this);
    } else if (iid == IID_ITradeSliceManager) {
      found = static_cast<ITradeSliceManager*>(this);
    } else if (iid == IID_IConnectionPointContainer) {
      found = static_cast<IConnectionPointContainer*>(this);
    }
    if (found == nullptr) return E_NOINTERFACE;
    found->AddRef();
    *out = found;
    return S_OK;
  }

  IUnknown* controlling_;
  InnerUnknown inner_;
  tsm::CTradeSliceManager* core_;  // one reference
  SinkPoint own_events_;
  HostEvents* host_events_;  // one reference; null only when it could not be made
  uint32_t bridge_cookie_ = 0;
};

// IEnumConnectionPoints over the object's two points; holds the object.
class PointEnumerator final : public IEnumConnectionPoints {
 public:
  PointEnumerator(IConnectionPointContainer* owner, IConnectionPoint* first, IConnectionPoint* second)
      : owner_(platform::ComPtr<IConnectionPointContainer>::Copy(owner)), points_{first, second} {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IEnumConnectionPoints) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IEnumConnectionPoints*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE Next(ULONG count, IConnectionPoint** out, ULONG* fetched) override {
    if (out == nullptr || (count > 1 && fetched == nullptr)) return E_POINTER;
    ULONG done = 0;
    while (done < count && next_ < 2) {
      out[done] = points_[next_++];
      out[done]->AddRef();
      ++done;
    }
    if (fetched != nullptr) *fetched = done;
    return done == count ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Skip(ULONG count) override {
    next_ = next_ + count > 2 ? 2 : next_ + count;
    return next_ < 2 ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Reset() override {
    next_ = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IEnumConnectionPoints** out) override {
    if (out == nullptr) return E_POINTER;
    auto* copy = new (std::nothrow) PointEnumerator(owner_.get(), points_[0], points_[1]);
    if (copy == nullptr) return E_OUTOFMEMORY;
    copy->next_ = next_;
    copy->AddRef();
    *out = copy;
    return S_OK;
  }

 private:
  platform::ComPtr<IConnectionPointContainer> owner_;
  IConnectionPoint* points_[2];
  ULONG next_ = 0;
  std::atomic<ULONG> refs_{0};
};

HRESULT ComTradeSliceManager::EnumConnectionPoints(IEnumConnectionPoints** out) {
  if (out == nullptr) return E_POINTER;
  auto* enumerator = new (std::nothrow) PointEnumerator(this, &own_events_, host_events_->point());
  if (enumerator == nullptr) return E_OUTOFMEMORY;
  enumerator->AddRef();
  *out = enumerator;
  return S_OK;
}

}  // namespace

HRESULT CreateTradeSliceManager(IUnknown* outer, REFIID iid, void** out, IClock* clock) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (outer != nullptr && iid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
  try {
    auto* core = new (std::nothrow) tsm::CTradeSliceManager(clock);
    if (core == nullptr) return E_OUTOFMEMORY;
    core->AddRef();
    auto* object = new (std::nothrow) ComTradeSliceManager(outer, core);
    if (object == nullptr) {
      core->Release();
      return E_OUTOFMEMORY;
    }
    IUnknown* inner = object->Inner();
    inner->AddRef();
    HRESULT result = object->Connect();
    if (SUCCEEDED(result)) result = inner->QueryInterface(iid, out);
    inner->Release();
    return result;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}

}  // namespace tsm::module
