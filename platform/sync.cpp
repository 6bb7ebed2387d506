#include "platform/sync.h"

#include <chrono>

namespace tsm {

void CMutex::Lock() {
  const std::thread::id me = std::this_thread::get_id();
  std::unique_lock<std::mutex> guard(state_lock_);
  if (depth_ > 0 && owner_ == me) {
    ++depth_;
    return;
  }
  released_.wait(guard, [this] { return depth_ == 0; });
  owner_ = me;
  depth_ = 1;
}

bool CMutex::Unlock() {
  std::unique_lock<std::mutex> guard(state_lock_);
  if (depth_ == 0 || owner_ != std::this_thread::get_id()) return false;
  if (--depth_ == 0) {
    owner_ = std::thread::id();
    guard.unlock();
    released_.notify_one();
  }
  return true;
}

int CMutex::LevelsHeldByCaller() const {
  std::lock_guard<std::mutex> guard(state_lock_);
  return (depth_ > 0 && owner_ == std::this_thread::get_id()) ? depth_ : 0;
}

void CEvent::Set() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    signalled_ = true;
  }
  if (manual_reset_) {
    cv_.notify_all();
  } else {
    cv_.notify_one();
  }
}

void CEvent::Reset() {
  std::lock_guard<std::mutex> guard(lock_);
  signalled_ = false;
}

bool CEvent::Wait(int64_t timeout_ms) {
  std::unique_lock<std::mutex> guard(lock_);
  auto ready = [this] { return signalled_; };
  if (timeout_ms < 0) {
    cv_.wait(guard, ready);
  } else if (!cv_.wait_for(guard, std::chrono::milliseconds(timeout_ms), ready)) {
    return false;
  }
  if (!manual_reset_) signalled_ = false;
  return true;
}

}  // namespace tsm
