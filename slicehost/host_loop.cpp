#include "slicehost/host_loop.h"

#include <algorithm>

#include "slicehost/thread_cpu_ledger.h"

namespace tsm::sim {

namespace {

// With nothing to do the timer still stays armed, far ahead: a virtual clock
// waits for every timer it knows to be armed before it moves.
constexpr int64_t kIdleMs = 365LL * 24 * 3600 * 1000;

}  // namespace

void HostLoop::Waiting::Push(int64_t now, int64_t due, uint64_t sequence, Action action) {
  Item item{due, sequence, std::move(action)};
  if (due <= now && (in_order_.empty() || !RunsLater(in_order_.back(), item))) {
    in_order_.push_back(std::move(item));
  } else {
    heap_.push_back(std::move(item));
    std::push_heap(heap_.begin(), heap_.end(), RunsLater);
  }
}

HostLoop::Action HostLoop::Waiting::PopEarliest() {
  Action action;
  if (HeapFirst()) {
    std::pop_heap(heap_.begin(), heap_.end(), RunsLater);
    action = std::move(heap_.back().action);
    heap_.pop_back();
  } else {
    action = std::move(in_order_.front().action);
    in_order_.pop_front();
  }
  return action;
}

HostLoop::HostLoop(IClock& clock) : clock_(clock), wait_(clock.CreateTimerWait(L"")) {
  std::lock_guard<std::mutex> guard(lock_);
  ArmForEarliest();
  thread_ = std::thread([this] { Run(); });
  loop_thread_id_ = thread_.get_id();
}

HostLoop::~HostLoop() { Stop(); }

void HostLoop::ArmForEarliest() {
  const int64_t now = clock_.NowMs();
  if (actions_.Empty()) {
    if (armed_due_ < 0) {
      wait_->Arm(kIdleMs, 0);
      armed_due_ = now + kIdleMs;
    }
    return;
  }
  const int64_t earliest = actions_.EarliestDue();
  if (armed_due_ >= 0 && armed_due_ <= earliest) return;
  wait_->Arm(std::max<int64_t>(0, earliest - now), 0);
  armed_due_ = earliest;
}

uint64_t HostLoop::Post(int64_t delay_ms, Action action) {
  std::lock_guard<std::mutex> guard(lock_);
  if (stopping_) {
    ++dropped_count_;
    return 0;
  }
  const uint64_t sequence = next_sequence_++;
  const int64_t now = clock_.NowMs();
  actions_.Push(now, now + std::max<int64_t>(0, delay_ms), sequence, std::move(action));
  ArmForEarliest();
  return sequence;
}

uint64_t HostLoop::PostSetStage(INordaManager* manager, int32_t kind, int32_t stage, int64_t delay_ms) {
  return Post(delay_ms, [manager, kind, stage] { manager->SetStage(kind, stage); });
}

uint64_t HostLoop::PostSetTopic(INordaManager* manager, const std::wstring& topic, int32_t param1, int32_t param2,
                                const std::wstring& text, Variant data, int64_t delay_ms) {
  return Post(delay_ms, [manager, topic, param1, param2, text, data]() mutable {
    manager->SetTopic(topic, param1, param2, text, &data);
  });
}

uint64_t HostLoop::PostWrite(IBaseData* record, FieldList fields, int64_t delay_ms) {
  record->AddRef();
  // The reference goes with the action, also when Stop drops it unrun.
  std::shared_ptr<IBaseData> held(record, [](IBaseData* r) { r->Release(); });
  return Post(delay_ms, [held, fields = std::move(fields)] { SimHost::Write(held.get(), fields); });
}

bool HostLoop::PostAndWait(Action action) {
  if (IsLoopThread()) {
    action();
    return true;
  }
  auto done = std::make_shared<bool>(false);
  const uint64_t sequence = Post(0, [this, done, action = std::move(action)] {
    action();
    std::lock_guard<std::mutex> guard(lock_);
    *done = true;
  });
  if (sequence == 0) return false;
  std::unique_lock<std::mutex> guard(lock_);
  ran_.wait(guard, [this, &done] { return *done || stopping_; });
  return *done;
}

void HostLoop::Run() {
  ThreadCpuLedger::Instance().Note(ThreadClass::kHostLoop);
  for (;;) {
    const int woke = wait_->Wait();
    std::unique_lock<std::mutex> guard(lock_);
    if (stopping_) return;
    if (woke == 0) continue;
    // The timer has expired and is no longer armed.
    armed_due_ = -1;
    for (;;) {
      if (stopping_) return;
      if (actions_.Empty() || actions_.EarliestDue() > clock_.NowMs()) break;
      Action action = actions_.PopEarliest();
      guard.unlock();
      action();
      action = nullptr;
      guard.lock();
      Action settle = after_action_;
      guard.unlock();
      if (settle) settle();
      guard.lock();
      ++run_count_;
      ran_.notify_all();
    }
    ArmForEarliest();
  }
}

void HostLoop::Stop() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!stopping_) {
      stopping_ = true;
      dropped_count_ += actions_.Size();
    }
  }
  ran_.notify_all();
  if (thread_.joinable()) {
    wait_->SignalStop();
    thread_.join();
    // A timer that nothing waits on any more would hold up a virtual clock.
    wait_.reset();
  }
  // Dropped actions release what they hold outside the lock.
  Waiting dropped;
  {
    std::lock_guard<std::mutex> guard(lock_);
    std::swap(dropped, actions_);
  }
}

void HostLoop::SetAfterAction(Action settle) {
  std::lock_guard<std::mutex> guard(lock_);
  after_action_ = std::move(settle);
}

void HostLoop::ArmAgain() {
  std::lock_guard<std::mutex> guard(lock_);
  if (stopping_ || armed_due_ < 0) return;
  wait_->Arm(std::max<int64_t>(0, armed_due_ - clock_.NowMs()), 0);
}

bool HostLoop::IsLoopThread() const { return std::this_thread::get_id() == loop_thread_id_; }

size_t HostLoop::Pending() const {
  std::lock_guard<std::mutex> guard(lock_);
  return actions_.Size();
}

uint64_t HostLoop::ActionsRun() const {
  std::lock_guard<std::mutex> guard(lock_);
  return run_count_;
}

uint64_t HostLoop::ActionsDropped() const {
  std::lock_guard<std::mutex> guard(lock_);
  return dropped_count_;
}

int64_t HostLoop::NextDueMs() const {
  std::lock_guard<std::mutex> guard(lock_);
  return actions_.Empty() ? -1 : actions_.EarliestDue();
}

}  // namespace tsm::sim
