// Timer-driven processing: a producer queues a text and arms a fixed timer id;
// the timer's callback stops it (every arming is one-shot) and `OnTimer`
// works the queue on the timer's own thread. Each queue is copied and emptied
// under its own lock and worked outside it; the end of slicing and the
// per-order step work under the order mutex.
#include "manager/trade_slice_manager.h"

#include <algorithm>
#include <unordered_set>

namespace tsm {

namespace {
bool IsFinalExecType(int32_t exec_type) {
  switch (exec_type) {
    case 3: case 5: case 7: case 8: case 10: case 21:
      return true;
    default:
      return false;
  }
}
}  // namespace

thread_local const CTradeSliceManager* CTradeSliceManager::t_callback_of_ = nullptr;

void CTradeSliceManager::OnTimerTick(unsigned id, void* context) {
  auto* self = static_cast<CTradeSliceManager*>(context);
  self->m_timer.StopTimer(id);
  {
    std::lock_guard<std::mutex> guard(self->m_lifeLock);
    if (self->m_bClosing) return;  // the host has let go: no new work
    ++self->m_nCallbacksRunning;
  }
  const CTradeSliceManager* outer = t_callback_of_;
  t_callback_of_ = self;
  try {
    self->OnTimer(id);
  } catch (...) {
    // Counted out below all the same; the timer service ignores it.
  }
  t_callback_of_ = outer;
  bool last_of_abandoned;
  {
    std::lock_guard<std::mutex> guard(self->m_lifeLock);
    --self->m_nCallbacksRunning;
    last_of_abandoned = self->m_bAbandoned && self->m_nCallbacksRunning == 0;
    self->m_lifeChanged.notify_all();
  }
  // The host's last release left the object to its last callback.
  if (last_of_abandoned) delete self;
}

void CTradeSliceManager::OnTimer(unsigned id) {
  if (id == kTimerSendQueue) {
    CStringArray commands;
    {
      ScopedLock<CMutex> guard(m_mutexSlice);
      commands.swap(m_arrSendQueue);
    }
    for (const CString& command : commands) SendSlicedOrder(command);
  } else if (id == kTimerFinish) {
    EndOfSlicing();
  } else if (id == kTimerRetire) {
    RetireRecords();
  } else if (id == kTimerFree) {
    FreeRetiredRecords();
  } else if (id == kTimerWaitOrders) {
    RetryWaitingOrders();
  } else if (id >= kFirstBatchTimer && id <= kLastBatchTimer) {
    SliceAllBatch(id);
  } else {
    OrderStep(id);
  }
}

void CTradeSliceManager::SliceAllBatch(unsigned id) {
  void* slot = nullptr;
  {
    ScopedLock<CMutex> guard(m_mutexSliceAll);
    const CString key = CString::Formatted(L"%d", id);
    m_mapSliceAllBatches.Lookup(key, slot);
    m_mapSliceAllBatches.RemoveKey(key);
  }
  if (slot == nullptr) return;
  std::unique_ptr<CStringArray> batch(static_cast<CStringArray*>(slot));
  for (const CString& command : *batch) SendSlicedOrder(command);
}

void CTradeSliceManager::EndOfSlicing() {
  CStringArray keys;
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    keys.swap(m_arrFinishLevelKeys);
  }
  for (const CString& key : keys) {
    Log(L"[Sliced Send End order] " + key);
    m_mutexOrder.Lock();
    int32_t index = -1;
    const bool has_index = m_mapOrderIndex.Lookup(key, index);
    void* slot = nullptr;
    const bool has_record = m_mapLevelKeyToOrderData.Lookup(key, slot);
    if (!(has_index && has_record && index >= 0)) {
      LogFormat(L"[Sliced Send End order] error:%s, %ld, %x, %x", key, index, has_index ? 1 : 0,
                has_record ? 1 : 0);
    }
    auto* parent = static_cast<CBaseData*>(slot);
    if (parent == nullptr) {
      Log(L"[Sliced Send End order] OriginalData is null.");
      m_mutexOrder.Unlock();
      continue;
    }
    const CString slice_id = parent->GetString(L"SliceID");
    const int32_t sliced_type = parent->GetLong(L"SlicedType", 0);
    if (m_mapSliceAllSet.Contains(slice_id)) {
      RemoveOrderData(key);
      m_mapOrderIndex.RemoveKey(key);
      m_mapFinishLevelKey.SetAt(key, key);
      m_mutexOrder.Unlock();
      Variant cookie = Variant::I4(static_cast<int32_t>(parent->GetCookie()));
      SendTopic(L"TRADE.TRANSFER.POSITION", 1, 1, CString(), &cookie);
      ReleaseRecord(parent);
    } else if (m_mapFinishLevelKey.Contains(key)) {
      Log(L"[Sliced Send End order] m_mapFinishLevelKey exist.");
      m_mutexOrder.Unlock();
    } else {
      // A parent of type 5 stays registered after its end, deliberately.
      if (sliced_type != 5) {
        m_mapOrderIndex.RemoveKey(key);
        RemoveOrderData(key);
      }
      m_mapFinishLevelKey.SetAt(key, key);
      m_mutexOrder.Unlock();
      Variant cookie = Variant::I4(static_cast<int32_t>(parent->GetCookie()));
      SendTopic(L"TRADE.HOT.MONTH", 1, 1, CString::Formatted(L"%ld", index), &cookie);
      if (sliced_type != 5) ReleaseRecord(parent);
    }
  }
}

