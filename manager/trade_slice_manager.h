// `CTradeSliceManager`: the one object of the component. The host starts and
// stops it with `SetStage` and feeds it topics with `SetTopic`; it answers
// only through the host's events (requests and log lines). It keeps parent
// orders in a registry by level key, cuts child orders (slices) from them,
// sends the children through the host, follows their fills through listened
// records, and holds orders back outside their security's trading sessions.
//
// The members are defined across the folders by subject: manager/ (object,
// host link, intake, registry, cancellation), slicing/ (sizing, cutting,
// sending, the command text), tracking/ (timer work, order updates, the
// volume worker), market/ (vault lookup, session tables, open/close check).
//
// Threading: four kinds of thread enter the object: the host's thread
// (SetStage, SetTopic), one thread per armed timer (OnTimer), the base-data
// component's event thread (OnDataUpdate) and the volume worker. Locks and
// what they guard are listed at the members. Lock order: the order mutex
// before the slice mutex; the volume mutex never inside the order mutex on
// the same handler; every other lock is taken on its own. The order mutex may
// be held by the host from "ORDERSET.LOCK" to "ORDERSET.UNLOCK".
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "data/base_data.h"
#include "data/containers.h"
#include "data/oak_map_string_to_val.h"
#include "data/sync_map.h"
#include "data/text.h"
#include "manager/host_link.h"
#include "manager/log_line.h"
#include "manager/slice_children.h"
#include "platform/sync.h"
#include "tracking/timer.h"
#include "tradeslice/host_api.h"

namespace tsm {

struct SliceReads;

// One trading session of a security, times as HHMM.
struct stcOCTime {
  int32_t nOpenTime;
  int32_t nCloseTime;
};

// An order held back until its session opens.
struct stcWaitOrder {
  CBaseData* pOrder;   // the caller's record, not owned by the entry
  int32_t nOpenTime;   // next session open as HHMMSS
  CString strLevelKey;
};
using OpenWaitEntry = stcWaitOrder;

// A symbol watched for volume slicing: its listened quote record and the
// level keys of the children watched on it.
struct VolumeWatchEntry {
  CBaseData* pQuote = nullptr;  // owned; may be null when the host has no record
  CStringArray arrLevelKeys;
};

class CTradeSliceManager : public CBaseDataEventReceiver,
                           public CProxy_INordaManagerEvents,
                           public INordaManager {
 public:
  // Timer ids.
  static constexpr unsigned kTimerSendQueue = 101;
  static constexpr unsigned kTimerFinish = 102;
  static constexpr unsigned kTimerRetire = 103;
  static constexpr unsigned kTimerFree = 104;
  static constexpr unsigned kTimerWaitOrders = 105;
  static constexpr unsigned kFirstBatchTimer = 1001;
  static constexpr unsigned kLastBatchTimer = 2000;
  static constexpr unsigned kFirstOrderTimer = 3001;
  static constexpr unsigned kLastOrderTimer = 5000;
  static constexpr uint32_t kHashSize = 1009;

  // `clock` (null: the wall clock) must outlive the object.
  explicit CTradeSliceManager(IClock* clock = nullptr);
  ~CTradeSliceManager() override;
  CTradeSliceManager(const CTradeSliceManager&) = delete;
  CTradeSliceManager& operator=(const CTradeSliceManager&) = delete;

  // IRefCounted / INordaManager.
  uint32_t AddRef() override;
  uint32_t Release() override;
  HResult SetStage(int32_t kind, int32_t stage) override;
  HResult SetTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                   Variant* data) override;
  HResult Advise(INordaManagerEvents* sink, uint32_t* cookie) override;
  HResult Unadvise(uint32_t cookie) override;

  // The host's last Release waits this long (wall clock) for timer callbacks
  // in progress before it returns; see ReleaseLastReference.
  static constexpr int64_t kReleaseWaitMs = 3000;

  // Every log line starts with this.
  static constexpr std::wstring_view kLogPrefix = L"<CTradeSliceManager>";

