#include "platform/sync.h"

#include <chrono>

namespace tsm {

void CMutex::Lock() {
  const std::thread::id me = std::this_thread::get_id();
  if (owner_.load(std::memory_order_relaxed) == me) {
    ++depth_;
    return;
  }
  std::unique_lock<std::mutex> guard(state_lock_);
  if (owner_.load(std::memory_order_relaxed) != std::thread::id()) {
    ++waiting_;
    released_.wait(guard, [this] { return owner_.load(std::memory_order_relaxed) == std::thread::id(); });
    --waiting_;
  }
  owner_.store(me, std::memory_order_relaxed);
  depth_ = 1;
}

bool CMutex::Unlock() {
  if (owner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return false;
  if (depth_ > 1) {
    --depth_;
    return true;
  }
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    depth_ = 0;
    owner_.store(std::thread::id(), std::memory_order_relaxed);
  }
  released_.notify_one();
  return true;
}

int CMutex::Waiting() const {
  std::lock_guard<std::mutex> guard(state_lock_);
  return waiting_;
}

int CMutex::LevelsHeldByCaller() const {
  return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id() ? depth_ : 0;
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

bool CEvent::IsSignalled() const {
  std::lock_guard<std::mutex> guard(lock_);
  return signalled_;
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
