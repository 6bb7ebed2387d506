#include "data/text.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cwchar>
#include <cwctype>
#include <deque>
#include <mutex>
#include <vector>

#include "data/address_pins.h"

namespace tsm {

namespace {

// "00" to "99": numbers are written two digits per division.
struct DigitPairs {
  constexpr DigitPairs() {
    for (int i = 0; i < 100; ++i) {
      text[2 * i] = static_cast<wchar_t>(L'0' + i / 10);
      text[2 * i + 1] = static_cast<wchar_t>(L'0' + i % 10);
    }
  }
  wchar_t text[200] = {};
};
constexpr DigitPairs kDigitPairs;

template <typename Unsigned>
wchar_t* WriteMagnitudeBefore(wchar_t* p, Unsigned value) {
  while (value >= 100) {
    const auto pair = static_cast<std::size_t>(value % 100) * 2;
    value /= 100;
    *--p = kDigitPairs.text[pair + 1];
    *--p = kDigitPairs.text[pair];
  }
  if (value >= 10) {
    const auto pair = static_cast<std::size_t>(value) * 2;
    *--p = kDigitPairs.text[pair + 1];
    *--p = kDigitPairs.text[pair];
  } else {
    *--p = static_cast<wchar_t>(L'0' + value);
  }
  return p;
}

}  // namespace

wchar_t* WriteUnsignedBefore(wchar_t* end, uint64_t value) {
  // Values that fit 32 bits take the cheaper 32-bit division.
  return value <= UINT32_MAX ? WriteMagnitudeBefore(end, static_cast<uint32_t>(value))
                             : WriteMagnitudeBefore(end, value);
}

wchar_t* WriteDecimalBefore(wchar_t* end, int64_t value) {
  // The magnitude of the smallest value does not fit int64_t; take it unsigned.
  const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  wchar_t* p = WriteUnsignedBefore(end, magnitude);
  if (value < 0) *--p = L'-';
  return p;
}

namespace text_internal {

FormatArg MakeArg(const CString& value) {
  return {FormatArg::Kind::kText, 0, value.GetString(), static_cast<std::size_t>(value.GetLength())};
}
FormatArg MakeArg(const std::wstring& value) { return {FormatArg::Kind::kText, 0, value.c_str(), value.size()}; }
FormatArg MakeArg(const wchar_t* value) {
  const wchar_t* text = value != nullptr ? value : L"";
  return {FormatArg::Kind::kText, 0, text, std::wcslen(text)};
}

namespace {

// The text being formatted: gathered in a buffer on the stack, so that the
// result is allocated once, at its exact size. Text that outgrows the buffer
// goes on in a string of its own.
class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Append(std::wstring_view piece) {
    if (!spilled_ && length_ + piece.size() <= kInline) {
      std::copy(piece.begin(), piece.end(), inline_ + length_);
      length_ += piece.size();
      return;
    }
    AppendSpilled(piece);
  }
  void Append(std::size_t count, wchar_t c) {
    if (!spilled_ && length_ + count <= kInline) {
      std::fill_n(inline_ + length_, count, c);
      length_ += count;
      return;
    }
    Spill();
    spill_.append(count, c);
  }
  std::wstring Take() { return spilled_ ? std::move(spill_) : std::wstring(inline_, length_); }

 private:
  static constexpr std::size_t kInline = 1024;

  void AppendSpilled(std::wstring_view piece) {
    Spill();
    spill_ += piece;
  }

  void Spill() {
    if (spilled_) return;
    spill_.reserve(2 * kInline);
    spill_.assign(inline_, length_);
    spilled_ = true;
  }

