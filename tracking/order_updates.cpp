// Order update handling: every record listened to by the object reports its
// changes here, on the data service's event thread. Quote records queue their
// symbol for the volume worker; the system time record releases orders
// waiting for their session; child orders drive the next slice by ExecType.
#include "manager/text_pieces.h"
#include "manager/trade_slice_manager.h"

namespace tsm {

namespace {

bool IsFinalGroup(int32_t exec_type) {
  switch (exec_type) {
    case 3: case 5: case 7: case 8: case 10: case 21:
      return true;
    default:
      return false;
  }
}

// Calendar time of a YYYYMMDD date at a time of day, in the clock's local zone.
int64_t LocalMoment(IClock& clock, int32_t date, int hour, int minute, int second) {
  std::tm tm{};
  tm.tm_year = date / 10000 - 1900;
  tm.tm_mon = (date / 100) % 100 - 1;
  tm.tm_mday = date % 100;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  tm.tm_isdst = -1;
  return clock.FromLocal(&tm);
}

}  // namespace

void CTradeSliceManager::OnDataUpdate(CBaseData* record, int32_t /*update_id*/, CString /*text*/) {
  try {
    const CString name = record->GetName();
    if (name.Find(L"QX.") >= 0) {
      OnQuoteUpdate(name);
    } else if (record == m_pSystemTime.load()) {
      OnSystemTimeUpdate();
    } else {
      OnChildOrderUpdate(record);
    }
  } catch (...) {
    // The event thread belongs to the data service: nothing may escape to it.
  }
}

void CTradeSliceManager::OnQuoteUpdate(const CString& name) {
  ScopedLock<CMutex> volume_guard(m_mutexVolume);
  ScopedLock<CMutex> queue_guard(m_mutexVolumeCheck);
  // A symbol already queued is not queued twice, but the worker is woken
  // all the same: a wake-up set while the worker's round was running is
  // lost when the round resets the event, and only this change of the same
  // symbol can bring it back.
  if (!m_mapVolumeCheck.Contains(name)) {
    m_arrVolumeCheck.push_back(name);
    m_mapVolumeCheck.SetAt(name, name);
  }
  WakeVolumeWorker();
}

void CTradeSliceManager::OnSystemTimeUpdate() {
  // The open times are copied with the keys: timer 105 or a cancel may free
  // an entry as soon as the lock is released.
  std::vector<std::pair<CString, int32_t>> waiting;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    m_mapWaitOpenOrders.ForEach([&](const CString& key, void* wait) {
      waiting.emplace_back(key, static_cast<stcWaitOrder*>(wait)->nOpenTime);
    });
  }
  CBaseData* system_time = m_pSystemTime.load();
  if (system_time == nullptr) return;
  const int32_t date = system_time->GetLong(L"SystemDate", 0);
  const int32_t time_of_day = system_time->GetLong(L"SystemTime", 0);
  const int32_t time_diff = system_time->GetLong(L"TimeDiff", 0);
  m_nSystemDate = date;
  m_nSystemTime = time_of_day;
  m_nTimeDiff = time_diff;
  if (waiting.empty()) return;

  // The reference moment takes its time of day from UTC, the upper bound is
  // broken down in local time: the mix is deliberate.
  std::tm utc{};
  clock_.ToUtc(clock_.UtcSeconds() + time_diff, &utc);
  const int64_t reference = LocalMoment(clock_, date, utc.tm_hour, utc.tm_min, utc.tm_sec);
  const int64_t bound_moment =
      LocalMoment(clock_, date, time_of_day / 10000, (time_of_day / 100) % 100, time_of_day % 100) + 60;
  std::tm local{};
  clock_.ToLocal(bound_moment, &local);
  const int32_t upper_bound = local.tm_hour * 10000 + local.tm_min * 100 + local.tm_sec;

  CStringArray due;
  int64_t delay = 1;
  for (const auto& [key, open] : waiting) {
    if (!(open > time_of_day && open < upper_bound)) continue;
    due.push_back(key);
    LogFormat(L"OnDataUpdate : LevelKey=%s, %ld, %ld", key, open, upper_bound);
    const int64_t seconds =
        (LocalMoment(clock_, date, open / 10000, (open / 100) % 100, open % 100) - reference) % 60;
    if (seconds > delay) delay = seconds;
  }
  if (due.empty()) return;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    m_arrDueWaitOrders.insert(m_arrDueWaitOrders.end(), due.begin(), due.end());
  }
  m_timer.StartTimer(kTimerWaitOrders, static_cast<int>((delay + 1) * 1000), &OnTimerTick, this);
}

