// Windows: a named auto-reset waitable timer and an unnamed auto-reset stop
// event, waited on together (stop event first, so it wins a tie).
#include <windows.h>

#include "platform/clock.h"
#include "platform/win/handle_win.h"

namespace tsm::platform {

namespace {

class KernelTimerWait final : public ITimerWait {
 public:
  // Kernel object names are session-wide: the process id keeps two processes
  // whose timer services share an address from sharing a timer.
  explicit KernelTimerWait(const std::wstring& name)
      : stop_(CreateEventW(nullptr, FALSE, FALSE, nullptr)),
        timer_(CreateWaitableTimerW(nullptr, FALSE, name.empty() ? nullptr : QualifiedName(name).c_str())) {}

  void Arm(int64_t due_ms, int64_t period_ms) override {
    // SetWaitableTimer fails on a negative period; not asking makes that so
    // whatever the system does.
    if (period_ms < 0) return;
    LARGE_INTEGER due;
    due.QuadPart = -due_ms * 10000;  // negative: relative, in 100 ns units
    SetWaitableTimer(timer_.get(), &due, static_cast<LONG>(period_ms), nullptr, nullptr, FALSE);
  }

  void SignalStop() override { SetEvent(stop_.get()); }

  static std::wstring QualifiedName(const std::wstring& name) {
    return std::to_wstring(GetCurrentProcessId()) + L"." + name;
  }

  int Wait() override {
    HANDLE handles[2] = {stop_.get(), timer_.get()};
    const DWORD result = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    // Anything but the stop event counts as an expiry, a failed wait included.
    return result == WAIT_OBJECT_0 ? 0 : 1;
  }

 private:
  UniqueHandle stop_;
  UniqueHandle timer_;
};

}  // namespace

std::unique_ptr<ITimerWait> CreateRealTimerWait(const std::wstring& name) {
  return std::make_unique<KernelTimerWait>(name);
}

}  // namespace tsm::platform
