// Order intake for "TRADE.HOT.MONTH": a child order of a slicing is linked to
// its slice and parent, listened to (except slice-all children), and given a
// per-order timer when its slice is timed; an order of a slice cancelled
// meanwhile is marked cancelled instead.
#include "manager/text_pieces.h"
#include "manager/trade_slice_manager.h"

namespace tsm {

void CTradeSliceManager::ParseOrderInfo(int32_t cookie, int32_t order_index) {
  CBaseData* record = CBaseData::FromCookie(static_cast<uint32_t>(cookie), nullptr, &clock_);
  if (record == nullptr) return;
  const CString slice_id = record->GetString(L"SliceID");
  const CString level_key = record->GetString(L"LevelKey");
  if (slice_id.IsEmpty() || m_mapListenedSlice.Contains(level_key)) {
    delete record;
    Log(L"ParseOrderInfo:End");
    return;
  }
  const int32_t exec_type = record->GetLong(L"ExecType", INT32_MIN);
  const int32_t group_type = record->GetLong(L"GroupType", INT32_MIN);
  const int32_t sliced_type = record->GetLong(L"SlicedType", 0);
  LogFormat(L"ParseOrderInfo: LevelKey=%s, ExecType=%ld, SliceID=%s, GroupType=%ld", level_key,
            exec_type, slice_id, group_type);

  bool cancelled;
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    cancelled = m_mapCancelledSlices.Contains(slice_id);
  }
  if (cancelled) {
    Log(L"Cancel SliceOrder:" + level_key);
    const int32_t update = record->BeginUpdate();
    record->SetData(update, kKindFieldByName, Variant::Text(L"ExecType"), Variant::I4(8));
    record->SetData(update, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(0));
    record->EndUpdate(update);
    delete record;
    return;
  }

  void* earlier = nullptr;
  {
    ScopedLock<CMutex> guard(m_mutexOrder);
    earlier = SetOrderData(level_key, record);
    m_mapOrderIndex.SetAt(level_key, order_index);
  }
  if (earlier != nullptr && earlier != record) {
    // A record the registry already held under this key is replaced; a
    // parked order may still name it.
    DropRecord(static_cast<CBaseData*>(earlier));
  }
  if (group_type == 2) {
    ScopedLock<CMutex> guard(m_mutexOrder);
    CString parent_key;
    if (m_mapSliceIDToLevelKey.Lookup(slice_id, parent_key)) {
      int32_t count = 0;
      m_mapGroupCount.Lookup(parent_key, count);
      m_mapGroupCount.SetAt(parent_key, count + 1);
    }
  }
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    m_mapSliceToListened.Append(slice_id, level_key);
  }
  if (sliced_type == 4) {
    Log(L"ParseOrderInfo:End");  // children of a slice-all are not listened to
    return;
  }

  m_mapListenedSlice.SetAt(level_key, slice_id);
  CBaseData* listened = CBaseData::FromCookie(static_cast<uint32_t>(cookie), this, &clock_);
  void* earlier_listened = nullptr;
  {
    // Under the clean-up mutex, so that retirement sees either record whole.
    ScopedLock<CMutex> guard(m_mutexCleanup);
    m_mapListenedOrders.Lookup(level_key, earlier_listened);
    m_mapListenedOrders.SetAt(level_key, listened);
  }
  if (earlier_listened != nullptr) {
    // The order ended and was taken in again before timer 103: the earlier
    // listened record stays connected and goes on reporting, out of every
    // map; timer 103 retires the record the map holds now. Kept aside so
    // that the object can let it go when it is destroyed.
    ScopedLock<CMutex> guard(m_mutexCleanup);
    m_arrDetachedListened.push_back(static_cast<CBaseData*>(earlier_listened));
  }
  LogFormat(L"ParseOrderInfo: Listen=%s", level_key);

  // The timer branch keys on the order's SlicedType 0 but on the type 2 kept
  // in the slice parameters: two separate tests, on purpose.
  if (sliced_type == 0 && listened != nullptr) {
    CString params;
    {
      ScopedLock<CMutex> guard(m_mutexOrder);
      m_mapSliceParams.Lookup(slice_id, params);
    }
    int pos = 0;
    const std::wstring_view text(params.wstr());
    // The flags are read only for a timed slice: the reads change nothing,
    // and most children belong to other kinds.
    if (!params.IsEmpty() && WToL(NextPiece(text, L',', pos)) == 2 &&
        listened->GetLong(L"ClientModifyNew", 0) == 0 && listened->GetLong(L"NewChase", 0) == 0) {
      const int32_t interval = WToL(NextPiece(text, L',', pos));
      const int32_t leftover_action = WToL(NextPiece(text, L',', pos));
      ScopedLock<CMutex> guard(m_mutexTimer);
      if (!m_mapOrderToTimer.Contains(level_key)) {
        const int32_t id = NextOrderTimerId();
        const CString id_text = CString::Formatted(L"%ld", id);
        m_mapTimerToOrder.SetAt(id_text, level_key);
        m_mapOrderToTimer.SetAt(level_key, id_text);
        m_timer.StartTimer(static_cast<unsigned>(id), interval, &OnTimerTick, this);
        LogFormat(L"Timer Order: Interval=%d, LeftoverAction=%d", interval, leftover_action);
      }
    }
  }
  Log(L"ParseOrderInfo:End");
}

}  // namespace tsm
