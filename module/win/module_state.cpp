#include "module/win/module_state.h"

#include <atomic>

#include "platform/module_hold.h"

namespace tsm::module {

namespace {
std::atomic<long> g_objects{0};
std::atomic<long> g_locks{0};
std::atomic<IClock*> g_clock{nullptr};
HMODULE g_module = nullptr;
}  // namespace

void ObjectCreated() { ++g_objects; }
void ObjectDestroyed() { --g_objects; }
void ServerLock() { ++g_locks; }
void ServerUnlock() { --g_locks; }
HRESULT CanUnloadNow() {
  return g_objects.load() == 0 && g_locks.load() == 0 && ModuleHolds() == 0 ? S_OK : S_FALSE;
}

void SetClockForNewObjects(IClock* clock) { g_clock = clock; }
IClock* ClockForNewObjects() { return g_clock.load(); }

void SetModuleHandle(HMODULE module) { g_module = module; }
HMODULE ModuleHandle() { return g_module; }

std::wstring ModuleFileName() {
  wchar_t path[MAX_PATH] = {};
  const DWORD length = GetModuleFileNameW(g_module, path, MAX_PATH);
  return std::wstring(path, length);
}

}  // namespace tsm::module
