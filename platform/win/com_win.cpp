#include "platform/win/com_win.h"

#include <atomic>

namespace tsm::platform {

namespace {
// Allocations left until the one that fails; 0: none fails.
std::atomic<int> g_failing_bstr_countdown{0};
}  // namespace

BSTR AllocateBstr(const std::wstring& text) {
  if (g_failing_bstr_countdown.load(std::memory_order_relaxed) > 0 && g_failing_bstr_countdown.fetch_sub(1) == 1) {
    return nullptr;
  }
  return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

void FailBstrAllocationForTesting(int nth) { g_failing_bstr_countdown = nth; }

HRESULT ToVariant(const Variant& value, VARIANT* out) {
  switch (value.type()) {
    case VarType::I4:
      out->vt = VT_I4;
      out->lVal = value.i4();
      return S_OK;
    case VarType::I8:
      out->vt = VT_I8;
      out->llVal = value.i8();
      return S_OK;
    case VarType::BStr: {
      BSTR bstr = AllocateBstr(value.text());
      if (bstr == nullptr) return E_OUTOFMEMORY;
      out->vt = VT_BSTR;
      out->bstrVal = bstr;
      return S_OK;
    }
    case VarType::Empty:
      break;
  }
  out->vt = VT_EMPTY;
  return S_OK;
}

Variant FromVariant(const VARIANT& value) {
  switch (value.vt) {
    case VT_I4:
      return Variant::I4(value.lVal);
    case VT_I4 | VT_BYREF:
      return value.plVal != nullptr ? Variant::I4(*value.plVal) : Variant();
    case VT_I8:
      return Variant::I8(value.llVal);
    case VT_I8 | VT_BYREF:
      return value.pllVal != nullptr ? Variant::I8(*value.pllVal) : Variant();
    case VT_BSTR:
      return Variant::Text(std::wstring(value.bstrVal, SysStringLen(value.bstrVal)));
    case VT_BSTR | VT_BYREF:
      if (value.pbstrVal == nullptr) return Variant();
      return Variant::Text(std::wstring(*value.pbstrVal, SysStringLen(*value.pbstrVal)));
    case VT_VARIANT | VT_BYREF:
      return value.pvarVal != nullptr ? FromVariant(*value.pvarVal) : Variant();
    default:
      return Variant();
  }
}

}  // namespace tsm::platform