  // Host link operations shared by every subject.
  // Sends "<CTradeSliceManager>" and the text to the host's log. The
  // two-piece form writes `head` then `tail`, saving the caller a
  // concatenation of its own.
  void Log(const CString& text);
  void Log(std::wstring_view head, std::wstring_view tail);
  // Log(CString::Formatted(format, args...)), formatted straight into the line.
  template <typename... Args>
  void LogFormat(const wchar_t* format, const Args&... args) {
    const text_internal::FormatArg list[] = {text_internal::MakeArg(args)..., text_internal::FormatArg{}};
    Fire_WriteLog(FormatLogLine(kLogPrefix, format, list, sizeof...(Args)));
  }
  CBaseData* GetTopicRecord(const CString& topic, CBaseDataEventReceiver* receiver);
  Variant SendTopic(const CString& topic, int32_t param1, int32_t param2, const CString& text, Variant* data);

  // Order intake and registry.
  void ParseOrderInfo(int32_t cookie, int32_t order_index);
  void KeepSliceOrder(int32_t cookie, int32_t order_index);
  void SliceOrder(int32_t cookie);
  void CancelSliceOrder(int32_t cookie, const CString& level_key, int32_t cancel_all);

  // Slicing engine.
  // With `reads`, the parent's "SecurityType" (and "Symbol" and "Side" when
  // the lot is looked up) are left there for the command of the same slice.
  int32_t ComputeSliceQty(CBaseData* parent, SliceReads* reads = nullptr);
  void DoSlicedWorkFirst(CBaseData* parent);
  void DoSlicedWork(CBaseData* parent, CBaseData* child, int32_t send_mode);
  // The same, for a caller that has just read the child's "LevelKey" and the
  // parent's "SlicedType" in the same decision: they are not read again.
  void DoSlicedWork(CBaseData* parent, CBaseData* child, int32_t send_mode, const CString& child_key,
                    int32_t sliced_type);
  void DoSlicedAll(CBaseData* parent);
  // One batch update setting "OrderQty", "LeavesQty" and "SendQty" to `qty`,
  // in that order.
  static void SetParentQuantities(CBaseData* parent, int32_t qty);
  void SendSlicedOrder(const CString& command);

  // Timers, order updates, the volume worker.
  static void OnTimerTick(unsigned id, void* context);
  void OnTimer(unsigned id);
  void OnDataUpdate(CBaseData* record, int32_t update_id, CString text) override;
  void VolumeCheck(const CString& symbol);

  // Security data and trading hours.
  void GetInfoFromVaultDb(const CString& product_key, const CString& request, CBaseData*& entry, void* document);
  void InitSecurityInfo(const CString& symbol_id);
  void BuildSessionTable(const CString& security_key, const CString& text);
  int32_t CheckOpenCloseTime(CBaseData* order, const CString& symbol_id);

  // The random draw of the slice size: DrawProcessRandom unless a test
  // steers it.
  using RandomSource = int (*)();
  // One generator for the whole process on every build, 0 to 32767 per draw,
  // never seeded: the draws of every thread continue one sequence.
  static int DrawProcessRandom();
  void SetRandomSourceForTesting(RandomSource source) { random_ = source; }
  IClock& clock() { return clock_; }

 private:
  friend class CTradeSliceManagerPeer;  // test access to the members
  struct WorkerShared;

