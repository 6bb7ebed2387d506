#include "slicehost/host_loop.h"

#include <algorithm>

#include "slicehost/thread_cpu_ledger.h"

namespace tsm::sim {

namespace {

// With nothing to do the timer still stays armed, far ahead: a virtual clock
// waits for every timer it knows to be armed before it moves.
constexpr int64_t kIdleMs = 365LL * 24 * 3600 * 1000;

}  // namespace

HostLoop::HostLoop(IClock& clock) : clock_(clock), wait_(clock.CreateTimerWait(L"")) {
  std::lock_guard<std::mutex> guard(lock_);
  ArmForEarliest();
  thread_ = std::thread([this] { Run(); });
  loop_thread_id_ = thread_.get_id();
}

HostLoop::~HostLoop() { Stop(); }

void HostLoop::ArmForEarliest() {
  const int64_t now = clock_.NowMs();
  if (actions_.empty()) {
    if (armed_due_ < 0) {
      wait_->Arm(kIdleMs, 0);
      armed_due_ = now + kIdleMs;
    }
    return;
  }
  const int64_t earliest = actions_.front().due;
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
  const int64_t due = clock_.NowMs() + std::max<int64_t>(0, delay_ms);
  actions_.push_back(Waiting{due, sequence, std::move(action)});
  std::push_heap(actions_.begin(), actions_.end(), RunsLater);
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
      if (actions_.empty() || actions_.front().due > clock_.NowMs()) break;
      std::pop_heap(actions_.begin(), actions_.end(), RunsLater);
      Action action = std::move(actions_.back().action);
      actions_.pop_back();
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
      dropped_count_ += actions_.size();
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
  std::vector<Waiting> dropped;
  {
    std::lock_guard<std::mutex> guard(lock_);
    dropped.swap(actions_);
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
  return actions_.size();
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
  return actions_.empty() ? -1 : actions_.front().due;
}

}  // namespace tsm::sim
