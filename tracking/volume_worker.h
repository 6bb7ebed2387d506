// What the volume worker thread shares with its slice manager: the worker
// event, and the object as the worker may see it. The block outlives the
// object when the worker is still running (the worker is never joined).
//
// Threading: `owner` is read and cleared only under `owner_lock`; the worker
// holds that lock for a whole round of checks, so an object that clears
// `owner` before it goes is never touched by the worker afterwards. The two
// counters are atomics, written by the worker and the object, read by anyone.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "manager/trade_slice_manager.h"
#include "platform/sync.h"

namespace tsm {

struct CTradeSliceManager::WorkerShared {
  CEvent event{true, false};  // the worker event: manual reset, not signalled
  std::mutex owner_lock;      // guards owner; held while the worker works on it
  CTradeSliceManager* owner = nullptr;
  // Rounds the worker has finished, its event reset after each. With the
  // event not signalled after a round, the worker is parked until the next
  // quote change sets it: that is how a lost wake-up shows.
  std::atomic<uint32_t> rounds_done{0};
  // Set by the object when it starts to stop the worker for its destruction,
  // just before it waits for the worker's round to end.
  std::atomic<bool> owner_leaving{false};
};

}  // namespace tsm
