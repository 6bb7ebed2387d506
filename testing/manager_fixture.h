// Test support for the slice manager: a manager on a virtual clock, advised
// to a recording simulated host, with a peer that reaches its members.
//
// Threading: the test's thread is the host's thread. Advance the clock to let
// timers fire; it also drains the base-data component's event thread.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager/trade_slice_manager.h"
#include "platform/virtual_clock.h"
#include "slicehost/sim_host.h"
#include "tracking/volume_worker.h"

namespace tsm {

// Reaches the manager's members for assertions.
class CTradeSliceManagerPeer {
 public:
  explicit CTradeSliceManagerPeer(CTradeSliceManager* m) : m_(m) {}
  CTradeSliceManager& m() { return *m_; }
  CMutex& OrderMutex() { return m_->m_mutexOrder; }
  CMutex& SliceMutex() { return m_->m_mutexSlice; }
  CMutex& VolumeMutex() { return m_->m_mutexVolume; }
  CCriticalSection& SessionTimesLock() { return m_->m_csSessionTimes; }
  CCriticalSection& WaitOpenOrdersLock() { return m_->m_csWaitOpenOrders; }
  COakMapStringToVal& OrderIndex() { return m_->m_mapOrderIndex; }
  COakMapStringToVal& GroupCount() { return m_->m_mapGroupCount; }
  CStringArray& SendQueue() { return m_->m_arrSendQueue; }
  CStringArray& FinishList() { return m_->m_arrFinishLevelKeys; }
  CStringArray& Cleanup() { return m_->m_arrCleanup; }
  CMapStringToPtr& OrderData() { return m_->m_mapLevelKeyToOrderData; }
  CMapStringToPtr& SliceAllBatches() { return m_->m_mapSliceAllBatches; }
  CMapStringToPtr& WaitOpenOrders() { return m_->m_mapWaitOpenOrders; }
  CMapStringToPtr& VolumeWatch() { return m_->m_mapVolumeWatch; }
  CMapStringToPtr& StartVolume() { return m_->m_mapStartVolume; }
  CMapStringToPtr& SessionTimes() { return m_->m_mapSessionTimes; }
  CSyncMapStringToPtr& ListenedOrders() { return m_->m_mapListenedOrders; }
  CSyncMapStringToString& SliceIdToLevelKey() { return m_->m_mapSliceIDToLevelKey; }
  CSyncMapStringToString& ListenedSlice() { return m_->m_mapListenedSlice; }
  CSyncMapStringToString& SliceParams() { return m_->m_mapSliceParams; }
  CMapStringToString& TimerToOrder() { return m_->m_mapTimerToOrder; }
  CMapStringToString& OrderToTimer() { return m_->m_mapOrderToTimer; }
  CMapStringToString& SessionRange() { return m_->m_mapSessionRange; }
  CMapStringToString& FinishLevelKey() { return m_->m_mapFinishLevelKey; }
  CMapStringToString& SlicedOrders() { return m_->m_mapSlicedOrders; }
  CMapStringToString& CancelledOrders() { return m_->m_mapCancelledOrders; }
  CMapStringToString& GroupReport() { return m_->m_mapGroupReport; }
  SliceChildren& SliceToListened() { return m_->m_mapSliceToListened; }
  CMapStringToString& SliceAllSet() { return m_->m_mapSliceAllSet; }
  CMapStringToString& CancelledSlices() { return m_->m_mapCancelledSlices; }
  CStringArray& VolumeCheckQueue() { return m_->m_arrVolumeCheck; }
  CMapStringToString& VolumeCheckSet() { return m_->m_mapVolumeCheck; }
  CStringArray& DueWaitOrders() { return m_->m_arrDueWaitOrders; }
  std::vector<CBaseData*>& RetiredRecords() { return m_->m_arrRetiredRecords; }
  CTimer& Timer() { return m_->m_timer; }
  // Whether timer `id` is armed, found by trying to arm it (undone at once).
  bool TimerArmed(unsigned id) {
    if (m_->m_timer.StartTimer(id, 1 << 30, &NoOp, nullptr) == 0) return true;
    m_->m_timer.StopTimer(id);
    return false;
  }
  int32_t& OrderTimerId() { return m_->m_nOrderTimerId; }
  int32_t& SliceAllTimerId() { return m_->m_nSliceAllTimerId; }
  int32_t& VaultMode() { return m_->m_nVaultMode; }
  int32_t& LoginType() { return m_->m_nLoginType; }
  std::atomic<int32_t>& TimeDiff() { return m_->m_nTimeDiff; }
  CBaseData* SystemTime() { return m_->m_pSystemTime.load(); }
  CBaseData* SecurityInfo() { return m_->m_pSecurityInfo; }
  int32_t Running() { return m_->m_nRunning.load(); }
  // The block the volume worker shares with the object: its use count falls
  // to 1 once the worker thread has ended, and it expires when both are gone.
  std::weak_ptr<void> Worker() { return m_->m_worker; }
  // The same block with its members: the worker event, the rounds done.
  std::weak_ptr<CTradeSliceManager::WorkerShared> WorkerState() { return m_->m_worker; }

 private:
  static void NoOp(unsigned, void*) {}
  CTradeSliceManager* m_;
};

// 2026-11-23 09:30:00 UTC: a Monday morning.
inline constexpr int64_t kDefaultStartUtcMs = 1795426200000LL;

class ManagerTest : public ::testing::Test {
 protected:
  explicit ManagerTest(int64_t start_utc_ms = kDefaultStartUtcMs);
  ~ManagerTest() override;

  // Stages 1 and 2.
  void Start();
  // A new record published by the host; returns its cookie.
  uint32_t Publish(const std::wstring& name, const sim::FieldList& fields);
  IBaseData* Record(const std::wstring& name, const sim::FieldList& fields);
  // A CBaseData handle on a new record (the fixture owns both).
  CBaseData* Bound(const sim::FieldList& fields, const std::wstring& name = L"order");
  void Topic(const std::wstring& topic, int32_t p1, int32_t p2, const std::wstring& text, Variant data);
  // The host's database adds `product`'s entry (one text field) to the
  // security info record while it answers the vault request.
  void HostAddsEntryOnVaultRequest(const std::wstring& product, const std::wstring& field, const std::wstring& value);
  void Advance(int64_t ms) { clock_.Advance(ms); }
  std::vector<std::wstring> Logs() const;
  bool Logged(const std::wstring& line) const;
  std::vector<sim::HostEvent> Sent(const std::wstring& topic) const { return host_.Sent(topic); }
  // The text of every "TRADE.NEWORDER" sent, in order.
  std::vector<std::wstring> NewOrders() const;
  // Every request sent, as "TOPIC p1,p2 text", in order.
  std::vector<std::wstring> Requests() const;
  // The same, leaving out the security queries ("MARZIPAN.REQUEST").
  std::vector<std::wstring> RequestsBesideSecurityQueries() const;
  static std::wstring Log(const std::wstring& text) { return L"<CTradeSliceManager>" + text; }
  static int32_t DefaultRand() { return 0; }

  VirtualClock clock_;
  sim::SimHost host_;
  CTradeSliceManager* manager_;
  CTradeSliceManagerPeer peer_;
  uint32_t sink_cookie_ = 0;
  std::vector<IBaseData*> records_;
  std::vector<std::unique_ptr<CBaseData>> bound_;
};

}  // namespace tsm