  void OnOrderSetUnlock();
  // The host let go. Callbacks that start from now on do nothing; a host
  // thread still holding the order mutex from "ORDERSET.LOCK" lets it go, so
  // that callbacks waiting for it can end. The object is deleted here once no
  // callback of another thread runs, waiting at most kReleaseWaitMs;
  // otherwise (and when the last release comes from inside a callback) the
  // last callback to end deletes it. Nothing is deleted under a callback.
  void ReleaseLastReference();
  void StartVolumeWorker();
  void CloseWorkerEvent();
  void WakeVolumeWorker();
  void StopVolumeWorkerForDestruction();
  static void VolumeWorkerBody(std::shared_ptr<WorkerShared> shared);
  void SliceAllBatch(unsigned id);
  void EndOfSlicing();
  void RetireRecords();
  void FreeRetiredRecords();
  void RetryWaitingOrders();
  void OrderStep(unsigned id);
  void OnSystemTimeUpdate();
  void OnQuoteUpdate(const CString& name);
  void OnChildOrderUpdate(CBaseData* record);
  void CleanUpChild(CBaseData* record, const CString& level_key);
  int32_t NextOrderTimerId();  // under the timer mutex
  // Records have one owner each; a wait entry only borrows the record it
  // names (docs/architecture.md, "Lifetimes"). The three calls below are the
  // only ways a record is let go of.
  //
  // Frees a wait entry taken out of m_mapWaitOpenOrders (and put in
  // m_arrWaitsInHand); its record, when the registry does not hold it, is
  // dropped.
  void RetireWaitEntry(stcWaitOrder* wait);
  // The owner lets go of `record`: deleted at once unless a wait entry
  // borrows it, then dropped instead.
  void ReleaseRecord(CBaseData* record);
  // Hands `record` to the retired records (once) and arms timer 104, which
  // frees it when no wait entry borrows it any more.
  void DropRecord(CBaseData* record);
  // Whether a wait entry (parked, replaced or in hand) names `record`;
  // under m_csWaitOpenOrders.
  bool IsBorrowed(const CBaseData* record) const;
  // Removes and frees the wait entry of `level_key`; true when there was one.
  bool TakeWaitingOrder(const CString& level_key);
  // Records still held at destruction are not deleted; they are disconnected
  // from this object and handed to a process-wide keeper.
  void AbandonRecords();

  IClock& clock_;
  RandomSource random_;
  std::atomic<uint32_t> ref_count_{0};

  // Timer callbacks against the host's last release.
  std::mutex m_lifeLock;                  // guards the three below
  std::condition_variable m_lifeChanged;  // a callback ended
  int m_nCallbacksRunning = 0;
  bool m_bClosing = false;    // the host let go: no new callback work
  bool m_bAbandoned = false;  // the last callback to end deletes the object
  static thread_local const CTradeSliceManager* t_callback_of_;  // whose callback this thread runs

