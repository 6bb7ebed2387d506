// The first slice of a parent taken into time- or fill-driven slicing: queue
// one child for timer 101, or, when the whole remainder fits in one child,
// hand the parent to the end-of-slicing path.
#include "manager/trade_slice_manager.h"
#include "slicing/command_format.h"

namespace tsm {

void CTradeSliceManager::DoSlicedWorkFirst(CBaseData* parent) {
  // Each parent field is read once for this slice; the command takes what
  // the decision read.
  SliceReads reads;
  CommandFields& fields = reads.fields;
  const int32_t total = parent->GetLong(L"LeavesQty", 0);
  fields.sliced_id = parent->GetString(L"SliceID");
  const CString& slice_id = fields.sliced_id;
  const int32_t qty = ComputeSliceQty(parent, &reads);
  fields.ori_level_key = parent->GetString(L"OriLevelKey");
  if (fields.ori_level_key.IsEmpty()) fields.ori_level_key = parent->GetString(L"LevelKey");
  const CString& level_key = fields.ori_level_key;
  fields.group_type = parent->GetLong(L"GroupType", INT32_MIN);
  const int32_t group_type = fields.group_type;
  fields.group_id = parent->GetString(L"GroupID");
  reads.known |= SliceReads::kSlicedId | SliceReads::kOriLevelKey | SliceReads::kGroupType | SliceReads::kGroupId;
  LogFormat(L"DoSlicedWork First: NewOrderQty=%ld, TotalQty=%ld", qty, total);

  if (total <= qty) {
    // Nothing to cut: the final order sent by timer 102 carries the whole rest.
    {
      ScopedLock<CMutex> guard(m_mutexSlice);
      m_arrFinishLevelKeys.push_back(level_key);
    }
    m_timer.StartTimer(kTimerFinish, 10, &OnTimerTick, this);
    m_mapSliceIDToLevelKey.RemoveKey(slice_id);
    m_mapSliceParams.RemoveKey(slice_id);
    m_mapGroupCount.RemoveKey(level_key);
    {
      ScopedLock<CMutex> guard(m_mutexCleanup);
      m_arrCleanup.push_back(level_key);
    }
    m_timer.StartTimer(kTimerRetire, 10000, &OnTimerTick, this);
    return;
  }

  const int32_t rest = total - qty;
  SetParentQuantities(parent, rest);

  GatherCommandFields(*parent, reads);
  fields.qty = qty;
  if (group_type == 2) fields.group_id = DerivedGroupId(fields.group_id, 1);
  CString command = FormatCommand(CommandTemplate::kA, fields);
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    m_arrSendQueue.push_back(std::move(command));
  }
  LogFormat(L"DoSlicedWork First :SendNewOrder NewOrderQty=%ld, TotalQty=%ld", qty, rest);
  m_timer.StartTimer(kTimerSendQueue, 100, &OnTimerTick, this);
}

}  // namespace tsm