void CTradeSliceManager::OnChildOrderUpdate(CBaseData* record) {
  const CString slice_id = record->GetString(L"SliceID");
  const CString level_key = record->GetString(L"LevelKey");
  const int32_t exec_type = record->GetLong(L"ExecType", INT32_MIN);
  LogFormat(L"OnDataUpdate : LevelKey=%s, SliceID=%s, ExecType=%ld", level_key, slice_id, exec_type);
  if (!m_mapListenedSlice.Contains(level_key)) return;
  if (exec_type >= 11 && exec_type != 21) return;

  if (!IsFinalGroup(exec_type)) {
    // A working child of a volume slice starts being watched. The slice's
    // parameters are looked at before "OrderID" is read: most working
    // updates belong to other kinds of slice.
    if (slice_id.IsEmpty()) return;
    CString params;
    if (!m_mapSliceParams.Lookup(slice_id, params)) return;
    int pos = 0;
    const std::wstring_view text(params.wstr());
    const int32_t type = WToL(NextPiece(text, L',', pos));
    const int32_t interval = WToL(NextPiece(text, L',', pos));
    const int32_t leftover_action = WToL(NextPiece(text, L',', pos));
    if (interval < 1 || type != 3 || leftover_action == 0) return;
    if (record->GetString(L"OrderID").IsEmpty()) return;
    const CString symbol = record->GetString(L"Symbol");
    ScopedLock<CMutex> guard(m_mutexVolume);
    if (m_mapStartVolume.Contains(level_key)) return;
    void* slot = nullptr;
    if (!m_mapVolumeWatch.Lookup(symbol, slot)) return;
    auto* entry = static_cast<VolumeWatchEntry*>(slot);
    if (entry->pQuote == nullptr) return;  // no quote record: nothing to measure against
    const int64_t volume = entry->pQuote->GetInt64ById(type + 3);
    m_mapStartVolume.SetAt(level_key, reinterpret_cast<void*>(static_cast<intptr_t>(volume)));
    LogFormat(L"Volume OrderInfo: Symbol=%s, TradeVolume=%I64d", symbol, volume);
    entry->arrLevelKeys.push_back(level_key);
    return;
  }

  LogFormat(L"OnDataUpdate : LeavesQty=%ld", record->GetLong(L"LeavesQty", 0));
  CString parent_key;
  bool has_parent;
  {
    ScopedLock<CMutex> guard(m_mutexOrder);
    has_parent = m_mapSliceIDToLevelKey.Lookup(slice_id, parent_key);
  }
  if (!has_parent) {
    m_mapListenedSlice.RemoveKey(level_key);
    CleanUpChild(record, level_key);
    return;
  }
  LogFormat(L"OnDataUpdate : Original LevelKey=%s", parent_key);

  auto to_cleanup = [&] {
    {
      ScopedLock<CMutex> guard(m_mutexCleanup);
      m_mapListenedSlice.RemoveKey(level_key);
      m_arrCleanup.push_back(level_key);
    }
    m_timer.StartTimer(kTimerRetire, 10000, &OnTimerTick, this);
  };
  if (exec_type == 8 && record->GetLong(L"ClientModify", 0) == 1) {
    to_cleanup();  // the host replaced the order itself
    return;
  }
  if (exec_type != 3 && record->GetLong(L"Consecutive", 0) == 1 && record->GetLong(L"NumberOfRetries", 0) > 0) {
    to_cleanup();  // the platform retries the order by itself
    return;
  }

  ScopedLock<CMutex> order_guard(m_mutexOrder);
  void* slot = nullptr;
  m_mapLevelKeyToOrderData.Lookup(parent_key, slot);
  auto* parent = static_cast<CBaseData*>(slot);
  if (parent == nullptr) {
    LogFormat(L"m_mapLevelKeyToOrderData is null : %s", parent_key);
    return;
  }
  const int32_t sliced_type = parent->GetLong(L"SlicedType", INT32_MIN);
  if (sliced_type == 2) return;
  SliceChildren::View siblings;
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    siblings = m_mapSliceToListened.Find(slice_id);
  }
  // The keys as the comma-joined list splits, read in place: a parent with
  // many children walks them on every fill.
  const std::wstring_view own_key(level_key.wstr());
  const std::wstring_view parent_view(parent_key.wstr());
  bool passed = true;
  // The order mutex is held for the whole walk (order_guard), so it is not
  // taken again for each sibling. A sibling's record found on an earlier
  // fill is used again while the registry has not changed since: a parent
  // with many children would otherwise look every one of them up again on
  // every fill.
  siblings.ForEachKey([&](std::wstring_view sibling, SliceChildren::Found* found) {
    if (!passed || sibling == own_key || sibling == parent_view) return;
    void* sibling_slot = nullptr;
    if (found != nullptr && found->version == m_nOrderDataVersion) {
      sibling_slot = found->record;
    } else if (m_mapLevelKeyToOrderData.Lookup(sibling, sibling_slot) && found != nullptr && sibling_slot != nullptr) {
      found->record = sibling_slot;
      found->version = m_nOrderDataVersion;
    }
    if (sibling_slot != nullptr) static_cast<CBaseData*>(sibling_slot)->GetLong(L"ExecType", INT32_MIN);
    // The check looks at this update's own ExecType, not the sibling's, so it
    // always passes; it is kept as it is.
    if (!IsFinalGroup(exec_type)) passed = false;
  });
  if (!passed) return;
  DoSlicedWork(parent, record, 0, level_key, sliced_type);
}

void CTradeSliceManager::CleanUpChild(CBaseData* record, const CString& level_key) {
  {
    ScopedLock<CMutex> guard(m_mutexTimer);
    CString timer_id;
    if (m_mapOrderToTimer.Lookup(level_key, timer_id)) {
      m_mapTimerToOrder.RemoveKey(timer_id);
      m_mapOrderToTimer.RemoveKey(level_key);
    }
  }
  const CString symbol = record->GetString(L"Symbol");
  {
    ScopedLock<CMutex> guard(m_mutexVolume);
    void* slot = nullptr;
    if (m_mapVolumeWatch.Lookup(symbol, slot)) {
      auto* entry = static_cast<VolumeWatchEntry*>(slot);
      for (auto it = entry->arrLevelKeys.begin(); it != entry->arrLevelKeys.end(); ++it) {
        if (*it == level_key) {
          entry->arrLevelKeys.erase(it);
          break;
        }
      }
      if (entry->arrLevelKeys.empty()) {
        delete entry->pQuote;
        delete entry;
        m_mapVolumeWatch.RemoveKey(symbol);
        LogFormat(L"Remove : Topic=%s", symbol);
      }
    }
  }
  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    m_arrCleanup.push_back(level_key);
  }
  m_timer.StartTimer(kTimerRetire, 10000, &OnTimerTick, this);
}

}  // namespace tsm
