#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

#include "platform/system_text.h"

namespace tsm {

std::wstring FromSystemCodePage(const std::string& narrow) {
  std::mbstate_t state{};
  const char* src = narrow.c_str();
  const std::size_t length = std::mbsrtowcs(nullptr, &src, 0, &state);
  if (length == static_cast<std::size_t>(-1)) {
    // Not valid in the locale's code page: keep the bytes as code units.
    return std::wstring(narrow.begin(), narrow.end());
  }
  std::wstring wide(length, L'\0');
  src = narrow.c_str();
  state = std::mbstate_t{};
  std::mbsrtowcs(wide.data(), &src, length, &state);
  return wide;
}

std::string ToSystemCodePage(const std::wstring& wide) {
  std::mbstate_t state{};
  const wchar_t* src = wide.c_str();
  const std::size_t length = std::wcsrtombs(nullptr, &src, 0, &state);
  if (length == static_cast<std::size_t>(-1)) {
    std::string narrow;
    for (wchar_t c : wide) narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return narrow;
  }
  std::string narrow(length, '\0');
  src = wide.c_str();
  state = std::mbstate_t{};
  std::wcsrtombs(narrow.data(), &src, length, &state);
  return narrow;
}

std::wstring SystemErrorText(uint32_t code) {
  char buffer[256];
  const char* text = strerror_r(static_cast<int>(code), buffer, sizeof buffer);
  return text != nullptr ? FromSystemCodePage(text) : std::wstring();
}

namespace platform {
void ShowNativeFailureMessage(const std::wstring& text) {
  std::string line = ToSystemCodePage(text);
  for (char& c : line) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}
}  // namespace platform

}  // namespace tsm
