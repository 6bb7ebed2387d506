#include <chrono>
#include <thread>

#include "platform/clock.h"
#include "platform/time_of_day.h"

namespace tsm {

namespace platform {
std::unique_ptr<ITimerWait> CreateRealTimerWait(const std::wstring& name);
}

namespace {

class WallClock final : public IClock {
 public:
  int64_t NowMs() override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  int64_t UtcSeconds() override {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  }
  void Sleep(int64_t ms) override { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
  std::unique_ptr<ITimerWait> CreateTimerWait(const std::wstring& name) override {
    return platform::CreateRealTimerWait(name);
  }
  bool ToUtc(int64_t seconds, std::tm* out) override { return platform::GmTime(seconds, out); }
  bool ToLocal(int64_t seconds, std::tm* out) override { return platform::LocalTime(seconds, out); }
  int64_t FromLocal(std::tm* in) override { return platform::MkTimeLocal(in); }
};

}  // namespace

IClock& RealClock() {
  static WallClock* clock = new WallClock();  // never destroyed: timer threads may outlive statics
  return *clock;
}

}  // namespace tsm
