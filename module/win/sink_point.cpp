#include "module/win/sink_point.h"

#include <algorithm>
#include <atomic>
#include <new>

#include <olectl.h>

#include "module/win/interface_table.h"
#include "platform/win/com_win.h"

namespace tsm::module {

namespace {

// IEnumConnections over a copy of the cookies taken when it was made; each
// CONNECTDATA carries the sink fetched from the interface table.
class ConnectionEnumerator final : public IEnumConnections {
 public:
  explicit ConnectionEnumerator(std::vector<DWORD> cookies) : cookies_(std::move(cookies)) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IEnumConnections) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IEnumConnections*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE Next(ULONG count, CONNECTDATA* out, ULONG* fetched) override {
    if (out == nullptr || (count > 1 && fetched == nullptr)) return E_POINTER;
    ULONG done = 0;
    while (done < count && next_ < cookies_.size()) {
      const DWORD cookie = cookies_[next_++];
      IUnknown* sink = nullptr;
      ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
      if (table == nullptr ||
          FAILED(table->GetInterfaceFromGlobal(cookie, IID_IUnknown, reinterpret_cast<void**>(&sink)))) {
        continue;
      }
      out[done].pUnk = sink;
      out[done].dwCookie = cookie;
      ++done;
    }
    if (fetched != nullptr) *fetched = done;
    return done == count ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Skip(ULONG count) override {
    next_ = std::min(cookies_.size(), next_ + count);
    return next_ < cookies_.size() ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Reset() override {
    next_ = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IEnumConnections** out) override {
    if (out == nullptr) return E_POINTER;
    auto* copy = new (std::nothrow) ConnectionEnumerator(cookies_);
    if (copy == nullptr) return E_OUTOFMEMORY;
    copy->next_ = next_;
    copy->AddRef();
    *out = copy;
    return S_OK;
  }

 private:
  std::vector<DWORD> cookies_;
  std::size_t next_ = 0;
  std::atomic<ULONG> refs_{0};
};

}  // namespace

SinkPoint::SinkPoint(REFIID iid, IUnknown* owner, IConnectionPointContainer* container)
    : iid_(iid), owner_(owner), container_(container) {}

SinkPoint::~SinkPoint() {
  ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
  if (table == nullptr) return;
  for (DWORD cookie : cookies_) table->RevokeInterfaceFromGlobal(cookie);
}

HRESULT SinkPoint::QueryInterface(REFIID iid, void** out) {
  if (out == nullptr) return E_POINTER;
  *out = nullptr;
  if (iid != IID_IUnknown && iid != IID_IConnectionPoint) return E_NOINTERFACE;
  AddRef();
  *out = static_cast<IConnectionPoint*>(this);
  return S_OK;
}

ULONG SinkPoint::AddRef() { return owner_->AddRef(); }

ULONG SinkPoint::Release() { return owner_->Release(); }

HRESULT SinkPoint::GetConnectionInterface(IID* iid) {
  if (iid == nullptr) return E_POINTER;
  *iid = iid_;
  return S_OK;
}

HRESULT SinkPoint::GetConnectionPointContainer(IConnectionPointContainer** out) {
  if (out == nullptr) return E_POINTER;
  container_->AddRef();
  *out = container_;
  return S_OK;
}

HRESULT SinkPoint::Advise(IUnknown* sink, DWORD* cookie) {
  if (cookie == nullptr) return E_POINTER;
  *cookie = 0;
  if (sink == nullptr) return E_POINTER;
  // A sink answers for the event interface or at least for IDispatch.
  platform::ComPtr<IDispatch> dispatch;
  if (FAILED(sink->QueryInterface(iid_, dispatch.PutVoid())) &&
      FAILED(sink->QueryInterface(IID_IDispatch, dispatch.PutVoid()))) {
    return CONNECT_E_CANNOTCONNECT;
  }
  ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
  if (table == nullptr) return CONNECT_E_CANNOTCONNECT;
  DWORD registered = 0;
  if (FAILED(table->RegisterInterfaceInGlobal(dispatch.get(), IID_IDispatch, &registered))) {
    return CONNECT_E_CANNOTCONNECT;
  }
  {
    ScopedLock<CCriticalSection> guard(lock_);
    cookies_.push_back(registered);
  }
  *cookie = registered;
  return S_OK;
}

HRESULT SinkPoint::Unadvise(DWORD cookie) {
  {
    ScopedLock<CCriticalSection> guard(lock_);
    auto found = std::find(cookies_.begin(), cookies_.end(), cookie);
    if (found == cookies_.end()) return CONNECT_E_NOCONNECTION;
    cookies_.erase(found);
  }
  if (::IGlobalInterfaceTable* table = ProcessInterfaceTable()) table->RevokeInterfaceFromGlobal(cookie);
  return S_OK;
}

HRESULT SinkPoint::EnumConnections(IEnumConnections** out) {
  if (out == nullptr) return E_POINTER;
  auto* enumerator = new (std::nothrow) ConnectionEnumerator(Cookies());
  if (enumerator == nullptr) return E_OUTOFMEMORY;
  enumerator->AddRef();
  *out = enumerator;
  return S_OK;
}

std::vector<DWORD> SinkPoint::Cookies() {
  ScopedLock<CCriticalSection> guard(lock_);
  return cookies_;
}

DWORD SinkPoint::CookieAt(std::size_t index, bool* last) {
  ScopedLock<CCriticalSection> guard(lock_);
  if (index >= cookies_.size()) return 0;
  *last = index + 1 == cookies_.size();
  return cookies_[index];
}

HRESULT SinkPoint::Raise(DISPID dispid, DISPPARAMS* params, VARIANT* result) {
  HRESULT code = S_OK;
  ::IGlobalInterfaceTable* table = ProcessInterfaceTable();
  if (table == nullptr) return code;
  bool last = false;
  for (std::size_t i = 0; !last; ++i) {
    const DWORD cookie = CookieAt(i, &last);
    if (cookie == 0) break;
    platform::ComPtr<IDispatch> sink;
    if (FAILED(table->GetInterfaceFromGlobal(cookie, IID_IDispatch, sink.PutVoid()))) continue;
    if (result != nullptr) VariantClear(result);
    code = sink->Invoke(dispid, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, params, result, nullptr, nullptr);
  }
  return code;
}

}  // namespace tsm::module