  wchar_t inline_[kInline];
  std::size_t length_ = 0;
  bool spilled_ = false;
  std::wstring spill_;
};

template <typename Out>
void AppendPadded(Out& out, std::wstring_view piece, int width, bool left, bool zero) {
  const int pad = width - static_cast<int>(piece.size());
  if (pad <= 0) {
    out.Append(piece);
  } else if (left) {
    out.Append(piece);
    out.Append(static_cast<std::size_t>(pad), L' ');
  } else if (zero && !piece.empty() && piece[0] == L'-') {
    out.Append(1, L'-');
    out.Append(static_cast<std::size_t>(pad), L'0');
    out.Append(piece.substr(1));
  } else {
    out.Append(static_cast<std::size_t>(pad), zero ? L'0' : L' ');
    out.Append(piece);
  }
}

// Numbers are written backwards into the end of a caller's buffer.
constexpr std::size_t kNumberBuffer = 24;

std::wstring_view WriteUnsigned(wchar_t (&buffer)[kNumberBuffer], uint64_t value, bool negative) {
  wchar_t* const end = buffer + kNumberBuffer;
  wchar_t* p = WriteUnsignedBefore(end, value);
  if (negative) *--p = L'-';
  return std::wstring_view(p, static_cast<std::size_t>(end - p));
}

std::wstring_view WriteSigned(wchar_t (&buffer)[kNumberBuffer], int64_t value) {
  wchar_t* const end = buffer + kNumberBuffer;
  const wchar_t* p = WriteDecimalBefore(end, value);
  return std::wstring_view(p, static_cast<std::size_t>(end - p));
}

std::wstring_view WriteHex(wchar_t (&buffer)[kNumberBuffer], uint64_t value, bool upper) {
  const wchar_t* digits = upper ? L"0123456789ABCDEF" : L"0123456789abcdef";
  wchar_t* end = buffer + kNumberBuffer;
  wchar_t* p = end;
  do {
    *--p = digits[value & 0xF];
    value >>= 4;
  } while (value != 0);
  return std::wstring_view(p, static_cast<std::size_t>(end - p));
}

// Writes one conversion of `step` with its argument (null: missing).
template <typename Out>
void WriteConversion(Out& out, const FormatStep& step, const FormatArg* arg) {
  wchar_t buffer[kNumberBuffer];
  std::wstring_view piece;
  switch (step.conversion) {
    case L'%':
      out.Append(1, L'%');
      return;
    case L'd':
    case L'i':
      if (arg != nullptr) {
        if (arg->kind == FormatArg::Kind::kText) {
          piece = std::wstring_view(arg->text, arg->text_length);
        } else {
          piece = WriteSigned(buffer, step.wide64 ? arg->number : static_cast<int32_t>(arg->number));
        }
      }
      break;
    case L'u':
      if (arg != nullptr && arg->kind != FormatArg::Kind::kText) {
        piece = WriteUnsigned(
            buffer, step.wide64 ? static_cast<uint64_t>(arg->number) : static_cast<uint32_t>(arg->number), false);
      }
      break;
    case L'x':
    case L'X':
      if (arg != nullptr && arg->kind != FormatArg::Kind::kText) {
        const uint64_t bits = step.wide64 ? static_cast<uint64_t>(arg->number) : static_cast<uint32_t>(arg->number);
        piece = WriteHex(buffer, bits, step.conversion == L'X');
      }
      break;
    case L's':
    case L'S':
      if (arg != nullptr) {
        piece = arg->kind == FormatArg::Kind::kText ? std::wstring_view(arg->text, arg->text_length)
                                                    : WriteSigned(buffer, arg->number);
      }
      break;
    case L'c':
      if (arg != nullptr && arg->kind != FormatArg::Kind::kText) {
        buffer[0] = static_cast<wchar_t>(arg->number);
        piece = std::wstring_view(buffer, 1);
      }
      break;
    default:
      buffer[0] = step.conversion;
      piece = std::wstring_view(buffer, 1);
      break;
  }
  AppendPadded(out, piece, step.width, step.left, step.zero && step.conversion != L's');
}

// Writes the literal run of `step` and its conversion, which takes the
// argument at `next` (and moves it on) unless it is "%%".
template <typename Out>
void WritePiece(Out& out, const FormatStep& step, const FormatArg* args, std::size_t count, std::size_t& next) {
  out.Append(step.literal);
  if (step.conversion == L'\0') return;
  const FormatArg* arg = nullptr;
  if (step.conversion != L'%') {
    arg = next < count ? &args[next] : nullptr;
    ++next;
  }
  WriteConversion(out, step, arg);
}

// The text being formatted by a prepared format, written straight into a
// string sized once to a length the arguments cannot outgrow.
class ReservedOutput {
 public:
  explicit ReservedOutput(std::size_t capacity) : text_(capacity, L'\0'), at_(text_.data()) {}
  ReservedOutput(const ReservedOutput&) = delete;
  ReservedOutput& operator=(const ReservedOutput&) = delete;

