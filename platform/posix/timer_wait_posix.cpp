// POSIX has no waitable timers: the timer and its stop event share one
// condition variable, so that the thread can wait for either.
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/clock.h"

namespace tsm::platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

class CondVarTimerWait final : public ITimerWait {
 public:
  void Arm(int64_t due_ms, int64_t period_ms) override {
    if (period_ms < 0) return;  // refused, as a kernel waitable timer refuses it
    {
      std::lock_guard<std::mutex> guard(lock_);
      armed_ = true;
      due_ = SteadyClock::now() + std::chrono::milliseconds(due_ms);
      period_ = std::chrono::milliseconds(period_ms);
    }
    // A waiter on another thread must see a deadline that moved earlier, as
    // with a kernel timer re-armed from any thread.
    cv_.notify_all();
  }

  void SignalStop() override {
    {
      std::lock_guard<std::mutex> guard(lock_);
      stop_ = true;
    }
    cv_.notify_all();
  }

  int Wait() override {
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
      if (stop_) {
        stop_ = false;
        return 0;
      }
      if (armed_) {
        const auto now = SteadyClock::now();
        if (now >= due_) {
          if (period_.count() > 0) {
            // Missed periods collapse into one expiry, as with a kernel timer.
            while (due_ <= now) due_ += period_;
          } else {
            armed_ = false;
          }
          return 1;
        }
        cv_.wait_until(guard, due_);
      } else {
        cv_.wait(guard);
      }
    }
  }

 private:
  std::mutex lock_;  // guards every member below
  std::condition_variable cv_;
  bool stop_ = false;
  bool armed_ = false;
  SteadyClock::time_point due_;
  std::chrono::milliseconds period_{0};
};

}  // namespace

std::unique_ptr<ITimerWait> CreateRealTimerWait(const std::wstring& /*name*/) {
  return std::make_unique<CondVarTimerWait>();
}

}  // namespace tsm::platform
