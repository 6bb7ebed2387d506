#include <windows.h>

#include "platform/thread_cpu.h"
#include "platform/win/handle_win.h"

namespace tsm {

struct ThreadCpuClock::Native {
  platform::UniqueHandle thread;
};

namespace {
int64_t ReadThread(HANDLE thread) {
  FILETIME created, ended, kernel, user;
  if (!GetThreadTimes(thread, &created, &ended, &kernel, &user)) return -1;
  auto ticks = [](const FILETIME& t) {
    return (static_cast<int64_t>(t.dwHighDateTime) << 32) | static_cast<int64_t>(t.dwLowDateTime);
  };
  return (ticks(kernel) + ticks(user)) * 100;  // 100 ns units
}
}  // namespace

ThreadCpuClock::ThreadCpuClock() = default;
ThreadCpuClock::~ThreadCpuClock() = default;
ThreadCpuClock::ThreadCpuClock(ThreadCpuClock&&) noexcept = default;
ThreadCpuClock& ThreadCpuClock::operator=(ThreadCpuClock&&) noexcept = default;

ThreadCpuClock ThreadCpuClock::OfCurrentThread() {
  ThreadCpuClock result;
  HANDLE duplicate = nullptr;
  // The pseudo handle names whichever thread uses it: a real one is needed.
  if (DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &duplicate,
                      THREAD_QUERY_LIMITED_INFORMATION, FALSE, 0)) {
    result.native_.reset(new Native{platform::UniqueHandle(duplicate)});
  }
  return result;
}

int64_t ThreadCpuClock::CurrentThreadNs() { return ReadThread(GetCurrentThread()); }

// The handle keeps an ended thread's times readable.
int64_t ThreadCpuClock::ReadNs() const { return native_ ? ReadThread(native_->thread.get()) : -1; }

}  // namespace tsm
