// The volume-slice cancel worker: one long-lived thread that checks the
// symbols whose quotes changed and cancels the volume-sliced children that
// have seen enough traded volume since they started being watched. Quote
// changes only queue the symbol (on the data service's event thread), so that
// thread never waits on the host.
#include "tracking/volume_worker.h"

#include <mutex>

#include "manager/trade_slice_manager.h"
#include "platform/thread.h"

namespace tsm {

void CTradeSliceManager::StartVolumeWorker() {
  std::shared_ptr<WorkerShared> shared;
  {
    // Quote events read m_worker under this mutex (see WakeVolumeWorker).
    ScopedLock<CMutex> guard(m_mutexVolumeCheck);
    if (m_worker != nullptr) return;  // one worker per object
    m_worker = std::make_shared<WorkerShared>();
    m_worker->owner = this;
    shared = m_worker;
  }
  StartThread([shared] { VolumeWorkerBody(shared); }, 0);
}

void CTradeSliceManager::CloseWorkerEvent() {
  // A wait on a closed event returns at once: the worker runs one more round,
  // sees the running flag at 0 and ends.
  ScopedLock<CMutex> guard(m_mutexVolumeCheck);
  if (m_worker != nullptr) m_worker->event.Set();
}

// Called with m_mutexVolumeCheck held.
void CTradeSliceManager::WakeVolumeWorker() {
  if (m_worker != nullptr) m_worker->event.Set();
}

void CTradeSliceManager::StopVolumeWorkerForDestruction() {
  // m_worker itself stays until the members go: until the destructor has let
  // go of the listened records, a quote event may still set the event.
  std::shared_ptr<WorkerShared> shared;
  {
    ScopedLock<CMutex> guard(m_mutexVolumeCheck);
    shared = m_worker;
  }
  if (shared == nullptr) return;
  shared->owner_leaving.store(true);
  {
    std::lock_guard<std::mutex> guard(shared->owner_lock);
    shared->owner = nullptr;
  }
  shared->event.Set();
}

void CTradeSliceManager::VolumeWorkerBody(std::shared_ptr<WorkerShared> shared) {
  ComApartment apartment;
  {
    std::lock_guard<std::mutex> guard(shared->owner_lock);
    if (shared->owner == nullptr || shared->owner->m_nRunning == 0) return;
  }
  for (;;) {
    shared->event.Wait();
    std::lock_guard<std::mutex> guard(shared->owner_lock);
    CTradeSliceManager* self = shared->owner;
    if (self == nullptr) return;
    CStringArray symbols;
    {
      ScopedLock<CMutex> queue_guard(self->m_mutexVolumeCheck);
      symbols.swap(self->m_arrVolumeCheck);
      self->m_mapVolumeCheck.RemoveAll();
    }
    // The checks run after the queue's mutex is released: the data-event
    // thread takes the volume mutex first and this mutex inside it, so
    // checking under this mutex could deadlock against it.
    for (const CString& symbol : symbols) self->VolumeCheck(symbol);
    // Reset only after the checks: a wake-up set meanwhile is lost until the
    // next quote change (of any symbol, the queued one included: a change of
    // a queued symbol wakes the worker too). That ordering is the required one.
    shared->event.Reset();
    shared->rounds_done.fetch_add(1);
    if (self->m_nRunning == 0) return;
  }
}

namespace {

// Whether `traded` has reached `start + step`, without overflowing at either
// end of the 64-bit range (an absent volume reads as the smallest value).
bool VolumeReached(int64_t traded, int64_t start, int32_t step) {
  if (step >= 0) {
    return traded >= start &&
           static_cast<uint64_t>(traded) - static_cast<uint64_t>(start) >= static_cast<uint64_t>(step);
  }
  return traded >= start ||
         static_cast<uint64_t>(start) - static_cast<uint64_t>(traded) <= static_cast<uint64_t>(-static_cast<int64_t>(step));
}

}  // namespace

void CTradeSliceManager::VolumeCheck(const CString& symbol) {
  ScopedLock<CMutex> volume_guard(m_mutexVolume);
  void* slot = nullptr;
  if (!m_mapVolumeWatch.Lookup(symbol, slot)) return;
  auto* entry = static_cast<VolumeWatchEntry*>(slot);
  // Without a quote record there is no traded volume to compare.
  if (entry->pQuote == nullptr) return;
  const int64_t traded = entry->pQuote->GetInt64ById(6);
  // The keys are copied: a host that answers a cancel on this thread may
  // re-enter the object (the mutexes are recursive) and change the entry.
  const CStringArray level_keys = entry->arrLevelKeys;
  for (const CString& level_key : level_keys) {
    CString slice_id, params;
    void* start_slot = nullptr;
    if (!m_mapListenedSlice.Lookup(level_key, slice_id)) continue;
    if (!m_mapSliceParams.Lookup(slice_id, params)) continue;
    if (!m_mapStartVolume.Lookup(level_key, start_slot)) continue;
    const int64_t start = static_cast<int64_t>(reinterpret_cast<intptr_t>(start_slot));
    // The volume step is the first number of the parameters (the slicing
    // type, 3 for every watched child); it stays so.
    int pos = 0;
    const int32_t threshold = WToL(params.Tokenize(L",", pos).wstr());
    if (VolumeReached(traded, start, threshold)) {
      m_mapStartVolume.RemoveKey(level_key);
      ScopedLock<CMutex> slice_guard(m_mutexSlice);
      Log(L"[Volume Sliced Send Cancel order] " + level_key);
      SendTopic(L"TRADE.CANCELORDER", 2, 1, CString::Formatted(L"REPORTID=%s", level_key), nullptr);
    }
  }
}

}  // namespace tsm
