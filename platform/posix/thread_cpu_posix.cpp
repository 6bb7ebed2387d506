#include <pthread.h>
#include <time.h>

#include "platform/thread_cpu.h"

namespace tsm {

struct ThreadCpuClock::Native {
  clockid_t clock;
};

namespace {
int64_t ReadClock(clockid_t clock) {
  timespec now{};
  if (clock_gettime(clock, &now) != 0) return -1;
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}
}  // namespace

ThreadCpuClock::ThreadCpuClock() = default;
ThreadCpuClock::~ThreadCpuClock() = default;
ThreadCpuClock::ThreadCpuClock(ThreadCpuClock&&) noexcept = default;
ThreadCpuClock& ThreadCpuClock::operator=(ThreadCpuClock&&) noexcept = default;

ThreadCpuClock ThreadCpuClock::OfCurrentThread() {
  ThreadCpuClock result;
  clockid_t clock;
  if (pthread_getcpuclockid(pthread_self(), &clock) == 0) result.native_.reset(new Native{clock});
  return result;
}

int64_t ThreadCpuClock::CurrentThreadNs() { return ReadClock(CLOCK_THREAD_CPUTIME_ID); }

// An ended thread's clock id is no longer valid: the read fails and gives -1.
int64_t ThreadCpuClock::ReadNs() const { return native_ ? ReadClock(native_->clock) : -1; }

}  // namespace tsm