void CTradeSliceManager::RetireRecords() {
  std::vector<CBaseData*> retiring;
  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    for (const CString& key : m_arrCleanup) {
      void* slot = nullptr;
      if (!m_mapListenedOrders.Lookup(key, slot)) continue;
      if (slot != nullptr) retiring.push_back(static_cast<CBaseData*>(slot));
      m_mapListenedOrders.RemoveKey(key);
    }
    m_arrCleanup.clear();
  }
  // Disconnecting waits for an event of the record that is being delivered;
  // that delivery may itself wait for the clean-up mutex, so the mutex is not
  // held meanwhile.
  for (CBaseData* record : retiring) record->Disconnect();
  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    m_arrRetiredRecords.insert(m_arrRetiredRecords.end(), retiring.begin(), retiring.end());
  }
  m_timer.StartTimer(kTimerFree, 10000, &OnTimerTick, this);
}

void CTradeSliceManager::FreeRetiredRecords() {
  // A record still named by a wait entry waits for a later round: the entry's
  // retirement arms this timer again. Nothing new can borrow a retired
  // record, as only registered and fresh records are ever parked.
  std::unordered_set<const CBaseData*> borrowed;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    auto add = [&borrowed](const stcWaitOrder* wait) { borrowed.insert(wait->pOrder); };
    m_mapWaitOpenOrders.ForEach([&](const CString&, void* wait) { add(static_cast<stcWaitOrder*>(wait)); });
    for (const stcWaitOrder* wait : m_arrReplacedWaits) add(wait);
    for (const stcWaitOrder* wait : m_arrWaitsInHand) add(wait);
  }
  std::vector<CBaseData*> freeing;
  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    std::vector<CBaseData*> kept;
    for (CBaseData* record : m_arrRetiredRecords) (borrowed.count(record) != 0 ? kept : freeing).push_back(record);
    m_arrRetiredRecords.swap(kept);
    m_arrRetiredRecords.shrink_to_fit();
  }
  for (CBaseData* record : freeing) delete record;
}

int32_t CTradeSliceManager::NextOrderTimerId() {
  if (++m_nOrderTimerId > static_cast<int32_t>(kLastOrderTimer)) m_nOrderTimerId = kFirstOrderTimer;
  return m_nOrderTimerId;
}

bool CTradeSliceManager::IsBorrowed(const CBaseData* record) const {
  bool found = false;
  m_mapWaitOpenOrders.ForEach([&](const CString&, void* wait) {
    found = found || static_cast<const stcWaitOrder*>(wait)->pOrder == record;
  });
  auto names = [record](const stcWaitOrder* wait) { return wait->pOrder == record; };
  return found || std::any_of(m_arrReplacedWaits.begin(), m_arrReplacedWaits.end(), names) ||
         std::any_of(m_arrWaitsInHand.begin(), m_arrWaitsInHand.end(), names);
}

void CTradeSliceManager::ReleaseRecord(CBaseData* record) {
  if (record == nullptr) return;
  bool borrowed;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    borrowed = IsBorrowed(record);
  }
  // The owner has taken it out of every map, so no new borrower can appear.
  if (borrowed) {
    DropRecord(record);
  } else {
    delete record;
  }
}

void CTradeSliceManager::DropRecord(CBaseData* record) {
  if (record == nullptr) return;
  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    // A record dropped by its owner and then by the wait entry that borrowed
    // it is listed once.
    if (std::find(m_arrRetiredRecords.begin(), m_arrRetiredRecords.end(), record) == m_arrRetiredRecords.end()) {
      m_arrRetiredRecords.push_back(record);
    }
  }
  m_timer.StartTimer(kTimerFree, 10000, &OnTimerTick, this);
}

void CTradeSliceManager::RetireWaitEntry(stcWaitOrder* wait) {
  if (wait == nullptr) return;
  CBaseData* record = wait->pOrder;
  {
    // Under the order mutex the registry cannot let go of the record between
    // the look-up and the entry ceasing to borrow it.
    ScopedLock<CMutex> guard(m_mutexOrder);
    void* slot = nullptr;
    const bool registered = m_mapLevelKeyToOrderData.Lookup(wait->strLevelKey, slot) && slot == record;
    {
      ScopedLock<CCriticalSection> wait_guard(m_csWaitOpenOrders);
      m_arrWaitsInHand.erase(std::remove(m_arrWaitsInHand.begin(), m_arrWaitsInHand.end(), wait),
                             m_arrWaitsInHand.end());
    }
    // A parked record the registry does not hold is either owned by the entry
    // (a parent never registered) or already dropped by the registry: it
    // leaves through the retired records either way.
    if (record != nullptr && !registered) DropRecord(record);
  }
  delete wait;
}

