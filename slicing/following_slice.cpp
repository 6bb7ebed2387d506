// Following slices: when a child ends (filled, cancelled, or its timer step),
// the next child is sized, the finished child's unfilled remainder is rolled
// over by slice type and leftover action, and the next child is sent, or the
// parent goes to the end-of-slicing path when its rest fits in one child.
#include "manager/trade_slice_manager.h"
#include "slicing/command_format.h"

namespace tsm {

namespace {
void RemoveFirst(CStringArray& keys, const CString& key) {
  for (auto it = keys.begin(); it != keys.end(); ++it) {
    if (*it == key) {
      keys.erase(it);
      return;
    }
  }
}
}  // namespace

void CTradeSliceManager::SetParentQuantities(CBaseData* parent, int32_t qty) {
  // The field names are made once for the process: every slice writes them.
  static const Variant order_qty = Variant::Text(L"OrderQty");
  static const Variant leaves_qty = Variant::Text(L"LeavesQty");
  static const Variant send_qty = Variant::Text(L"SendQty");
  const int32_t update = parent->BeginUpdate();
  parent->SetData(update, kKindFieldByName, order_qty, Variant::I4(qty));
  parent->SetData(update, kKindFieldByName, leaves_qty, Variant::I4(qty));
  parent->SetData(update, kKindFieldByName, send_qty, Variant::I4(qty));
  parent->EndUpdate(update);
}

void CTradeSliceManager::DoSlicedWork(CBaseData* parent, CBaseData* child, int32_t send_mode) {
  const CString child_key = child->GetString(L"LevelKey");
  DoSlicedWork(parent, child, send_mode, child_key, parent->GetLong(L"SlicedType", INT32_MIN));
}

void CTradeSliceManager::DoSlicedWork(CBaseData* parent, CBaseData* child, int32_t send_mode,
                                      const CString& child_key, int32_t sliced_type) {
  m_mapListenedSlice.RemoveKey(child_key);

  const int32_t filled = child->GetLong(L"CumQty", 0);
  const int32_t original = child->GetLong(L"OriginalQty", 0);
  const int32_t unfilled = original - filled;
  const int32_t leftover = unfilled > 0 ? unfilled : 0;

  // Each parent field is read once for this slice; the command takes what
  // the decision read.
  SliceReads reads;
  CommandFields& fields = reads.fields;
  const int32_t total = parent->GetLong(L"LeavesQty", 0);
  fields.sliced_id = parent->GetString(L"SliceID");
  const CString& slice_id = fields.sliced_id;
  int32_t qty = ComputeSliceQty(parent, &reads);
  fields.ori_level_key = parent->GetString(L"OriLevelKey");
  if (fields.ori_level_key.IsEmpty()) fields.ori_level_key = parent->GetString(L"LevelKey");
  const CString& parent_key = fields.ori_level_key;
  fields.group_type = parent->GetLong(L"GroupType", INT32_MIN);
  const int32_t group_type = fields.group_type;
  CString group_id = parent->GetString(L"GroupID");
  reads.known |= SliceReads::kSlicedId | SliceReads::kOriLevelKey | SliceReads::kGroupType;
  LogFormat(L"DoSlicedWork : SlicedID=%s, NewOrderQty=%ld, TotalQty=%ld, LeavesQty=%ld, CumQty=%ld, "
            L"OriginalQty=%ld, GroupType=%ld, GroupID=%s",
            slice_id, qty, total, unfilled, filled, original, group_type, group_id);

  auto drop_child_timer = [&] {
    ScopedLock<CMutex> guard(m_mutexTimer);
    CString timer_id;
    if (m_mapOrderToTimer.Lookup(child_key, timer_id)) {
      m_mapTimerToOrder.RemoveKey(timer_id);
      m_mapOrderToTimer.RemoveKey(child_key);
    }
  };

  if (total <= qty) {
    if (sliced_type != 4) {
      const int32_t leftover_action = parent->GetLong(L"LeftoverAction", 0);
      if (sliced_type == 2) {
        drop_child_timer();
        if (leftover_action == 1) SetParentQuantities(parent, total + leftover);
      } else if (sliced_type == 3) {
        const CString symbol = child->GetString(L"Symbol");
        {
          ScopedLock<CMutex> guard(m_mutexVolume);
          void* slot = nullptr;
          if (m_mapVolumeWatch.Lookup(symbol, slot)) {
            auto* entry = static_cast<VolumeWatchEntry*>(slot);
            RemoveFirst(entry->arrLevelKeys, child_key);
            if (entry->arrLevelKeys.empty()) {
              delete entry->pQuote;
              delete entry;
              m_mapVolumeWatch.RemoveKey(symbol);
              LogFormat(L"Remove : Topic=%s", symbol);
            }
          }
        }
        SetParentQuantities(parent, total + leftover);
      }
      {
        ScopedLock<CMutex> guard(m_mutexSlice);
        m_arrFinishLevelKeys.push_back(parent_key);
      }
      m_timer.StartTimer(kTimerFinish, 10, &OnTimerTick, this);
      // Timed slices without a leftover action keep their slice id registered.
      if (!(sliced_type == 2 && leftover_action < 1)) {
        m_mapSliceIDToLevelKey.RemoveKey(slice_id);
        m_mapSliceParams.RemoveKey(slice_id);
        m_mapGroupCount.RemoveKey(parent_key);
      }
    }
  } else {
    const int32_t rest = total - qty;
    SetParentQuantities(parent, rest);
    // The roll-over enlarges the next child and is not charged to the rest.
    if (sliced_type == 2) {
      drop_child_timer();
      if (parent->GetLong(L"LeftoverAction", 0) == 1) qty += leftover;
    } else if (sliced_type == 3) {
      qty += leftover;
      const CString symbol = child->GetString(L"Symbol");
      ScopedLock<CMutex> guard(m_mutexVolume);
      void* slot = nullptr;
      if (m_mapVolumeWatch.Lookup(symbol, slot)) RemoveFirst(static_cast<VolumeWatchEntry*>(slot)->arrLevelKeys, child_key);
    }
    if (group_type == 2) {
      int32_t count = 0;
      m_mapGroupCount.Lookup(parent_key, count);
      fields.group_id = DerivedGroupId(group_id, count + 1);
    } else {
      fields.group_id = std::move(group_id);
    }
    reads.known |= SliceReads::kGroupId;
    GatherCommandFields(*parent, reads);
    fields.qty = qty;
    CString command = FormatCommand(CommandTemplate::kA, fields);
    LogFormat(L"DoSlicedWork :SendNewOrder NewOrderQty=%ld, TotalQty=%ld, LeavesQty=%ld, Type=%d", qty,
              rest, leftover, send_mode);
    if (send_mode != 1) {
      {
        ScopedLock<CMutex> guard(m_mutexSlice);
        m_arrSendQueue.push_back(std::move(command));
      }
      m_timer.StartTimer(kTimerSendQueue, 100, &OnTimerTick, this);
    } else {
      SendSlicedOrder(command);
    }
  }

  {
    ScopedLock<CMutex> guard(m_mutexCleanup);
    m_arrCleanup.push_back(child_key);
  }
  m_timer.StartTimer(kTimerRetire, 10000, &OnTimerTick, this);
}

}  // namespace tsm
