#include <windows.h>
#include <objbase.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/module_hold.h"
#include "platform/thread.h"

namespace tsm {

namespace platform {

namespace {

struct ThreadStart {
  std::function<void()>* body;
  // A reference to the module that holds this code, the thread's own.
  HMODULE module;
};

// Ends by letting go of the module's hold and then of the thread's own module
// reference inside FreeLibraryAndExitThread, which does not return: once the
// count says the module may go, this thread runs none of its code again, and
// the module cannot be unmapped before the thread has left it.
DWORD WINAPI ThreadEntry(void* arg) {
  HMODULE module = nullptr;
  {
    std::unique_ptr<ThreadStart> start(static_cast<ThreadStart*>(arg));
    module = start->module;
    std::unique_ptr<std::function<void()>> body(start->body);
    (*body)();
  }
  ReleaseModule();
  FreeLibraryAndExitThread(module, 0);
}

}  // namespace

uint32_t StartNativeThread(std::function<void()>* body, std::size_t stack_bytes) {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&ThreadEntry),
                          &module)) {
    const DWORD error = GetLastError();
    return error != 0 ? error : ERROR_MOD_NOT_FOUND;
  }
  auto* start = new ThreadStart{body, module};
  HANDLE handle = CreateThread(nullptr, stack_bytes, &ThreadEntry, start, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
  if (handle == nullptr) {
    DWORD error = GetLastError();
    if (error == 0) error = ERROR_NOT_ENOUGH_MEMORY;
    delete start;
    FreeLibrary(module);
    return error;
  }
  CloseHandle(handle);
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
