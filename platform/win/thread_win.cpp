#include <windows.h>
#include <objbase.h>
#include <process.h>

#include <functional>
#include <memory>

#include "platform/thread.h"

namespace tsm {

namespace platform {

namespace {
unsigned __stdcall ThreadEntry(void* arg) {
  std::unique_ptr<std::function<void()>> body(static_cast<std::function<void()>*>(arg));
  (*body)();
  return 0;
}
}  // namespace

uint32_t StartNativeThread(std::function<void()>* body, std::size_t stack_bytes) {
  const uintptr_t handle = _beginthreadex(nullptr, static_cast<unsigned>(stack_bytes), &ThreadEntry, body,
                                          STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (handle == 0) {
    const DWORD error = GetLastError();
    return error != 0 ? error : ERROR_NOT_ENOUGH_MEMORY;
  }
  CloseHandle(reinterpret_cast<HANDLE>(handle));
  return 0;
}

}  // namespace platform

ComApartment::ComApartment() { entered_ = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
ComApartment::~ComApartment() {
  if (entered_) CoUninitialize();
}

}  // namespace tsm
