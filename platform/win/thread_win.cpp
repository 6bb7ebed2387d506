#include <windows.h>
#include <objbase.h>
#include <process.h>

#include <cstdint>
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

void ReleaseStackBelowCaller(std::size_t keep_bytes) {
  constexpr uintptr_t kPage = 4096;
  const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (frame < keep_bytes + kPage) return;
  const uintptr_t end = (frame - keep_bytes) & ~(kPage - 1);
  // The stack's reservation holds, from its bottom: reserved pages, the
  // guard page, then the committed read-write run up to the top (under Wine
  // the whole stack is committed). Only that run's part below `end` goes back.
  MEMORY_BASIC_INFORMATION region{};
  if (VirtualQuery(reinterpret_cast<void*>(end - 1), &region, sizeof region) != sizeof region) return;
  auto at = reinterpret_cast<uintptr_t>(region.AllocationBase);
  while (at < end) {
    if (VirtualQuery(reinterpret_cast<void*>(at), &region, sizeof region) != sizeof region) return;
    const uintptr_t region_end = reinterpret_cast<uintptr_t>(region.BaseAddress) + region.RegionSize;
    if (region_end >= end) break;
    at = region_end;
  }
  if (at >= end || region.State != MEM_COMMIT || region.Protect != PAGE_READWRITE) return;
  // The protection is ignored by MEM_RESET but must be a valid value.
  VirtualAlloc(reinterpret_cast<void*>(at), end - at, MEM_RESET, PAGE_NOACCESS);
}

ComApartment::ComApartment() { entered_ = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)); }
ComApartment::~ComApartment() {
  if (entered_) CoUninitialize();
}

}  // namespace tsm
