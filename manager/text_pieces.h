// Splitting a text at one separator character without copying a piece out:
// the steps of TokenizeView (and of CString::Tokenize) with a one-character
// delimiter set, without that function's general search for any of several.
//
// Threading: pure functions.
#pragma once

#include <cstddef>
#include <string_view>

namespace tsm {

// The next piece of `text` at or after `pos`, skipping separators before it;
// `pos` moves past the piece. At the end: empty text and `pos` -1.
inline std::wstring_view NextPiece(std::wstring_view text, wchar_t separator, int& pos) {
  std::size_t at = pos < 0 ? text.size() : static_cast<std::size_t>(pos);
  while (at < text.size() && text[at] == separator) ++at;
  if (at >= text.size()) {
    pos = -1;
    return std::wstring_view();
  }
  std::size_t end = at;
  while (end < text.size() && text[end] != separator) ++end;
  pos = static_cast<int>(end) + 1;
  return text.substr(at, end - at);
}

}  // namespace tsm
