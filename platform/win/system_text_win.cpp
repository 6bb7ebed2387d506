#include <windows.h>

#include "platform/system_text.h"

namespace tsm {

std::wstring FromSystemCodePage(const std::string& narrow) {
  if (narrow.empty()) return std::wstring();
  const int length = MultiByteToWideChar(CP_ACP, 0, narrow.data(), static_cast<int>(narrow.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_ACP, 0, narrow.data(), static_cast<int>(narrow.size()), wide.data(), length);
  return wide;
}

std::string ToSystemCodePage(const std::wstring& wide) {
  if (wide.empty()) return std::string();
  const int length =
      WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_ACP, 0, wide.data(), static_cast<int>(wide.size()), narrow.data(), length, nullptr,
                      nullptr);
  return narrow;
}

std::wstring SystemErrorText(uint32_t code) {
  wchar_t* buffer = nullptr;
  const DWORD length =
      FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                     nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<wchar_t*>(&buffer),
                     0, nullptr);
  if (length == 0 || buffer == nullptr) return std::wstring();
  std::wstring text(buffer, length);
  // The system-allocated buffer is deliberately not released: the failure
  // path that asks for it keeps it, as the message box always has.
  return text;
}

namespace platform {
void ShowNativeFailureMessage(const std::wstring& text) { MessageBoxW(nullptr, text.c_str(), nullptr, MB_OK); }
}  // namespace platform

}  // namespace tsm