  // Members in the order the object declares them.
  CTimer m_timer;
  std::shared_ptr<WorkerShared> m_worker;  // the worker event and the worker's view of this object
  CMutex m_mutexVolumeCheck;               // guards m_arrVolumeCheck, m_mapVolumeCheck, m_worker
  std::atomic<int32_t> m_nRunning{1};      // 0 from stage 4: the worker stops
  CStringArray m_arrVolumeCheck;           // symbols whose quote changed, for the worker
  CMapStringToString m_mapVolumeCheck;     // the same symbols, each queued once
  std::atomic<CBaseData*> m_pSystemTime{nullptr};  // "NordaSystemTime", listened; stage 2 to 4
  CBaseData* m_pSecurityInfo = nullptr;    // "Security.Info"; stage 2 to 4, guarded by m_mutexRecords
  CMutex m_mutexRecords;                   // m_pSecurityInfo while it is used or replaced
  int32_t m_nVaultMode = 0;                // its "VAULT"
  int32_t m_nLoginType = 0;                // "LoginType" of "PERMISSIONS.General"
  std::atomic<int32_t> m_nSystemDate{0};   // last "SystemDate" (YYYYMMDD)
  std::atomic<int32_t> m_nSystemTime{0};   // last "SystemTime" (HHMMSS)
  std::atomic<int32_t> m_nTimeDiff{0};     // last "TimeDiff": seconds added to UTC for the exchange clock
  CMutex m_mutexOrder;       // the order registry (see the maps); held across ORDERSET.LOCK/UNLOCK
  CMutex m_mutexSlice;       // m_arrSendQueue, m_arrFinishLevelKeys, m_mapCancelledSlices, m_mapSliceToListened
  CMutex m_mutexVolume;      // m_mapVolumeWatch, m_mapStartVolume
  CMutex m_mutexCleanup;     // m_arrCleanup, m_mapListenedOrders (retirement), m_arrRetiredRecords, m_arrDetachedListened
  CMutex m_mutexTimer;       // m_mapTimerToOrder, m_mapOrderToTimer, m_nOrderTimerId
  CMutex m_mutexSliceAll;    // m_mapSliceAllBatches, m_nSliceAllTimerId
  CMutex m_mutexGroup;       // m_mapGroupReport
  CCriticalSection m_csSessionTimes;    // m_mapSessionTimes and the arrays in it; each m_mapSessionRange access
  CCriticalSection m_csWaitOpenOrders;  // m_mapWaitOpenOrders, m_arrDueWaitOrders
  CStringArray m_arrSendQueue;          // new-order commands for timer 101
  CStringArray m_arrFinishLevelKeys;    // parents whose last portion timer 102 sends
  CStringArray m_arrCleanup;            // keys into m_mapListenedOrders for timer 103
  CStringArray m_arrDueWaitOrders;      // waiting orders due, for timer 105
  std::vector<CBaseData*> m_arrRetiredRecords;  // disconnected records timer 104 frees
  std::vector<CBaseData*> m_arrDetachedListened;  // listened records replaced by a second intake; still reporting
  COakMapStringToVal m_mapOrderIndex;   // level key -> index in the host's order set
  COakMapStringToVal m_mapSpareValue;   // sized at stage 1; nothing reads or writes it
  COakMapStringToVal m_mapGroupCount;   // parent level key -> its children of group type 2
  CMapStringToPtr m_mapVolumeWatch;     // symbol -> VolumeWatchEntry*
  // Maps that several threads touch without a common mutex lock themselves.
  CSyncMapStringToPtr m_mapListenedOrders;  // level key -> listened CBaseData* (receiver: this)
  CMapStringToPtr m_mapSliceAllBatches; // batch timer id text -> CStringArray* of commands
  CMapStringToPtr m_mapWaitOpenOrders;  // level key -> stcWaitOrder*
  CMapStringToPtr m_mapLevelKeyToOrderData;  // level key -> owned order record (parents and children)
  // Moves on whenever m_mapLevelKeyToOrderData loses a key or gives a key
  // another record, so that a record found there earlier may be used again
  // only while it stands still (the fill handler's sibling walk). Changed
  // and read under the order mutex, through the two functions below.
  uint64_t m_nOrderDataVersion = 1;
  // SetAt; returns the record the key held before (null: none).
  void* SetOrderData(const CString& level_key, CBaseData* record);
  void RemoveOrderData(const CString& level_key);
  CMapStringToPtr m_mapStartVolume;     // level key -> traded volume (int64 in the slot) when watched
  CMapStringToPtr m_mapSessionTimes;    // security key -> std::vector<stcOCTime>*
  CSyncMapStringToString m_mapSliceIDToLevelKey;  // slice id -> parent level key
  CSyncMapStringToString m_mapListenedSlice;      // listened child level key -> slice id
  CSyncMapStringToString m_mapSliceParams;        // slice id -> "type,interval,leftover action"
  CMapStringToString m_mapTimerToOrder;       // order timer id text -> level key
  CMapStringToString m_mapOrderToTimer;       // level key -> order timer id text
  CMapStringToString m_mapSessionRange;       // security key -> "first open~last close"
  CMapStringToString m_mapFinishLevelKey;     // level keys whose slicing ended
  CMapStringToString m_mapSlicedOrders;       // level key -> itself, every parent taken in
  CMapStringToString m_mapCancelledOrders;    // level key -> slice id, cancelled one by one
  CMapStringToString m_mapGroupReport;        // group prefix + group id -> report id; never filled
  SliceChildren m_mapSliceToListened;         // slice id -> its children's level keys, in arrival order
  CMapStringToString m_mapSliceAllSet;        // slice id -> itself, type 5 slices released
  CMapStringToString m_mapCancelledSlices;    // slice id -> itself, cancelled slices
  int32_t m_nOrderTimerId = 3000;       // last per-order timer id
  int32_t m_nSliceAllTimerId = 1000;    // last slice-all batch timer id
  std::vector<stcWaitOrder*> m_arrReplacedWaits;  // wait entries replaced by a later parking; under m_csWaitOpenOrders
  std::vector<stcWaitOrder*> m_arrWaitsInHand;    // taken out of m_mapWaitOpenOrders, not yet freed; same lock
  std::vector<CStringArray*> m_arrDroppedBatches;  // overwritten unsent batches; under m_mutexSliceAll
};

}  // namespace tsm
