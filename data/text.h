// `CString`: the one wide text type of the component (wchar_t: UTF-16 on
// Windows, where it maps to BSTR at the COM boundary; UTF-32 on Linux), with
// the MFC-shaped operations the component uses, printf-style formatting with
// the Windows meaning of "%ld" (32-bit) and "%I64d", and the C runtime's
// `_wtol`/`_wtoi64` number parsing.
//
// Threading: a value type; no shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tsm {

class CString;

namespace text_internal {
struct FormatArg {
  enum class Kind { kSigned, kUnsigned, kText } kind;
  int64_t number = 0;
  const wchar_t* text = nullptr;
  std::size_t text_length = 0;
};
FormatArg MakeArg(const CString& value);
FormatArg MakeArg(const std::wstring& value);
FormatArg MakeArg(const wchar_t* value);
template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
FormatArg MakeArg(T value) {
  if constexpr (std::is_signed_v<T>) {
    return {FormatArg::Kind::kSigned, static_cast<int64_t>(value)};
  } else {
    return {FormatArg::Kind::kUnsigned, static_cast<int64_t>(value)};
  }
}
// The formatted text, after `prefix` (copied as it is).
std::wstring FormatArgs(const wchar_t* format, const FormatArg* args, std::size_t count,
                        std::wstring_view prefix = std::wstring_view());

// One conversion of a format text and the literal text before it.
struct FormatStep {
  std::wstring_view literal;
  wchar_t conversion = L'\0';  // L'\0': the literal ends the text
  int width = 0;
  bool left = false;
  bool zero = false;
  bool wide64 = false;
};
// Reads the literal run at `p` and the conversion after it; returns where
// the next run starts, or null when the text ends.
const wchar_t* ReadStep(const wchar_t* p, FormatStep* step);
// The text of steps read before, written into one string sized up front.
std::wstring FormatPrepared(const FormatStep* steps, std::size_t step_count, const FormatArg* args,
                            std::size_t count);
}  // namespace text_internal

class CString {
 public:
  CString() = default;
  CString(const wchar_t* text) : s_(text != nullptr ? text : L"") {}  // NOLINT: MFC-style implicit
  CString(const wchar_t* text, std::size_t length) : s_(text, length) {}
  CString(std::wstring text) : s_(std::move(text)) {}  // NOLINT
  CString(std::wstring_view text) : s_(text) {}        // NOLINT

  static CString FromUtf8(std::string_view utf8);
  std::string ToUtf8() const;

  const wchar_t* GetString() const { return s_.c_str(); }
  const std::wstring& wstr() const { return s_; }
  int GetLength() const { return static_cast<int>(s_.size()); }
  bool IsEmpty() const { return s_.empty(); }
  void Empty() { s_.clear(); }
  wchar_t operator[](int index) const { return s_[static_cast<std::size_t>(index)]; }

  // Index of the first occurrence at or after `start`, or -1.
  int Find(std::wstring_view needle, int start = 0) const;
  int Find(wchar_t c, int start = 0) const;
  CString Left(int count) const;
  CString Mid(int start) const;
  CString Mid(int start, int count) const;
  // MFC's Tokenize: skips leading delimiters, returns the next token and moves
  // `pos` past it; at the end returns empty text and sets `pos` to -1.
  CString Tokenize(std::wstring_view delimiters, int& pos) const;
  // Trims white space at both ends.
  CString& Trim();
  // Removes every `c`; returns how many were removed.
  int Remove(wchar_t c);
  int Compare(const CString& other) const { return s_.compare(other.s_); }
  // Case-insensitive for ASCII letters.
  int CompareNoCase(std::wstring_view other) const;

  template <typename... Args>
  void Format(const wchar_t* format, const Args&... args) {
    const text_internal::FormatArg list[] = {text_internal::MakeArg(args)..., text_internal::FormatArg{}};
    s_ = text_internal::FormatArgs(format, list, sizeof...(Args));
  }
  template <typename... Args>
  static CString Formatted(const wchar_t* format, const Args&... args) {
    CString result;
    result.Format(format, args...);
    return result;
  }

  CString& operator+=(const CString& other) {
    s_ += other.s_;
    return *this;
  }
  friend CString operator+(const CString& a, const CString& b) { return CString(a.s_ + b.s_); }
  friend CString operator+(const CString& a, const wchar_t* b) { return CString(a.s_ + b); }
  friend CString operator+(const wchar_t* a, const CString& b) { return CString(a + b.s_); }
  friend bool operator==(const CString& a, const CString& b) { return a.s_ == b.s_; }
  friend bool operator==(const CString& a, const wchar_t* b) { return a.s_ == b; }
  friend bool operator<(const CString& a, const CString& b) { return a.s_ < b.s_; }

 private:
  std::wstring s_;
};

// A format text read once, for text formatted over and over in the same
// shape (the new-order command of every child). Gives exactly what
// CString::Format gives for the same text and arguments.
//
// Threading: immutable after construction; any thread may format with it.
class PreparedFormat {
 public:
  explicit PreparedFormat(const wchar_t* format);
  PreparedFormat(const PreparedFormat&) = delete;
  PreparedFormat& operator=(const PreparedFormat&) = delete;

  template <typename... Args>
  CString operator()(const Args&... args) const {
    const text_internal::FormatArg list[] = {text_internal::MakeArg(args)..., text_internal::FormatArg{}};
    return CString(text_internal::FormatPrepared(steps_.data(), steps_.size(), list, sizeof...(Args)));
  }

 private:
  const std::wstring text_;  // the literal runs of steps_ point into it
  std::vector<text_internal::FormatStep> steps_;
};

// CString::Tokenize on a view: the next token of `text` as a view into it,
// with the same steps of `pos` (-1 at the end), so that a caller walking a
// long list copies no token out.
std::wstring_view TokenizeView(std::wstring_view text, std::wstring_view delimiters, int& pos);

// MFC's AfxExtractSubString: piece `index` of `full` split at `separator`,
// empty pieces kept. False (and empty text) when there are fewer pieces.
bool AfxExtractSubString(CString& out, const CString& full, int index, wchar_t separator);

// The most characters a 64-bit number takes in decimal ("-9223372036854775808",
// or an unsigned one's 20 digits).
inline constexpr std::size_t kDecimalMax = 20;

// Decimal text written backwards so that it ends just before `end`, which
// has room for kDecimalMax characters before it; returns where it starts.
// No heap and no locale: the C runtime's wide printf is the slow part of
// every command and key.
wchar_t* WriteDecimalBefore(wchar_t* end, int64_t value);
wchar_t* WriteUnsignedBefore(wchar_t* end, uint64_t value);

// The Windows C runtime's _wtol/_wtoi: leading white space, an optional sign,
// decimal digits up to the first other character; saturates at the 32-bit
// limits. _wtoi64 likewise with 64 bits.
int32_t WToL(std::wstring_view text);
int64_t WToI64(std::wstring_view text);

// UTF-8 <-> wide text, for JSON and transcripts.
std::wstring WideFromUtf8(std::string_view utf8);
std::string Utf8FromWide(std::wstring_view wide);

// UTF-16 <-> wide text: the same code units where wchar_t is 16 bits,
// surrogate pairs joined or split where it is 32.
std::u16string Utf16FromWide(std::wstring_view wide);
std::wstring WideFromUtf16(std::u16string_view utf16);

}  // namespace tsm

template <>
struct std::hash<tsm::CString> {
  std::size_t operator()(const tsm::CString& s) const noexcept { return std::hash<std::wstring>()(s.wstr()); }
};
