#include "platform/virtual_clock.h"

#include <algorithm>

#include "platform/civil_date.h"
#include "platform/time_of_day.h"

namespace tsm {

class VirtualClock::Timer final : public ITimerWait {
 public:
  explicit Timer(VirtualClock* clock) : clock_(clock) {}

  ~Timer() override {
    std::lock_guard<std::mutex> guard(clock_->lock_);
    auto& timers = clock_->timers_;
    timers.erase(std::remove(timers.begin(), timers.end(), this), timers.end());
    clock_->changed_.notify_all();
  }

  void Arm(int64_t due_ms, int64_t period_ms) override {
    std::lock_guard<std::mutex> guard(clock_->lock_);
    pending_arm_ = false;
    if (period_ms < 0) {
      // Refused, as the kernel's waitable timer refuses a negative period.
      clock_->changed_.notify_all();
      return;
    }
    armed_ = true;
    due_ = clock_->now_ms_ + due_ms;
    period_ = period_ms;
    sequence_ = clock_->next_sequence_++;
    clock_->changed_.notify_all();
  }

  void SignalStop() override {
    std::lock_guard<std::mutex> guard(clock_->lock_);
    stop_ = true;
    wake_.notify_all();
  }

  int Wait() override {
    std::unique_lock<std::mutex> guard(clock_->lock_);
    // Coming back to the wait ends the expiry that Advance is waiting for,
    // unless that expiry fired before this thread was waiting: it is taken
    // now and its callback is still to come.
    if (!signalled_) {
      in_flight_ = false;
      clock_->changed_.notify_all();
    }
    wake_.wait(guard, [this] { return stop_ || signalled_; });
    if (stop_) {
      // The stop wins: no callback follows for a pending expiry.
      stop_ = false;
      in_flight_ = false;
      clock_->changed_.notify_all();
      return 0;
    }
    signalled_ = false;
    return 1;
  }

  VirtualClock* clock_;
  // All guarded by clock_->lock_.
  bool pending_arm_ = true;  // created, its thread has not armed it yet
  bool armed_ = false;
  bool signalled_ = false;
  bool stop_ = false;
  bool in_flight_ = false;  // expiry delivered, callback not yet finished
  // Wakes only this timer's thread: with a thousand timers waiting, one
  // shared condition would wake them all on every expiry.
  std::condition_variable wake_;
  int64_t due_ = 0;
  int64_t period_ = 0;
  uint64_t sequence_ = 0;
};

VirtualClock::VirtualClock(int64_t start_utc_ms) : now_ms_(start_utc_ms) {}

VirtualClock::~VirtualClock() = default;

void VirtualClock::AddQuiescer(std::function<void()> quiesce) {
  std::lock_guard<std::mutex> guard(lock_);
  quiescers_.push_back(std::move(quiesce));
}

void VirtualClock::Quiesce() {
  std::vector<std::function<void()>> quiescers;
  {
    std::lock_guard<std::mutex> guard(lock_);
    quiescers = quiescers_;
  }
  for (auto& quiesce : quiescers) quiesce();
}

void VirtualClock::Advance(int64_t ms) {
  int64_t target;
  {
    std::lock_guard<std::mutex> guard(lock_);
    target = now_ms_ + ms;
  }
  for (;;) {
    Quiesce();
    std::unique_lock<std::mutex> guard(lock_);
    // A timer whose thread has not armed it yet would be missed: wait for it.
    changed_.wait(guard, [this] {
      return std::none_of(timers_.begin(), timers_.end(), [](Timer* t) { return t->pending_arm_ || t->in_flight_; });
    });
    Timer* next = nullptr;
    for (Timer* t : timers_) {
      if (!t->armed_ || t->due_ > target) continue;
      if (next == nullptr || t->due_ < next->due_ || (t->due_ == next->due_ && t->sequence_ < next->sequence_)) {
        next = t;
      }
    }
    if (next == nullptr) {
      now_ms_ = std::max(now_ms_, target);
      return;
    }
    now_ms_ = std::max(now_ms_, next->due_);
    next->signalled_ = true;
    next->in_flight_ = true;
    next->wake_.notify_one();
    if (next->period_ > 0) {
      next->due_ += next->period_;
    } else {
      next->armed_ = false;
    }
    changed_.notify_all();
    Timer* fired = next;
    changed_.wait(guard, [this, fired] {
      return std::find(timers_.begin(), timers_.end(), fired) == timers_.end() || !fired->in_flight_;
    });
  }
}

void VirtualClock::SetLocalOffsetSeconds(int32_t seconds) {
  std::lock_guard<std::mutex> guard(lock_);
  local_offset_s_ = seconds;
}

int64_t VirtualClock::SleptMs() const {
  std::lock_guard<std::mutex> guard(lock_);
  return slept_ms_;
}

int VirtualClock::ArmedTimerCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(std::count_if(timers_.begin(), timers_.end(), [](Timer* t) { return t->armed_; }));
}

void VirtualClock::WaitForArming() {
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] {
    return std::none_of(timers_.begin(), timers_.end(), [](Timer* t) { return t->pending_arm_; });
  });
}

int64_t VirtualClock::NowMs() {
  std::lock_guard<std::mutex> guard(lock_);
  return now_ms_;
}

int64_t VirtualClock::UtcSeconds() {
  std::lock_guard<std::mutex> guard(lock_);
  return now_ms_ >= 0 ? now_ms_ / 1000 : -((-now_ms_ + 999) / 1000);
}

void VirtualClock::Sleep(int64_t ms) {
  std::lock_guard<std::mutex> guard(lock_);
  slept_ms_ += ms;
}

std::unique_ptr<ITimerWait> VirtualClock::CreateTimerWait(const std::wstring& /*name*/) {
  auto timer = std::make_unique<Timer>(this);
  std::lock_guard<std::mutex> guard(lock_);
  timers_.push_back(timer.get());
  return timer;
}

bool VirtualClock::ToUtc(int64_t seconds, std::tm* out) { return platform::GmTime(seconds, out); }

bool VirtualClock::ToLocal(int64_t seconds, std::tm* out) {
  int32_t offset;
  {
    std::lock_guard<std::mutex> guard(lock_);
    offset = local_offset_s_;
  }
  if (!platform::GmTime(seconds + offset, out)) return false;
  out->tm_isdst = 0;
  return true;
}

int64_t VirtualClock::FromLocal(std::tm* in) {
  int32_t offset;
  {
    std::lock_guard<std::mutex> guard(lock_);
    offset = local_offset_s_;
  }
  // timegm without the C library's time zone.
  const int64_t days = platform::DaysFromCivil(in->tm_year + 1900, in->tm_mon + 1, in->tm_mday);
  const int64_t utc = days * 86400 + in->tm_hour * 3600 + in->tm_min * 60 + in->tm_sec;
  return utc - offset;
}

}  // namespace tsm
