#include "basedata/event_queue.h"

#include "platform/thread.h"

namespace tsm::basedata {

namespace {
thread_local bool t_on_event_thread = false;
// Kept reachable for the life of the process: the event thread uses it until
// the process ends.
EventQueue* g_queue = nullptr;
std::once_flag g_queue_once;
}  // namespace

EventQueue& EventQueue::Instance() {
  std::call_once(g_queue_once, [] { g_queue = new EventQueue(); });
  return *g_queue;
}

void EventQueue::Post(QueuedEvent event) {
  bool start = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    queue_.push_back(std::move(event));
    if (!running_) {
      running_ = true;
      start = true;
    }
  }
  if (start) {
    if (StartThread([this] { Run(); }, 0) != 0) {
      // No thread: the events wait for the next Post to try again.
      std::lock_guard<std::mutex> guard(lock_);
      running_ = false;
      idle_.notify_all();
    }
    return;
  }
  work_.notify_one();
}

void EventQueue::WaitDelivered() {
  if (t_on_event_thread) return;
  std::unique_lock<std::mutex> guard(lock_);
  idle_.wait(guard, [this] { return !running_ || (queue_.empty() && !busy_); });
}

void EventQueue::Run() {
  t_on_event_thread = true;
  std::unique_lock<std::mutex> guard(lock_);
  for (;;) {
    work_.wait(guard, [this] { return !queue_.empty(); });
    QueuedEvent event = std::move(queue_.front());
    queue_.pop_front();
    busy_ = true;
    guard.unlock();
    Deliver(event);
    guard.lock();
    busy_ = false;
    if (queue_.empty()) idle_.notify_all();
  }
}

void EventQueue::Deliver(QueuedEvent& event) {
  if (event.connection->open.load(std::memory_order_acquire)) {
    if (event.kind == QueuedEvent::Kind::kUpdate) {
      event.sink->OnUpdate(event.id, event.text);
    } else {
      event.sink->OnReplace(event.id);
    }
  }
  event.sink->Release();
  event.sink = nullptr;
}

}  // namespace tsm::basedata
