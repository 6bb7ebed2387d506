// What every test sink of the host's _INordaManagerEvents shares: IUnknown
// for IDispatch and the event interface, with a count that never frees (the
// sink lives on the test's stack), and no type information. A test sink only
// answers Invoke.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <atomic>

#include "tradeslice/norda_host.h"

namespace tsm::module {

class TestHostSink : public IDispatch {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IDispatch && iid != DIID__INordaManagerEvents) return E_NOINTERFACE;
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

  // References held by others besides the test's own one.
  ULONG refs() const { return refs_.load(); }

 protected:
  TestHostSink() = default;
  ~TestHostSink() = default;

 private:
  std::atomic<ULONG> refs_{1};
};

}  // namespace tsm::module
