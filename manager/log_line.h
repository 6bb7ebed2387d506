// Log lines and command texts written straight into one string reserved up
// front. Every decision of the manager writes a log line, so the common
// conversions ("%s", "%d", "%ld", "%I64d", "%%") are written here in one
// pass over the format; any other conversion, a flag or a width hands the
// whole line to the general formatter. The text is exactly what
// CString::Format gives for the same format and arguments.
//
// Threading: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "data/text.h"

namespace tsm {

// Appends `value` in signed decimal.
void AppendDecimal(std::wstring& out, int64_t value);
// Writes `value` in signed decimal at `out`, which has room for kDecimalMax
// characters; returns the end of what it wrote.
wchar_t* WriteDecimal(wchar_t* out, int64_t value);

// `prefix` followed by `format` filled with `args`.
std::wstring FormatLogLine(std::wstring_view prefix, const wchar_t* format, const text_internal::FormatArg* args,
                           std::size_t count);

}  // namespace tsm
