// Slice-all: every child of a parent cut at once, all of one size drawn once,
// parked as one batch under a fresh timer id (1001 to 2000) and sent 50 ms
// later; the rest stays on the parent for the final order of timer 102.
#include "manager/trade_slice_manager.h"
#include "slicing/command_format.h"

namespace tsm {

void CTradeSliceManager::DoSlicedAll(CBaseData* parent) {
  // Each parent field is read once for this parent; the commands take what
  // the decision read.
  SliceReads reads;
  CommandFields& fields = reads.fields;
  int32_t total = parent->GetLong(L"LeavesQty", 0);
  fields.sliced_id = parent->GetString(L"SliceID");
  const int32_t qty = ComputeSliceQty(parent, &reads);
  fields.ori_level_key = parent->GetString(L"OriLevelKey");
  if (fields.ori_level_key.IsEmpty()) fields.ori_level_key = parent->GetString(L"LevelKey");
  const CString level_key = fields.ori_level_key;
  fields.group_type = parent->GetLong(L"GroupType", INT32_MIN);
  const int32_t group_type = fields.group_type;
  fields.group_id = parent->GetString(L"GroupID");
  const CString group_id = fields.group_id;
  reads.known |= SliceReads::kSlicedId | SliceReads::kOriLevelKey | SliceReads::kGroupType | SliceReads::kGroupId;
  const int32_t sliced_type = parent->GetLong(L"SlicedType", INT32_MIN);
  LogFormat(L"DoSlicedAll First: NewOrderQty=%ld, TotalQty=%ld", qty, total);

  GatherCommandFields(*parent, reads);
  // Released slice-all orders (type 5) print SYNTHETIC=0, deliberately.
  if (sliced_type == 5) fields.synthetic = 0;
  fields.qty = qty;

  auto* batch = new CStringArray();
  if (qty <= 0 && total > qty) {
    // Cutting children of no size would never end: the parent goes out whole
    // as its final order.
    LogFormat(L"DoSlicedAll: NewOrderQty=%ld cannot cut TotalQty=%ld, no children cut", qty, total);
  } else {
    int32_t number = 0;
    while (total > qty) {
      total -= qty;
      ++number;
      if (group_type == 2) fields.group_id = CString::Formatted(L"%s-#-Sliced-#-%d", group_id, number);
      batch->push_back(FormatCommand(CommandTemplate::kB, fields));
      LogFormat(L"DoSlicedAll :SendNewOrder NewOrderQty=%ld, TotalQty=%ld", qty, total);
    }
  }

  SetParentQuantities(parent, total);

  {
    ScopedLock<CMutex> guard(m_mutexSliceAll);
    if (++m_nSliceAllTimerId > static_cast<int32_t>(kLastBatchTimer)) m_nSliceAllTimerId = kFirstBatchTimer;
    const CString key = CString::Formatted(L"%ld", m_nSliceAllTimerId);
    // A batch still waiting under the same id is overwritten and never sent;
    // it is kept aside and freed with the object.
    void* earlier = nullptr;
    if (m_mapSliceAllBatches.Lookup(key, earlier)) m_arrDroppedBatches.push_back(static_cast<CStringArray*>(earlier));
    m_mapSliceAllBatches.SetAt(key, batch);
    m_timer.StartTimer(static_cast<unsigned>(m_nSliceAllTimerId), 50, &OnTimerTick, this);
  }
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    m_arrFinishLevelKeys.push_back(level_key);
  }
  m_timer.StartTimer(kTimerFinish, 100, &OnTimerTick, this);
}

}  // namespace tsm