void CTradeSliceManager::RetryWaitingOrders() {
  CStringArray keys;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    keys.swap(m_arrDueWaitOrders);
  }
  std::vector<stcWaitOrder*> taken;
  for (const CString& key : keys) {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    void* slot = nullptr;
    if (m_mapWaitOpenOrders.Lookup(key, slot)) {
      taken.push_back(static_cast<stcWaitOrder*>(slot));
      m_arrWaitsInHand.push_back(taken.back());
      m_mapWaitOpenOrders.RemoveKey(key);
    }
  }
  for (stcWaitOrder* wait : taken) {
    bool registered;
    {
      ScopedLock<CMutex> guard(m_mutexOrder);
      registered = m_mapLevelKeyToOrderData.Contains(wait->strLevelKey);
    }
    if (registered) {
      ScopedLock<CMutex> guard(m_mutexTimer);
      if (!m_mapOrderToTimer.Contains(wait->strLevelKey)) {
        const int32_t id = NextOrderTimerId();
        const CString id_text = CString::Formatted(L"%ld", id);
        m_mapTimerToOrder.SetAt(id_text, wait->strLevelKey);
        m_mapOrderToTimer.SetAt(wait->strLevelKey, id_text);
        m_timer.StartTimer(static_cast<unsigned>(id), 50, &OnTimerTick, this);
        LogFormat(L"Timer Order: %s, %d", wait->strLevelKey, id);
      }
    } else if (wait->pOrder != nullptr) {
      const int32_t cookie = static_cast<int32_t>(wait->pOrder->GetCookie());
      int32_t index = -1;
      {
        ScopedLock<CMutex> guard(m_mutexOrder);
        m_mapOrderIndex.Lookup(wait->strLevelKey, index);
      }
      KeepSliceOrder(cookie, index);
    }
    RetireWaitEntry(wait);
  }
}

void CTradeSliceManager::OrderStep(unsigned id) {
  const CString id_text = CString::Formatted(L"%ld", static_cast<int32_t>(id));
  CString key;
  {
    ScopedLock<CMutex> guard(m_mutexTimer);
    if (!m_mapTimerToOrder.Lookup(id_text, key)) return;
    m_mapTimerToOrder.RemoveKey(id_text);
    m_mapOrderToTimer.RemoveKey(key);
  }
  CString slice_info;
  {
    ScopedLock<CMutex> order_guard(m_mutexOrder);
    void* slot = nullptr;
    if (!m_mapLevelKeyToOrderData.Lookup(key, slot)) {
      LogFormat(L"m_mapLevelKeyToOrderData does not exist: LevelKey=%s", key);
    } else if (slot != nullptr) {
      auto* record = static_cast<CBaseData*>(slot);
      const CString record_key = record->GetString(L"LevelKey");
      CString parent_key;
      if (!(record_key == key)) {
        LogFormat(L"OrderData LevelKey:%s != %s", record_key, key);
      } else {
        const int32_t exec_type = record->GetLong(L"ExecType", 0);
        const CString slice_id = record->GetString(L"SliceID");
        if (!m_mapSliceIDToLevelKey.Lookup(slice_id, parent_key)) {
          LogFormat(L"m_mapSliceIDToLevelKey not exist:%s ,%s", key, slice_id);
        } else if (record->GetLong(L"TimeInForce", 0) == 6 ||
                   CheckOpenCloseTime(record, record->GetString(L"Symbol")) != 0) {
          if (!IsFinalExecType(exec_type)) m_mapSliceParams.Lookup(slice_id, slice_info);
          void* parent_slot = nullptr;
          if (m_mapLevelKeyToOrderData.Lookup(parent_key, parent_slot)) {
            if (parent_slot != nullptr) {
              DoSlicedWork(static_cast<CBaseData*>(parent_slot), record, 1);
            } else {
              LogFormat(L"pOriginalData null:%s ,%s", key, parent_key);
            }
          } else {
            LogFormat(L"m_mapLevelKeyToOrderData not exist:%s ,%s", key, parent_key);
          }
          if (exec_type == 8) {
            RemoveOrderData(key);
            ReleaseRecord(record);
          }
        }
      }
    }
  }
  if (slice_info.IsEmpty()) return;
  LogFormat(L"[Sliced Info] :%s, %s", key, slice_info);
  int pos = 0;
  slice_info.Tokenize(L",", pos);
  slice_info.Tokenize(L",", pos);
  const int32_t leftover_action = WToL(slice_info.Tokenize(L",", pos).wstr());
  if (leftover_action == 1) {
    SendTopic(L"TRADE.CANCELORDER", 2, 1, CString::Formatted(L"REPORTID=%s", key), nullptr);
  } else if (leftover_action == 2) {
    SendTopic(L"TRADE.REPLACEORDER", 2, 1, CString::Formatted(L"REPORTID=%s,TYPE=6,TIMEINFORCE=1", key), nullptr);
  }
}

}  // namespace tsm
