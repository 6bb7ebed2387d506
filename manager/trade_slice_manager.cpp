#include "manager/trade_slice_manager.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <unordered_set>

#include "platform/clock.h"

namespace tsm {

namespace {

// Records the object still held when it went away: kept reachable and never
// freed, as the object never frees them itself.
struct AbandonedRecords {
  std::mutex lock;  // guards records
  std::vector<CBaseData*> records;
};
AbandonedRecords& Abandoned() {
  static AbandonedRecords* keeper = new AbandonedRecords();
  return *keeper;
}

}  // namespace

CTradeSliceManager::CTradeSliceManager(IClock* clock)
    : clock_(clock != nullptr ? *clock : RealClock()), random_(&DrawProcessRandom), m_timer(&clock_) {}

CTradeSliceManager::~CTradeSliceManager() {
  // Timer callbacks and the worker use the members below: end them first.
  m_timer.Shutdown();
  StopVolumeWorkerForDestruction();
  AbandonRecords();
  for (CBaseData* record : m_arrRetiredRecords) delete record;
  m_mapSessionTimes.ForEach([](const CString&, void* table) { delete static_cast<std::vector<stcOCTime>*>(table); });
  m_mapSliceAllBatches.ForEach([](const CString&, void* batch) { delete static_cast<CStringArray*>(batch); });
  for (CStringArray* batch : m_arrDroppedBatches) delete batch;
  m_mapWaitOpenOrders.ForEach([](const CString&, void* wait) { delete static_cast<stcWaitOrder*>(wait); });
  for (stcWaitOrder* wait : m_arrReplacedWaits) delete wait;
  m_mapVolumeWatch.ForEach([](const CString&, void* entry) { delete static_cast<VolumeWatchEntry*>(entry); });
}

void CTradeSliceManager::AbandonRecords() {
  std::vector<CBaseData*> kept;
  auto keep = [&kept](CBaseData* record) {
    if (record == nullptr) return;
    record->Disconnect();
    kept.push_back(record);
  };
  keep(m_pSystemTime.exchange(nullptr));
  keep(m_pSecurityInfo);
  m_pSecurityInfo = nullptr;
  m_mapListenedOrders.ForEach([&](const CString&, void* r) { keep(static_cast<CBaseData*>(r)); });
  for (CBaseData* record : m_arrDetachedListened) keep(record);
  m_arrDetachedListened.clear();
  m_mapLevelKeyToOrderData.ForEach([&](const CString&, void* r) { keep(static_cast<CBaseData*>(r)); });
  m_mapVolumeWatch.ForEach([&](const CString&, void* e) {
    auto* entry = static_cast<VolumeWatchEntry*>(e);
    keep(entry->pQuote);
    entry->pQuote = nullptr;
  });
  // A parked order the registry does not hold is referred to by its wait
  // entry only. The entry may outlive a record someone else freed, so the
  // record is kept without being touched.
  auto keep_parked = [&kept](void* w) {
    CBaseData* record = static_cast<stcWaitOrder*>(w)->pOrder;
    if (record != nullptr && std::find(kept.begin(), kept.end(), record) == kept.end()) kept.push_back(record);
  };
  m_mapWaitOpenOrders.ForEach([&](const CString&, void* w) { keep_parked(w); });
  for (stcWaitOrder* wait : m_arrReplacedWaits) keep_parked(wait);
  m_mapListenedOrders.RemoveAll();
  m_mapLevelKeyToOrderData.RemoveAll();
  ++m_nOrderDataVersion;
  // A retired record still named by a wait entry is kept with it, not freed.
  const std::unordered_set<CBaseData*> kept_set(kept.begin(), kept.end());
  m_arrRetiredRecords.erase(std::remove_if(m_arrRetiredRecords.begin(), m_arrRetiredRecords.end(),
                                           [&kept_set](CBaseData* record) { return kept_set.count(record) != 0; }),
                            m_arrRetiredRecords.end());
  AbandonedRecords& abandoned = Abandoned();
  std::lock_guard<std::mutex> guard(abandoned.lock);
  abandoned.records.insert(abandoned.records.end(), kept.begin(), kept.end());
}

uint32_t CTradeSliceManager::AddRef() { return ++ref_count_; }

uint32_t CTradeSliceManager::Release() {
  const uint32_t count = --ref_count_;
  if (count == 0) ReleaseLastReference();
  return count;
}

void CTradeSliceManager::ReleaseLastReference() {
  const bool on_own_callback = t_callback_of_ == this;
  {
    std::lock_guard<std::mutex> guard(m_lifeLock);
    m_bClosing = true;
  }
  // A host that lets go between "ORDERSET.LOCK" and "ORDERSET.UNLOCK" never
  // unlocks: its levels are given up here. A callback's own levels are its.
  if (!on_own_callback) {
    while (m_mutexOrder.LevelsHeldByCaller() > 0 && m_mutexOrder.Unlock()) {
    }
  }
  std::unique_lock<std::mutex> life(m_lifeLock);
  const int own = on_own_callback ? 1 : 0;
  // A callback may wait in a host event for this very thread: the wait is
  // bounded, and such a callback deletes the object when it ends.
  m_lifeChanged.wait_for(life, std::chrono::milliseconds(kReleaseWaitMs),
                         [this, own] { return m_nCallbacksRunning <= own; });
  if (m_nCallbacksRunning > 0) {
    m_bAbandoned = true;
    return;
  }
  life.unlock();
  delete this;
}

HResult CTradeSliceManager::Advise(INordaManagerEvents* sink, uint32_t* cookie) { return AdviseSink(sink, cookie); }

HResult CTradeSliceManager::Unadvise(uint32_t cookie) { return UnadviseSink(cookie); }

void CTradeSliceManager::Log(const CString& text) { Log(text.wstr(), std::wstring_view()); }

void CTradeSliceManager::Log(std::wstring_view head, std::wstring_view tail) {
  std::wstring line;
  line.reserve(kLogPrefix.size() + head.size() + tail.size());
  line.append(kLogPrefix).append(head).append(tail);
  Fire_WriteLog(line);
}

CBaseData* CTradeSliceManager::GetTopicRecord(const CString& topic, CBaseDataEventReceiver* receiver) {
  const uint32_t cookie = Fire_GetTopicData(topic.wstr());
  if (cookie == 0) return nullptr;
  return CBaseData::FromCookie(cookie, receiver, &clock_);
}

Variant CTradeSliceManager::SendTopic(const CString& topic, int32_t param1, int32_t param2, const CString& text,
                                      Variant* data) {
  Variant empty;
  Variant result;
  Fire_SendTopic(topic.wstr(), param1, param2, text.wstr(), data != nullptr ? data : &empty, &result);
  return result;
}

HResult CTradeSliceManager::SetStage(int32_t kind, int32_t stage) {
  if (kind != 1) return kS_OK;
  try {
    if (stage == 1) {
      for (const wchar_t* topic : {L"TRADE.HOT.MONTH", L"TRADE.SLICE.MANAGER", L"TRADE.SLICE.MANAGER.CANCEL",
                                   L"TRADE.SLICE.ORDER", L"ORDERSET.LOCK", L"ORDERSET.UNLOCK"}) {
        Variant ignored;
        Fire_RegisterTopic(topic, &ignored);
      }
      m_mapSliceIDToLevelKey.InitHashTable(kHashSize);
      m_mapLevelKeyToOrderData.InitHashTable(kHashSize);
      m_mapOrderIndex.InitHashTable(kHashSize);
      m_mapSpareValue.InitHashTable(kHashSize);
      m_mapGroupCount.InitHashTable(kHashSize);
      m_mapListenedSlice.InitHashTable(kHashSize);
      m_mapListenedOrders.InitHashTable(kHashSize);
    } else if (stage == 2) {
      StartVolumeWorker();
      CBaseData* system_time = GetTopicRecord(L"NordaSystemTime", this);
      delete m_pSystemTime.exchange(system_time);  // a repeated stage 2 replaces the earlier record
      CBaseData* security_info = GetTopicRecord(L"Security.Info", nullptr);
      {
        ScopedLock<CMutex> guard(m_mutexRecords);
        delete m_pSecurityInfo;
        m_pSecurityInfo = security_info;
        if (m_pSecurityInfo != nullptr) m_nVaultMode = m_pSecurityInfo->GetLong(L"VAULT", 0);
      }
      if (CBaseData* permissions = GetTopicRecord(L"PERMISSIONS.General", nullptr)) {
        m_nLoginType = permissions->GetLong(L"LoginType", 0);
        delete permissions;
      }
    } else if (stage == 4) {
      m_nRunning = 0;
      CloseWorkerEvent();
      m_timer.StopTimer(kTimerSendQueue);
      m_timer.StopTimer(kTimerFinish);
      m_timer.StopTimer(kTimerRetire);
      m_timer.StopTimer(kTimerFree);
      delete m_pSystemTime.exchange(nullptr);
      ScopedLock<CMutex> guard(m_mutexRecords);
      delete m_pSecurityInfo;
      m_pSecurityInfo = nullptr;
    }
  } catch (...) {
    // Nothing is reported to the host; the stage simply ends here.
  }
  return kS_OK;
}

HResult CTradeSliceManager::SetTopic(const std::wstring& topic, int32_t param1, int32_t param2,
                                     const std::wstring& text, Variant* data) {
  try {
    const CString name(topic);
    LogFormat(L"SetTopic:%s, %s", name, text);
    const bool has_record = data != nullptr && data->type() == VarType::I4;
    const int32_t cookie = has_record ? data->i4() : 0;
    if (name == L"TRADE.HOT.MONTH") {
      if (has_record) ParseOrderInfo(cookie, WToL(text));
    } else if (name == L"TRADE.SLICE.MANAGER") {
      if (has_record) KeepSliceOrder(cookie, WToL(text));
    } else if (name == L"TRADE.SLICE.MANAGER.CANCEL") {
      if (has_record) {
        if (param2 == 1) {
          CancelSliceOrder(cookie, text, 0);
        } else if (param2 == 2) {
          Log(L"SetTopic:Cancel ALL");
          CancelSliceOrder(cookie, text, 1);
        }
      }
    } else if (name == L"TRADE.SLICE.ORDER") {
      if (has_record) SliceOrder(cookie);
    } else if (name == L"ORDERSET.LOCK") {
      m_mutexOrder.Lock();  // held until ORDERSET.UNLOCK, on this thread
      m_mapOrderIndex.RemoveAll();
    } else if (name == L"ORDERSET.UNLOCK") {
      OnOrderSetUnlock();
    }
  } catch (...) {
    // No exception crosses the host boundary.
  }
  return kS_OK;
}

void CTradeSliceManager::OnOrderSetUnlock() {
  if (CBaseData* order_set = GetTopicRecord(L"TRADE.ORDERSET", nullptr)) {
    const int32_t count = order_set->GetCount();
    for (int32_t i = 0; i < count; ++i) {
      CBaseData* child = order_set->GetChildAt(i, nullptr);
      if (child == nullptr) continue;
      const CString key = child->GetString(L"LevelKey");
      delete child;
      if (!key.IsEmpty()) m_mapOrderIndex.SetAt(key, i);
    }
    delete order_set;
  }
  m_mutexOrder.Unlock();
}

}  // namespace tsm
