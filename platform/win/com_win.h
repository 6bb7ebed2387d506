// RAII owners of COM references, BSTRs and VARIANTs, and the conversions
// between VARIANT and the project's Variant. Windows-only; never included by
// core headers.
//
// Threading: plain value types; a ComPtr is used on one thread at a time.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <utility>

#include "tradeslice/variant.h"

namespace tsm::platform {

// One COM reference, released with the owner.
template <class T>
class ComPtr {
 public:
  ComPtr() = default;
  // Takes over a reference the caller already owns.
  static ComPtr Attach(T* raw) {
    ComPtr p;
    p.raw_ = raw;
    return p;
  }
  // Takes a reference of its own.
  static ComPtr Copy(T* raw) {
    if (raw != nullptr) raw->AddRef();
    return Attach(raw);
  }
  ~ComPtr() { Reset(); }
  ComPtr(const ComPtr& other) : raw_(other.raw_) {
    if (raw_ != nullptr) raw_->AddRef();
  }
  ComPtr& operator=(const ComPtr& other) {
    if (this != &other) *this = Copy(other.raw_);
    return *this;
  }
  ComPtr(ComPtr&& other) noexcept : raw_(std::exchange(other.raw_, nullptr)) {}
  ComPtr& operator=(ComPtr&& other) noexcept {
    if (this != &other) {
      Reset();
      raw_ = std::exchange(other.raw_, nullptr);
    }
    return *this;
  }

  T* get() const { return raw_; }
  T* operator->() const { return raw_; }
  explicit operator bool() const { return raw_ != nullptr; }
  // For out-parameters: drops what is held first.
  T** Put() {
    Reset();
    return &raw_;
  }
  void** PutVoid() { return reinterpret_cast<void**>(Put()); }
  T* Detach() { return std::exchange(raw_, nullptr); }
  void Reset() {
    if (raw_ != nullptr) std::exchange(raw_, nullptr)->Release();
  }

 private:
  T* raw_ = nullptr;
};

// A new BSTR holding `text`, or null when it cannot be allocated.
BSTR AllocateBstr(const std::wstring& text);
// Test hook: the `nth` next call of AllocateBstr in this module (1: the very
// next) fails as if out of memory, once; 0 cancels.
void FailBstrAllocationForTesting(int nth);

// One BSTR, freed with the owner; null when it could not be allocated.
class UniqueBstr {
 public:
  UniqueBstr() = default;
  explicit UniqueBstr(const std::wstring& text) : bstr_(AllocateBstr(text)) {}
  ~UniqueBstr() { SysFreeString(bstr_); }
  UniqueBstr(const UniqueBstr&) = delete;
  UniqueBstr& operator=(const UniqueBstr&) = delete;

  BSTR get() const { return bstr_; }
  BSTR Detach() { return std::exchange(bstr_, nullptr); }

 private:
  BSTR bstr_ = nullptr;
};

// One VARIANT, cleared with the owner.
class UniqueVariant {
 public:
  UniqueVariant() { VariantInit(&value_); }
  ~UniqueVariant() { VariantClear(&value_); }
  UniqueVariant(const UniqueVariant&) = delete;
  UniqueVariant& operator=(const UniqueVariant&) = delete;

  VARIANT* get() { return &value_; }
  const VARIANT& value() const { return value_; }

 private:
  VARIANT value_;
};

// Fills `out` (already initialised and empty) with `value`; a BSTR is
// allocated for text. E_OUTOFMEMORY when the text cannot be allocated.
HRESULT ToVariant(const Variant& value, VARIANT* out);
// The variant types the component holds (VT_EMPTY, VT_I4, VT_I8, VT_BSTR,
// also by reference); any other type reads as empty.
Variant FromVariant(const VARIANT& value);

}  // namespace tsm::platform
