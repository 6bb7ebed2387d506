// Cancellation of sliced orders on the host's request: one order, or a parent
// with every child still working. The ExecType tests of the two paths differ
// on purpose (cancel all: 20 and 16; single: 20, 16 and 15).
#include "manager/trade_slice_manager.h"

namespace tsm {

namespace {

bool IsSpreadOrder(const CString& level_key) { return level_key.Find(L"SPA_") == 0 || level_key.Find(L"SPB_") == 0; }

// The request's record is rewritten as a cancelled order.
void MarkCancelled(CBaseData* record) {
  const int32_t filled = record->GetLong(L"CumQty", 0);
  const int32_t update = record->BeginUpdate();
  record->SetData(update, kKindFieldByName, Variant::Text(L"ExecType"), Variant::I4(8));
  record->SetData(update, kKindFieldByName, Variant::Text(L"LeavesQty"), Variant::I4(0));
  record->SetData(update, kKindFieldByName, Variant::Text(L"OrderQty"), Variant::I4(filled));
  record->EndUpdate(update);
}

}  // namespace

bool CTradeSliceManager::TakeWaitingOrder(const CString& level_key) {
  stcWaitOrder* wait = nullptr;
  {
    ScopedLock<CCriticalSection> guard(m_csWaitOpenOrders);
    void* slot = nullptr;
    if (!m_mapWaitOpenOrders.Lookup(level_key, slot)) return false;
    m_mapWaitOpenOrders.RemoveKey(level_key);
    wait = static_cast<stcWaitOrder*>(slot);
    m_arrWaitsInHand.push_back(wait);
  }
  RetireWaitEntry(wait);
  return true;
}

void CTradeSliceManager::CancelSliceOrder(int32_t cookie, const CString& level_key, int32_t cancel_all) {
  CBaseData* record = CBaseData::FromCookie(static_cast<uint32_t>(cookie), nullptr, &clock_);
  if (record == nullptr) return;
  const CString slice_id = record->GetString(L"SliceID");
  const CString order_id = record->GetString(L"OrderID");
  const CString group_id = record->GetString(L"GroupID");
  const CString group_prefix = record->GetString(L"GroupPrefix");
  const int32_t exec_type = record->GetLong(L"ExecType", 0);

  CString parent_key;
  bool finishing;
  {
    ScopedLock<CMutex> guard(m_mutexOrder);
    m_mapSliceIDToLevelKey.Lookup(slice_id, parent_key);
    if (parent_key.IsEmpty()) m_mapSlicedOrders.Lookup(level_key, parent_key);
    finishing = m_mapFinishLevelKey.Contains(level_key);
  }
  Variant cookie_data = Variant::I4(cookie);
  const CString command = CString::Formatted(L"LevelKey=%s", level_key);

  if (cancel_all != 0) {
    if (!(parent_key == level_key)) {
      // A failed cancel-all still cancels the order itself.
      LogFormat(L"Cancel All SliceOrder Fail:%s != %s", level_key, parent_key);
    } else {
      CString list;
      {
        ScopedLock<CMutex> guard(m_mutexSlice);
        m_mapSliceToListened.Text(slice_id, list);
        m_mapCancelledSlices.SetAt(slice_id, slice_id);
      }
      Log(L"CancelOrderList :" + list);
      CStringArray children;
      int pos = 0;
      for (CString child = list.Tokenize(L",", pos); pos != -1; child = list.Tokenize(L",", pos)) {
        children.push_back(child);
      }
      const bool was_waiting = TakeWaitingOrder(level_key);
      {
        ScopedLock<CMutex> guard(m_mutexOrder);
        m_mapOrderIndex.RemoveKey(level_key);
        void* slot = nullptr;
        if (m_mapLevelKeyToOrderData.Lookup(level_key, slot)) {
          RemoveOrderData(level_key);
          ReleaseRecord(static_cast<CBaseData*>(slot));
        }
        m_mapGroupCount.RemoveKey(level_key);
        m_mapSliceIDToLevelKey.RemoveKey(slice_id);
        m_mapSliceParams.RemoveKey(slice_id);
      }
      if (order_id.IsEmpty() && (exec_type == 20 || exec_type == 16)) {
        Log(L"CancelSliceOrder:" + level_key);
        if (exec_type == 20) {
          if (!finishing || was_waiting) {
            MarkCancelled(record);
          } else {
            SendTopic(L"TRADE.PRICE.TRIGGER.CANCEL", 1, 1, command, &cookie_data);
          }
        } else {
          SendTopic(L"TRADE.CHASE.PRICE.CANCEL", 1, 1, command, &cookie_data);
        }
      } else {
        Log(L"Send CancelOrder :" + command);
        SendTopic(IsSpreadOrder(level_key) ? L"TRADE.SPREAD.MANAGER.CANCEL" : L"TRADE.PRICE.TRIGGER.CANCEL", 1, 1,
                  command, &cookie_data);
      }
      CStringArray cancels;
      {
        ScopedLock<CMutex> guard(m_mutexOrder);
        for (const CString& child : children) {
          TakeWaitingOrder(child);
          void* slot = nullptr;
          if (m_mapCancelledOrders.Contains(child) || !m_mapLevelKeyToOrderData.Lookup(child, slot) || slot == nullptr) {
            continue;
          }
          RemoveOrderData(child);
          m_mapOrderIndex.RemoveKey(child);
          m_mapGroupCount.RemoveKey(child);
          auto* child_record = static_cast<CBaseData*>(slot);
          child_record->GetLong(L"ExecType", 11);
          const CString cancel = CString::Formatted(L"REPORTID=%s", child);
          Log(L"Send CancelOrder :" + cancel);
          cancels.push_back(cancel);
          ReleaseRecord(child_record);
        }
      }
      for (const CString& cancel : cancels) SendTopic(L"TRADE.CANCELORDER", 1, 1, cancel, nullptr);
      delete record;
      return;
    }
  }

  // Single cancel.
  CString timer_id;
  if (!(parent_key == level_key)) {
    ScopedLock<CMutex> guard(m_mutexTimer);
    m_mapOrderToTimer.Lookup(level_key, timer_id);
  }
  const bool was_waiting = TakeWaitingOrder(level_key);
  bool is_parent = false;
  {
    ScopedLock<CMutex> guard(m_mutexOrder);
    void* slot = nullptr;
    // An order with a per-order timer keeps its record for the timer's step.
    if (m_mapLevelKeyToOrderData.Lookup(level_key, slot) && timer_id.IsEmpty()) {
      RemoveOrderData(level_key);
      ReleaseRecord(static_cast<CBaseData*>(slot));
    }
    m_mapOrderIndex.RemoveKey(level_key);
    m_mapGroupCount.RemoveKey(level_key);
    if (parent_key == level_key) {
      m_mapSliceIDToLevelKey.RemoveKey(slice_id);
      m_mapSliceParams.RemoveKey(slice_id);
      is_parent = true;
    }
    m_mapCancelledOrders.SetAt(level_key, slice_id);
  }
  LogFormat(L"CancelSliceOrder:%s, %s, %x, %x, %x", level_key, order_id, is_parent ? 1 : 0,
            finishing ? 1 : 0, was_waiting ? 1 : 0);
  if (order_id.IsEmpty() && exec_type == 20) {
    if (!was_waiting && (!is_parent || finishing)) {
      SendTopic(L"TRADE.PRICE.TRIGGER.CANCEL", 1, 1, command, &cookie_data);
    } else {
      MarkCancelled(record);
    }
  } else if (order_id.IsEmpty() && (exec_type == 16 || exec_type == 15)) {
    SendTopic(L"TRADE.CHASE.PRICE.CANCEL", 1, 1, command, &cookie_data);
  } else {
    SendTopic(IsSpreadOrder(level_key) ? L"TRADE.SPREAD.MANAGER.CANCEL" : L"TRADE.PRICE.TRIGGER.CANCEL", 1, 1,
              command, &cookie_data);
  }
  delete record;
  if (is_parent) {
    const CString group_key = CString::Formatted(L"%s%s", group_prefix, group_id);
    CString report_id;
    bool found;
    {
      ScopedLock<CMutex> guard(m_mutexGroup);
      found = m_mapGroupReport.Lookup(group_key, report_id);
    }
    if (found) SendTopic(L"TRADE.CANCELORDER", 1, 1, CString::Formatted(L"REPORTID=%s", report_id), nullptr);
  }
}

}  // namespace tsm
