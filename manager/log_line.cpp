#include "manager/log_line.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

namespace tsm {

wchar_t* WriteDecimal(wchar_t* out, int64_t value) {
  wchar_t digits[kDecimalMax];
  wchar_t* const end = digits + kDecimalMax;
  return std::copy(WriteDecimalBefore(end, value), end, out);
}

void AppendDecimal(std::wstring& out, int64_t value) {
  wchar_t digits[kDecimalMax];
  wchar_t* const end = digits + kDecimalMax;
  const wchar_t* begin = WriteDecimalBefore(end, value);
  out.append(begin, static_cast<std::size_t>(end - begin));
}

std::wstring FormatLogLine(std::wstring_view prefix, const wchar_t* format, const text_internal::FormatArg* args,
                           std::size_t count) {
  using text_internal::FormatArg;
  if (format == nullptr) format = L"";
  const wchar_t* const format_end = format + std::wcslen(format);
  // Nothing written outgrows the prefix, the format and each argument's text
  // or number.
  std::size_t capacity = prefix.size() + static_cast<std::size_t>(format_end - format);
  for (std::size_t i = 0; i < count; ++i) {
    capacity += args[i].kind == FormatArg::Kind::kText ? args[i].text_length : kDecimalMax;
  }
  std::wstring line(capacity, L'\0');
  wchar_t* out = std::copy(prefix.begin(), prefix.end(), line.data());
  std::size_t next = 0;
  for (const wchar_t* run = format;;) {
    const wchar_t* percent = std::wmemchr(run, L'%', static_cast<std::size_t>(format_end - run));
    if (percent == nullptr) {
      out = std::copy(run, format_end, out);
      break;
    }
    out = std::copy(run, percent, out);
    const wchar_t* q = percent + 1;
    if (*q == L'%') {
      *out++ = L'%';
      run = q + 1;
      continue;
    }
    bool wide64 = false;
    if (q[0] == L'I' && q[1] == L'6' && q[2] == L'4') {
      wide64 = true;
      q += 3;
    } else if (q[0] == L'l' && q[1] == L'l') {
      wide64 = true;
      q += 2;
    } else if (*q == L'l' || *q == L'h') {
      ++q;
    }
    const wchar_t conversion = *q;
    if (conversion != L'd' && conversion != L'i' && conversion != L's') {
      return text_internal::FormatArgs(format, args, count, prefix);
    }
    // A missing argument prints as nothing; text prints as it is under any
    // conversion; "%d" prints 32 bits unless it is a 64-bit conversion.
    if (next < count) {
      const FormatArg& arg = args[next];
      if (arg.kind == FormatArg::Kind::kText) {
        out = std::copy(arg.text, arg.text + arg.text_length, out);
      } else {
        out = WriteDecimal(out, conversion == L's' || wide64 ? arg.number : static_cast<int32_t>(arg.number));
      }
    }
    ++next;
    run = q + 1;
  }
  line.resize(static_cast<std::size_t>(out - line.data()));
  return line;
}

}  // namespace tsm
