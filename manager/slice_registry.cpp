// The slice order registry: "TRADE.SLICE.MANAGER" keeps a parent order under
// its level key and slice id and starts its slicing by type; "TRADE.SLICE.ORDER"
// releases the kept slice-all-on-release orders.
#include "manager/trade_slice_manager.h"

namespace tsm {

void CTradeSliceManager::KeepSliceOrder(int32_t cookie, int32_t order_index) {
  CBaseData* record = CBaseData::FromCookie(static_cast<uint32_t>(cookie), nullptr, &clock_);
  if (record == nullptr) return;
  const int32_t sliced_type = record->GetLong(L"SlicedType", INT32_MIN);
  const int32_t interval = record->GetLong(L"Interval", INT32_MIN);
  const int32_t leftover_action = record->GetLong(L"LeftoverAction", INT32_MIN);
  const CString slice_id = record->GetString(L"SliceID");
  const CString level_key = record->GetString(L"LevelKey");
  const CString symbol = record->GetString(L"Symbol");
  LogFormat(L"KeepSliceOrder(1):%s,%ld,%ld,%ld, lOrdIndex=%ld", level_key, sliced_type, interval,
            leftover_action, order_index);
  if (sliced_type < 1) {
    // Not a sliced order: neither kept nor freed here.
    DropRecord(record);
    return;
  }

  const int32_t time_in_force = record->GetLong(L"TimeInForce", 0);
  if (time_in_force != 6 && order_index != -1 && CheckOpenCloseTime(record, symbol) == 0) {
    // Parked until its session opens; the wait entry refers to the record.
    m_mapOrderIndex.SetAt(level_key, order_index);
    return;
  }

  auto register_parent = [&] {
    void* earlier = SetOrderData(level_key, record);
    if (earlier != nullptr && earlier != record) {
      // The same level key kept again replaces the record; a parked order may
      // still name the one it replaces.
      DropRecord(static_cast<CBaseData*>(earlier));
    }
    m_mapOrderIndex.SetAt(level_key, order_index);
    m_mapSliceIDToLevelKey.SetAt(slice_id, level_key);
  };

  if (sliced_type == 4) {
    ScopedLock<CMutex> guard(m_mutexOrder);
    register_parent();
    m_mapSlicedOrders.SetAt(level_key, level_key);
    DoSlicedAll(record);
  } else if (sliced_type != 5) {
    const CString params = CString::Formatted(L"%ld,%ld,%ld", sliced_type, interval, leftover_action);
    {
      ScopedLock<CMutex> guard(m_mutexOrder);
      register_parent();
      m_mapSliceParams.SetAt(slice_id, params);
      m_mapSlicedOrders.SetAt(level_key, level_key);
    }
    Log(L"KeepSliceOrder(2):" + slice_id);
    if (sliced_type == 3) {
      ScopedLock<CMutex> guard(m_mutexVolume);
      if (!m_mapVolumeWatch.Contains(symbol)) {
        auto* entry = new VolumeWatchEntry();
        entry->pQuote = GetTopicRecord(symbol, this);
        m_mapVolumeWatch.SetAt(symbol, entry);
      }
    }
    ScopedLock<CMutex> guard(m_mutexOrder);
    DoSlicedWorkFirst(record);
  } else {
    ScopedLock<CMutex> guard(m_mutexOrder);
    register_parent();
    m_mapSlicedOrders.SetAt(level_key, level_key);
    {
      ScopedLock<CMutex> slice_guard(m_mutexSlice);
      m_arrFinishLevelKeys.push_back(level_key);
    }
    m_timer.StartTimer(kTimerFinish, 10, &OnTimerTick, this);
  }
}

void* CTradeSliceManager::SetOrderData(const CString& level_key, CBaseData* record) {
  void* earlier = nullptr;
  const bool had = m_mapLevelKeyToOrderData.Lookup(level_key, earlier);
  if (had && earlier != record) ++m_nOrderDataVersion;
  m_mapLevelKeyToOrderData.SetAt(level_key, record);
  return earlier;
}

void CTradeSliceManager::RemoveOrderData(const CString& level_key) {
  if (m_mapLevelKeyToOrderData.RemoveKey(level_key)) ++m_nOrderDataVersion;
}

void CTradeSliceManager::SliceOrder(int32_t cookie) {
  CBaseData* record = CBaseData::FromCookie(static_cast<uint32_t>(cookie), nullptr, &clock_);
  if (record == nullptr) return;
  const int32_t sliced_type = record->GetLong(L"SlicedType", INT32_MIN);
  const CString slice_id = record->GetString(L"SliceID");
  const CString level_key = record->GetString(L"LevelKey");
  Log(L"SliceOrder:" + level_key);
  if (sliced_type != 5) {
    DropRecord(record);
    return;
  }
  ScopedLock<CMutex> guard(m_mutexOrder);
  m_mapSliceAllSet.SetAt(slice_id, slice_id);
  DoSlicedAll(record);
  delete record;
}

}  // namespace tsm
