// Sending a child: a command of a slice cancelled meanwhile goes to the host
// as a failed order instead of a new one.
#include "manager/trade_slice_manager.h"
#include "slicing/command_format.h"

namespace tsm {

void CTradeSliceManager::SendSlicedOrder(const CString& command) {
  bool cancelled_slices;
  {
    ScopedLock<CMutex> guard(m_mutexSlice);
    cancelled_slices = !m_mapCancelledSlices.IsEmpty();
  }
  if (cancelled_slices) {
    const CString slice_id = ExtractSlicedId(command);
    if (command.Find(L"SlicedID=") >= 0) Log(L"[OnTimer] SlicedID=" + slice_id);
    if (!slice_id.IsEmpty()) {
      bool cancelled;
      {
        ScopedLock<CMutex> guard(m_mutexSlice);
        cancelled = m_mapCancelledSlices.Contains(slice_id);
      }
      if (cancelled) {
        Log(L"[Sliced Send delete order] ", command.wstr());
        SendTopic(L"TRADE.FAILORDER", 1, 1, command, nullptr);
        return;
      }
    }
  }
  // The topic text is made once for the process: every child is sent under it.
  static const CString new_order_topic(L"TRADE.NEWORDER");
  Log(L"[Sliced Send new order] ", command.wstr());
  SendTopic(new_order_topic, 1, 2, command, nullptr);
}

}  // namespace tsm