  void Append(std::wstring_view piece) { at_ = std::copy(piece.begin(), piece.end(), at_); }
  void Append(std::size_t count, wchar_t c) { at_ = std::fill_n(at_, count, c); }
  std::wstring Take() {
    text_.resize(static_cast<std::size_t>(at_ - text_.data()));
    return std::move(text_);
  }

 private:
  std::wstring text_;
  wchar_t* at_;  // where the next piece goes
};

// The text of `steps` after `prefix`, written into one string sized up front.
std::wstring WritePrepared(const FormatStep* steps, std::size_t step_count, const FormatArg* args,
                           std::size_t count, std::wstring_view prefix) {
  // No step writes more than its literal, its width and a number, or its
  // argument's text where that is longer.
  std::size_t capacity = prefix.size();
  for (std::size_t i = 0; i < step_count; ++i) {
    capacity += steps[i].literal.size() + static_cast<std::size_t>(steps[i].width) + kNumberBuffer;
  }
  for (std::size_t i = 0; i < count; ++i) capacity += args[i].text_length;
  ReservedOutput out(capacity);
  out.Append(prefix);
  std::size_t next = 0;
  for (std::size_t i = 0; i < step_count; ++i) WritePiece(out, steps[i], args, count, next);
  return out.Take();
}

// A format text read once into its steps, whose literals point into `text`.
struct KeptFormat {
  std::wstring text;
  std::vector<FormatStep> steps;
};

// The formats of FormatArgs, read once and kept by the address of their
// text (AddressPins): a format spelt out in the code is not read again on
// every call, only checked to be the same text. Formats longer than
// kMaxLength, and those whose place in the table another address holds, are
// read on every call as before.
class KeptFormats {
 public:
  // Kept reachable for the life of the process: any thread may be formatting.
  static KeptFormats& Instance() {
    static KeptFormats* kept = new KeptFormats();
    return *kept;
  }

  // The steps of the NUL-terminated `format`, or null when it is not kept.
  const KeptFormat* Find(const wchar_t* format) {
    if (const KeptFormat* kept = pins_.Find(format)) return kept;
    return Keep(format);
  }

 private:
  static constexpr std::size_t kMaxLength = 4096;

  const KeptFormat* Keep(const wchar_t* format) {
    std::lock_guard<std::mutex> guard(lock_);
    if (pins_.Taken(format)) return nullptr;
    const std::size_t length = std::wcslen(format);
    if (length > kMaxLength) return nullptr;
    KeptFormat& kept = kept_.emplace_back();
    kept.text.assign(format, length);
    FormatStep step;
    for (const wchar_t* p = kept.text.c_str(); p != nullptr;) {
      p = ReadStep(p, &step);
      kept.steps.push_back(step);
    }
    pins_.Pin(format, kept.text.c_str(), &kept);
    return &kept;
  }

  AddressPins<KeptFormat> pins_;
  std::mutex lock_;              // guards kept_ and every keeping
  std::deque<KeptFormat> kept_;  // never moved
};

}  // namespace

// Sizes follow the Windows (LLP64) C runtime: %d and %ld print 32 bits,
// %I64d and %lld print 64 bits. Arguments are typed, so a mismatch cannot
// read past the list; a missing argument prints as nothing.
const wchar_t* ReadStep(const wchar_t* p, FormatStep* step) {
  *step = FormatStep{};
  const wchar_t* percent = std::wcschr(p, L'%');
  if (percent == nullptr) {
    step->literal = std::wstring_view(p);
    return nullptr;
  }
  step->literal = std::wstring_view(p, static_cast<std::size_t>(percent - p));
  p = percent + 1;
  if (*p == L'%') {
    step->conversion = L'%';
    return p + 1;
  }
  for (; *p == L'-' || *p == L'0' || *p == L'+' || *p == L' ' || *p == L'#'; ++p) {
    if (*p == L'-') step->left = true;
    if (*p == L'0') step->zero = true;
  }
  for (; *p >= L'0' && *p <= L'9'; ++p) step->width = step->width * 10 + (*p - L'0');
  if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
    step->wide64 = true;
    p += 3;
  } else if (p[0] == L'l' && p[1] == L'l') {
    step->wide64 = true;
    p += 2;
  } else if (*p == L'l' || *p == L'h') {
    ++p;
  }
  // A conversion cut short by the end of the text ends the output there.
  if (*p == L'\0') return nullptr;
  step->conversion = *p;
  return p + 1;
}

