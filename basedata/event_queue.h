// The component's one event thread: change and replace events of every
// object are queued here and delivered one at a time, in the order they were
// posted. Each queued event holds a reference on its sink; an event whose
// connection was closed before its turn is dropped unseen.
//
// Threading: `Post` and `WaitDelivered` may be called from any thread. Sinks
// are called on the event thread with no lock of the queue held, so a sink may
// call back into any object (and post more events).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "tradeslice/base_data_api.h"

namespace tsm::basedata {

// One advise of a sink on an object. Closing it is how Unadvise tells queued
// events not to reach the sink, without waiting for a delivery in progress.
struct Connection {
  std::atomic<bool> open{true};
};

struct QueuedEvent {
  enum class Kind { kUpdate, kReplace };
  Kind kind = Kind::kUpdate;
  int32_t id = 0;
  std::wstring text;
  IBaseDataEvents* sink = nullptr;  // a reference of the event's own
  std::shared_ptr<Connection> connection;
};

class EventQueue {
 public:
  // The process-wide queue; never destroyed, so that the detached thread
  // never outlives it.
  static EventQueue& Instance();

  EventQueue() = default;
  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  // Takes over the event's sink reference.
  void Post(QueuedEvent event);
  // Returns when every event posted so far has been delivered and the thread
  // is idle; at once on the event thread itself.
  void WaitDelivered();

 private:
  void Run();
  static void Deliver(QueuedEvent& event);

  std::mutex lock_;  // guards queue_, busy_ and running_
  std::condition_variable work_;
  std::condition_variable idle_;
  std::deque<QueuedEvent> queue_;
  bool busy_ = false;     // the thread is delivering an event taken off the queue
  bool running_ = false;  // the thread has been started
};

}  // namespace tsm::basedata
