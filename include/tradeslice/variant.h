// The VARIANT-like value that crosses the host link and the base-data
// component: empty, 32-bit integer, 64-bit integer or text.
//
// Threading: a plain value type; no shared state.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace tsm {

// Result codes as COM has them.
using HResult = int32_t;
inline constexpr HResult kS_OK = 0;
inline constexpr HResult kS_FALSE = 1;
inline constexpr HResult kE_OUTOFMEMORY = static_cast<HResult>(0x8007000E);
inline constexpr HResult kE_NOINTERFACE = static_cast<HResult>(0x80004002);
inline constexpr HResult kE_INVALIDARG = static_cast<HResult>(0x80070057);
inline constexpr HResult kE_FAIL = static_cast<HResult>(0x80004005);

// The numbers are VARTYPE's.
enum class VarType : uint16_t { Empty = 0, I4 = 3, BStr = 8, I8 = 20 };

class Variant {
 public:
  Variant() = default;
  static Variant I4(int32_t value) { return Variant(VarType::I4, value, {}); }
  static Variant I8(int64_t value) { return Variant(VarType::I8, value, {}); }
  static Variant Text(std::wstring value) { return Variant(VarType::BStr, 0, std::move(value)); }

  VarType type() const { return type_; }
  bool IsEmpty() const { return type_ == VarType::Empty; }
  int32_t i4() const { return static_cast<int32_t>(number_); }
  int64_t i8() const { return number_; }
  const std::wstring& text() const { return text_; }
  // Moves the text out (a caller that keeps it saves the copy); the variant
  // keeps its type with empty text.
  std::wstring TakeText() { return std::exchange(text_, std::wstring()); }

  void Clear() { *this = Variant(); }

  // VariantChangeType(VT_BSTR) in place: numbers become decimal text, empty
  // becomes empty text. Always succeeds for the types above.
  bool ChangeTypeToText() {
    if (type_ == VarType::I4 || type_ == VarType::I8) text_ = std::to_wstring(number_);
    type_ = VarType::BStr;
    number_ = 0;
    return true;
  }

  friend bool operator==(const Variant& a, const Variant& b) {
    return a.type_ == b.type_ && a.number_ == b.number_ && a.text_ == b.text_;
  }

 private:
  Variant(VarType type, int64_t number, std::wstring text)
      : type_(type), number_(number), text_(std::move(text)) {}

  VarType type_ = VarType::Empty;
  int64_t number_ = 0;
  std::wstring text_;
};

}  // namespace tsm