std::wstring FormatArgs(const wchar_t* format, const FormatArg* args, std::size_t count, std::wstring_view prefix) {
  if (format != nullptr) {
    if (const KeptFormat* kept = KeptFormats::Instance().Find(format)) {
      return WritePrepared(kept->steps.data(), kept->steps.size(), args, count, prefix);
    }
  }
  Output out;
  out.Append(prefix);
  std::size_t next = 0;
  FormatStep step;
  for (const wchar_t* p = format; p != nullptr;) {
    p = ReadStep(p, &step);
    WritePiece(out, step, args, count, next);
  }
  return out.Take();
}

std::wstring FormatPrepared(const FormatStep* steps, std::size_t step_count, const FormatArg* args,
                            std::size_t count) {
  return WritePrepared(steps, step_count, args, count, std::wstring_view());
}

}  // namespace text_internal

PreparedFormat::PreparedFormat(const wchar_t* format) : text_(format != nullptr ? format : L"") {
  text_internal::FormatStep step;
  for (const wchar_t* p = text_.c_str(); p != nullptr;) {
    p = text_internal::ReadStep(p, &step);
    steps_.push_back(step);
  }
}

CString CString::FromUtf8(std::string_view utf8) { return CString(WideFromUtf8(utf8)); }
std::string CString::ToUtf8() const { return Utf8FromWide(s_); }

int CString::Find(std::wstring_view needle, int start) const {
  if (start < 0 || start > GetLength()) return -1;
  const std::size_t at = s_.find(needle, static_cast<std::size_t>(start));
  return at == std::wstring::npos ? -1 : static_cast<int>(at);
}

int CString::Find(wchar_t c, int start) const {
  if (start < 0 || start > GetLength()) return -1;
  const std::size_t at = s_.find(c, static_cast<std::size_t>(start));
  return at == std::wstring::npos ? -1 : static_cast<int>(at);
}

CString CString::Left(int count) const {
  if (count <= 0) return CString();
  return CString(s_.substr(0, static_cast<std::size_t>(count)));
}

CString CString::Mid(int start) const {
  if (start < 0) start = 0;
  if (start >= GetLength()) return CString();
  return CString(s_.substr(static_cast<std::size_t>(start)));
}

CString CString::Mid(int start, int count) const {
  if (start < 0) start = 0;
  if (count <= 0 || start >= GetLength()) return CString();
  return CString(s_.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(count)));
}

CString CString::Tokenize(std::wstring_view delimiters, int& pos) const {
  return CString(std::wstring(TokenizeView(s_, delimiters, pos)));
}

CString& CString::Trim() {
  const wchar_t* space = L" \t\r\n\v\f";
  const std::size_t begin = s_.find_first_not_of(space);
  if (begin == std::wstring::npos) {
    s_.clear();
    return *this;
  }
  const std::size_t end = s_.find_last_not_of(space);
  s_ = s_.substr(begin, end - begin + 1);
  return *this;
}

int CString::Remove(wchar_t c) {
  int removed = 0;
  std::wstring kept;
  kept.reserve(s_.size());
  for (wchar_t ch : s_) {
    if (ch == c) {
      ++removed;
    } else {
      kept += ch;
    }
  }
  s_.swap(kept);
  return removed;
}

int CString::CompareNoCase(std::wstring_view other) const {
  auto lower = [](wchar_t c) { return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c; };
  const std::size_t n = std::min(s_.size(), other.size());
  for (std::size_t i = 0; i < n; ++i) {
    const wchar_t a = lower(s_[i]), b = lower(other[i]);
    if (a != b) return a < b ? -1 : 1;
  }
  if (s_.size() == other.size()) return 0;
  return s_.size() < other.size() ? -1 : 1;
}

std::wstring_view TokenizeView(std::wstring_view text, std::wstring_view delimiters, int& pos) {
  if (pos < 0 || static_cast<std::size_t>(pos) >= text.size()) {
    pos = -1;
    return std::wstring_view();
  }
  const std::size_t begin = text.find_first_not_of(delimiters, static_cast<std::size_t>(pos));
  if (begin == std::wstring_view::npos) {
    pos = -1;
    return std::wstring_view();
  }
  std::size_t end = text.find_first_of(delimiters, begin);
  if (end == std::wstring_view::npos) end = text.size();
  pos = static_cast<int>(end) + 1;
  return text.substr(begin, end - begin);
}

