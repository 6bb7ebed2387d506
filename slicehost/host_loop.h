// `HostLoop`: the platform host's own thread. Everything the host does to the
// slice manager (SetStage, SetTopic, writes into order records) is posted
// here as an action and runs on this one thread, so "ORDERSET.LOCK" and
// "ORDERSET.UNLOCK" arrive on the same thread, as the manager requires.
//
// Actions are scheduled on the injected clock: `Post(delay_ms, action)` runs
// the action at clock time now + delay_ms; actions due at the same moment run
// in posting order. The thread waits on an `ITimerWait` of that clock, so on
// a `VirtualClock` the actions run inside `Advance`, interleaved in time order
// with the manager's own timers, and a scenario replays the same way every
// time. On the wall clock they run when their time comes.
//
// Threading: `Post` and the helpers may be called from any thread, the loop's
// own included (an action may post further actions). An action posted with
// delay 0 from the test's thread runs at the next `Advance(0)` (or later
// step), never inside `Post`. The loop holds no lock of its own while an
// action runs. `Stop` (also run by the destructor) must not be called from an
// action; it drops the actions not yet run and joins only the loop's own
// thread, which waits for nothing of the manager's.
//
// The loop's timer is armed from the posting thread; every clock of the
// project accepts arming from any thread and wakes a waiter whose deadline
// moved earlier.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "slicehost/sim_host.h"
#include "tradeslice/clock.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

class HostLoop {
 public:
  using Action = std::function<void()>;

  // Starts the loop's thread. `clock` must outlive the loop.
  explicit HostLoop(IClock& clock);
  ~HostLoop();
  HostLoop(const HostLoop&) = delete;
  HostLoop& operator=(const HostLoop&) = delete;

  // Runs `action` on the loop at clock time now + delay_ms (a negative delay
  // counts as 0). Returns the action's sequence number (1, 2, ...); after
  // Stop the action is dropped and 0 is returned.
  uint64_t Post(int64_t delay_ms, Action action);
  // Post with delay 0: on a virtual clock the caller then advances (0 or
  // more) to run it.
  uint64_t RunNow(Action action) { return Post(0, std::move(action)); }

  // The host's calls, posted. `manager` must stay alive until the action has
  // run; the loop takes no reference on it.
  uint64_t PostSetStage(INordaManager* manager, int32_t kind, int32_t stage, int64_t delay_ms = 0);
  uint64_t PostSetTopic(INordaManager* manager, const std::wstring& topic, int32_t param1, int32_t param2,
                        const std::wstring& text, Variant data, int64_t delay_ms = 0);
  // One batch write (BeginUpdate, SetData per field, EndUpdate) into a host
  // record; the loop holds a reference on `record` until the action has run.
  uint64_t PostWrite(IBaseData* record, FieldList fields, int64_t delay_ms = 0);

  // Posts `action` with delay 0 and blocks until it has run. Only for callers
  // on another thread while the clock moves by itself (the wall clock, or a
  // virtual clock that a third thread advances); returns false at once after
  // Stop, or from the loop's own thread, where the action is run in place.
  bool PostAndWait(Action action);

  // Stops the thread; actions not yet run are dropped (and counted).
  void Stop();

  // Runs `settle` on the loop's thread after every action, before the next
  // one: a host that wants a reproducible order lets the manager's reactions
  // (record change events, the volume worker) finish there. Set it before
  // the first action is posted.
  void SetAfterAction(Action settle);
  // Arms the loop's timer again for the moment it is armed for. A virtual
  // clock breaks ties by arming order: called between clock steps, it puts
  // the loop's next actions after every timer armed so far for the same
  // moment. Not from an action.
  void ArmAgain();

  bool IsLoopThread() const;
  // Actions waiting, run so far, and dropped by Stop.
  size_t Pending() const;
  uint64_t ActionsRun() const;
  uint64_t ActionsDropped() const;
  // Clock time at which the earliest waiting action is due; -1 when none.
  int64_t NextDueMs() const;

 private:
  // The waiting actions, run by due time, then in the order posted. Most
  // are due at once when posted, and so come in the order they run: those
  // wait in a plain queue, the others (due later) in a heap beside it.
  // Neither allocates per action.
  class Waiting {
   public:
    void Push(int64_t now, int64_t due, uint64_t sequence, Action action);
    bool Empty() const { return in_order_.empty() && heap_.empty(); }
    size_t Size() const { return in_order_.size() + heap_.size(); }
    int64_t EarliestDue() const { return Earliest().due; }  // not when Empty
    Action PopEarliest();                                   // not when Empty

   private:
    struct Item {
      int64_t due;
      uint64_t sequence;
      Action action;
    };
    static bool RunsLater(const Item& a, const Item& b) {
      return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
    }
    bool HeapFirst() const { return in_order_.empty() || (!heap_.empty() && RunsLater(in_order_.front(), heap_.front())); }
    const Item& Earliest() const { return HeapFirst() ? heap_.front() : in_order_.front(); }

    std::deque<Item> in_order_;  // each runs after the one before it
    std::vector<Item> heap_;     // a heap by RunsLater: front runs first
  };

  void Run();
  // Arms the timer for the earliest waiting action when it is not armed for
  // that moment or earlier already. Called under lock_.
  void ArmForEarliest();

  IClock& clock_;
  std::unique_ptr<ITimerWait> wait_;
  mutable std::mutex lock_;         // guards every member below
  std::condition_variable ran_;     // signalled after each action, for PostAndWait
  Waiting actions_;                 // waiting actions
  uint64_t next_sequence_ = 1;
  int64_t armed_due_ = -1;          // clock time the timer is armed for; -1: idle
  bool stopping_ = false;
  uint64_t run_count_ = 0;
  uint64_t dropped_count_ = 0;
  Action after_action_;             // run after each action (SetAfterAction)
  std::thread::id loop_thread_id_;
  std::thread thread_;              // written only by the constructor and Stop
};

}  // namespace tsm::sim
