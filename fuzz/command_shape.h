// Whether a text is a new-order command: one of the two templates filled in.
// A %s takes any text, commas included (nothing in a command is escaped), a
// %d, %ld or %I64d an optional minus sign and decimal digits.
//
// Threading: pure functions.
#pragma once

#include <string_view>

namespace tsm::fuzz {

bool MatchesFormat(std::wstring_view format, std::wstring_view text);
// Template A (first and following slices) or B (slice-all).
bool IsNewOrderCommand(std::wstring_view text);

}  // namespace tsm::fuzz
