// One connection point of the slice manager's COM object. Every advised sink
// is kept in the process's global interface table as IDispatch, so that the
// manager can call it from any of its threads; a raise fetches each sink out
// of the table again and calls IDispatch::Invoke with the DISPID, the
// user-default locale and DISPATCH_METHOD.
//
// Threading: Advise, Unadvise and Raise from any thread. The list is locked
// only while one cookie is copied out of it; sinks are called outside it.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include <vector>

#include "platform/sync.h"

namespace tsm::module {

class SinkPoint final : public IConnectionPoint {
 public:
  // `owner` is the object's controlling unknown (references go to it),
  // `container` the object's IConnectionPointContainer.
  SinkPoint(REFIID iid, IUnknown* owner, IConnectionPointContainer* container);
  ~SinkPoint();
  SinkPoint(const SinkPoint&) = delete;
  SinkPoint& operator=(const SinkPoint&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE GetConnectionInterface(IID* iid) override;
  HRESULT STDMETHODCALLTYPE GetConnectionPointContainer(IConnectionPointContainer** out) override;
  HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) override;
  HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) override;
  HRESULT STDMETHODCALLTYPE EnumConnections(IEnumConnections** out) override;

  // Invokes `dispid` on every sink in turn with `params` (arguments in
  // DISPPARAMS order: last argument first). `result` (may be null) receives
  // the last sink's result; returns the last sink's code, or S_OK with none.
  HRESULT Raise(DISPID dispid, DISPPARAMS* params, VARIANT* result);

  // The connections now, as IEnumConnections hands them out.
  std::vector<DWORD> Cookies();

 private:
  // The cookie at `index`, or 0 past the end; `last` tells whether it is the
  // last one advised.
  DWORD CookieAt(std::size_t index, bool* last);

  IID iid_;
  IUnknown* owner_;
  IConnectionPointContainer* container_;
  CCriticalSection lock_;  // guards cookies_
  std::vector<DWORD> cookies_;
};

}  // namespace tsm::module