bool AfxExtractSubString(CString& out, const CString& full, int index, wchar_t separator) {
  const std::wstring& s = full.wstr();
  std::size_t begin = 0;
  for (int i = 0; i < index; ++i) {
    const std::size_t at = s.find(separator, begin);
    if (at == std::wstring::npos) {
      out.Empty();
      return false;
    }
    begin = at + 1;
  }
  std::size_t end = s.find(separator, begin);
  if (end == std::wstring::npos) end = s.size();
  out = CString(s.substr(begin, end - begin));
  return true;
}

namespace {

template <typename T>
T ParseSaturating(std::wstring_view text, T min_value, T max_value) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == L' ' || (text[i] >= L'\t' && text[i] <= L'\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == L'+' || text[i] == L'-')) {
    negative = text[i] == L'-';
    ++i;
  }
  // Accumulate as a negative number so that the minimum fits.
  T value = 0;
  bool overflow = false;
  for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i) {
    const T digit = static_cast<T>(text[i] - L'0');
    if (value < (min_value + digit) / 10) {
      overflow = true;
    } else {
      value = static_cast<T>(value * 10 - digit);
    }
  }
  if (overflow) return negative ? min_value : max_value;
  if (!negative) return value == min_value ? max_value : static_cast<T>(-value);
  return value;
}

}  // namespace

int32_t WToL(std::wstring_view text) { return ParseSaturating<int32_t>(text, INT32_MIN, INT32_MAX); }
int64_t WToI64(std::wstring_view text) { return ParseSaturating<int64_t>(text, INT64_MIN, INT64_MAX); }

std::wstring WideFromUtf8(std::string_view utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  std::size_t i = 0;
  while (i < utf8.size()) {
    const unsigned char c = static_cast<unsigned char>(utf8[i]);
    uint32_t cp;
    int extra;
    if (c < 0x80) {
      cp = c;
      extra = 0;
    } else if ((c & 0xE0) == 0xC0) {
      cp = c & 0x1F;
      extra = 1;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F;
      extra = 2;
    } else if ((c & 0xF8) == 0xF0) {
      cp = c & 0x07;
      extra = 3;
    } else {
      cp = 0xFFFD;
      extra = 0;
    }
    ++i;
    for (int k = 0; k < extra; ++k, ++i) {
      if (i >= utf8.size() || (static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
        cp = 0xFFFD;
        break;
      }
      cp = (cp << 6) | (static_cast<unsigned char>(utf8[i]) & 0x3F);
    }
    if constexpr (sizeof(wchar_t) == 2) {
      if (cp >= 0x10000) {
        cp -= 0x10000;
        out += static_cast<wchar_t>(0xD800 + (cp >> 10));
        out += static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        continue;
      }
    }
    out += static_cast<wchar_t>(cp);
  }
  return out;
}

std::string Utf8FromWide(std::wstring_view wide) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    uint32_t cp = static_cast<uint32_t>(wide[i]);
    if constexpr (sizeof(wchar_t) == 2) {
      cp &= 0xFFFF;
      if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < wide.size()) {
        const uint32_t low = static_cast<uint32_t>(wide[i + 1]) & 0xFFFF;
        if (low >= 0xDC00 && low < 0xE000) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
    }
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}

std::u16string Utf16FromWide(std::wstring_view wide) {
  std::u16string out;
  out.reserve(wide.size());
  for (wchar_t c : wide) {
    const uint32_t cp = static_cast<uint32_t>(c);
    if constexpr (sizeof(wchar_t) > 2) {
      if (cp >= 0x10000) {
        out += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
        out += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        continue;
      }
    }
    out += static_cast<char16_t>(cp);
  }
  return out;
}

std::wstring WideFromUtf16(std::u16string_view utf16) {
  std::wstring out;
  out.reserve(utf16.size());
  for (std::size_t i = 0; i < utf16.size(); ++i) {
    uint32_t cp = utf16[i];
    if constexpr (sizeof(wchar_t) > 2) {
      if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 && utf16[i + 1] < 0xE000) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
        ++i;
      }
    }
    out += static_cast<wchar_t>(cp);
  }
  return out;
}

}  // namespace tsm
