// `SimExchange`: the platform's order routing and a market behind it, as far
// as the slice manager can tell. It plugs into `SimHost::on_send`:
//
// - "TRADE.NEWORDER" (a new-order command line of KEY=value pairs) becomes a
//   child order record in the base-data component: "Symbol" (SYMBOL), "Side"
//   (SIDE), "Account" (ACCOUNT), "SecurityType" (TYPE), "BrokerID",
//   "Price"/"PriceString", "OrderType", "TimeInForce", "OriginalQty",
//   "OrderQty" and "LeavesQty" (QTY), "CumQty" 0, "LevelKey" of its own ("C1",
//   "C2", ...), "OrderID" empty until acknowledged, "SliceID" (SlicedID),
//   "SlicedType" when the command carries one, "GroupID", "GroupType",
//   "GroupPrefix", "Consecutive", "NumberOfRetries", "RetryInterval",
//   "SpreadID". The record is appended to the children of the host's
//   "TRADE.ORDERSET" topic record and delivered to the manager as
//   "TRADE.HOT.MONTH" (data: the record's cookie as VT_I4; text: its index in
//   the order set) on the host loop.
// - The child is then worked after the delays of its symbol's behaviour:
//   acknowledgement (ExecType 0 with "OrderID"), fills ("CumQty"/"LeavesQty";
//   ExecType 1 while part remains, 3 when filled), or a reject (ExecType 10).
//   Every change is one batch write (BeginUpdate, SetData..., EndUpdate) on
//   the child's object, made on the host loop, so the manager hears it in
//   `OnDataUpdate` on the component's event thread.
// - "TRADE.CANCELORDER" ("REPORTID=<level key>"): ExecType 8 and
//   "LeavesQty" 0 after the cancel delay, when the child is still working.
// - "TRADE.REPLACEORDER" ("REPORTID=<level key>,TYPE=6,TIMEINFORCE=1"): the
//   behaviour's replace ExecType (5 by default), "LeavesQty" 0,
//   "TimeInForce" 1, when the child is still working.
// - "TRADE.HOT.MONTH" sent by the manager is a parent's final portion going
//   to market: the parent record itself is acknowledged and filled the same
//   way (unless the behaviour says otherwise).
// - "TRADE.FAILORDER" and "TRADE.TRANSFER.POSITION" are recorded in the
//   parent's account; the cancel topics "TRADE.PRICE.TRIGGER.CANCEL",
//   "TRADE.CHASE.PRICE.CANCEL", "TRADE.SPREAD.MANAGER.CANCEL" only in the
//   transcript.
//
// Every exchange action is also recorded in the host's transcript as a
// simulator event ("ExchangeNew", "ExchangeAck", "ExchangeFill",
// "ExchangeReject", "ExchangeCancel", "ExchangeReplace", "ExchangeFinal",
// "ExchangeTransfer", "ExchangeFail", "ExchangeParentCancel",
// "ExchangeSubmit", "ExchangeIgnored"): topic = the order's level key, text =
// a KEY=value summary, p1 = the ExecType written where there is one (else -1).
//
// A final portion of a parent of SlicedType 5 is not worked: such a parent
// goes to the host once when it is taken in and waits there for its release;
// it ends with "TRADE.TRANSFER.POSITION".
//
// The exchange can also stand for the host's order entry: `SubmitParent`
// makes a parent record, places it in the order set and hands it to the
// manager as "TRADE.SLICE.MANAGER"; `ReleaseParent`, `CancelParent` and the
// other helpers post the remaining host topics.
//
// Threading: `on_send` runs on whatever manager thread raises a request; the
// exchange then only updates its books under its own mutex and posts work to
// the host loop, so it never blocks a manager thread on the host. Record
// writes and every call into the manager run on the loop's thread, outside
// the exchange's mutex. The query methods may be called from any thread.
// Construct the exchange (which installs `on_send`) before the manager is
// started: `on_send` is not guarded against its own replacement. The handler
// it installs stays in place after the exchange is destroyed and then does
// nothing, so a manager thread may still raise requests meanwhile. Stop the
// loop (or let it run dry) before destroying the exchange: its posted actions
// refer to it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "slicehost/host_loop.h"
#include "slicehost/sim_host.h"
#include "tradeslice/base_data_api.h"
#include "tradeslice/clock.h"
#include "tradeslice/host_api.h"

namespace tsm::sim {

// The ExecType codes written into order records.
struct ExecTypeCodes {
  int32_t acknowledged = 0;
  int32_t partially_filled = 1;
  int32_t filled = 3;
  int32_t replaced = 5;  // default of SymbolBehaviour::replace_exec_type
  int32_t cancelled = 8;
  int32_t rejected = 10;
};

// How the market treats the orders of one symbol. Delays are clock
// milliseconds; 0 means "at the same moment, after what is already due".
struct SymbolBehaviour {
  int64_t delivery_delay_ms = 0;  // command -> "TRADE.HOT.MONTH" to the manager
  int64_t ack_delay_ms = 10;      // delivery -> acknowledgement (or reject)
  int64_t fill_delay_ms = 100;    // acknowledgement -> first fill, and between fills
  int32_t fill_percent = 100;     // share of the quantity that ever fills (0..100)
  int32_t fill_steps = 1;         // that share arrives in this many fills
  bool reject = false;            // reject instead of acknowledging
  int64_t cancel_delay_ms = 10;   // cancel request -> cancelled
  int64_t replace_delay_ms = 10;  // replace request -> its final ExecType
  int32_t replace_exec_type = 5;  // the final ExecType a replace ends in
  bool work_final_portion = true; // acknowledge and fill parents sent as "TRADE.HOT.MONTH"
};

// What happened to one parent (keyed by slice id).
struct ParentAccount {
  std::wstring slice_id;
  std::wstring parent_level_key;       // from SubmitParent or the final portion
  int32_t children_sent = 0;           // "TRADE.NEWORDER" commands taken
  int32_t children_acknowledged = 0;
  int32_t children_filled = 0;         // children that ended filled
  int32_t children_cancelled = 0;      // ended by a cancel request
  int32_t children_replaced = 0;       // ended by a replace request
  int32_t children_rejected = 0;
  int32_t children_failed = 0;         // "TRADE.FAILORDER" commands
  int64_t qty_sent = 0;                // sum of the children's QTY
  int64_t qty_filled = 0;              // children's fills plus the final portion's
  bool final_portion = false;          // "TRADE.HOT.MONTH" received from the manager
  int64_t final_portion_qty = 0;       // its "OrderQty" when received
  bool final_portion_filled = false;
  bool transferred = false;            // "TRADE.TRANSFER.POSITION" received
  int64_t start_ms = -1;               // first child command or the submission
  int64_t end_ms = -1;                 // final portion filled or position transferred
  std::vector<std::wstring> children;  // level keys in the order sent
  std::vector<int64_t> child_qtys;     // QTY of each, same order
};

// One order the exchange works (a child, or a parent's final portion).
struct ExchangeOrder {
  std::wstring level_key;
  std::wstring slice_id;
  std::wstring symbol;
  std::wstring order_id;       // empty until acknowledged
  std::wstring command;        // the new-order command (empty for a final portion, and while
                               // the host keeps no events)
  // Quantities as the records hold them: 32 bits from the manager, up to 64
  // bits from a scenario's parent sent whole as its final portion.
  int64_t qty = 0;
  int64_t cum_qty = 0;
  int64_t leaves_qty = 0;
  int32_t last_exec_type = -1; // -1 before anything was written
  int32_t order_index = -1;    // place in the order set (-1 for a final portion)
  uint32_t cookie = 0;         // interface-table cookie of its record
  bool delivered = false;      // "TRADE.HOT.MONTH" handed to the manager
  bool done = false;           // in a final state
  bool final_portion = false;
};

class SimExchange {
 public:
  // Installs its handler in `host.on_send`. All references must outlive the exchange;
  // `manager` may be null until `SetManager`.
  SimExchange(SimHost& host, HostLoop& loop, IClock& clock, INordaManager* manager = nullptr);
  // Closes its `on_send` handler and releases the records it made.
  ~SimExchange();
  SimExchange(const SimExchange&) = delete;
  SimExchange& operator=(const SimExchange&) = delete;

  void SetManager(INordaManager* manager);

  // Behaviour. A symbol without its own behaviour gets the default one.
  void SetDefaultBehaviour(const SymbolBehaviour& behaviour);
  void SetBehaviour(const std::wstring& symbol, const SymbolBehaviour& behaviour);
  void SetExecTypes(const ExecTypeCodes& codes);
  // Prefix of the children's level keys ("C": C1, C2, ...).
  void SetLevelKeyPrefix(const std::wstring& prefix);
  // When true, every new child is placed in the order set between an
  // "ORDERSET.LOCK" and an "ORDERSET.UNLOCK" posted to the manager, as a host
  // renumbering its order set does. Off by default.
  void SetLockOrderSetOnAdd(bool lock);

  // The host's order entry, all posted to the loop after delay_ms.
  // A parent record with `fields` (it should carry "LevelKey" and "SliceID";
  // a missing "LevelKey" gets "P<n>") is placed in the order set and sent as
  // "TRADE.SLICE.MANAGER" with its index (or -1 when `in_order_set` is
  // false). Returns the level key.
  std::wstring SubmitParent(const FieldList& fields, int64_t delay_ms = 0, bool in_order_set = true);
  // "TRADE.SLICE.ORDER" with the parent's record.
  void ReleaseParent(const std::wstring& parent_level_key, int64_t delay_ms = 0);
  // "TRADE.SLICE.MANAGER.CANCEL" for an order made here (param2 1, or 2 for
  // cancel-all), text = its level key.
  void CancelParent(const std::wstring& level_key, bool cancel_all, int64_t delay_ms = 0);
  // "ORDERSET.LOCK" and then "ORDERSET.UNLOCK", back to back in one step of
  // the loop (a lock held across clock steps would stall the manager's timer
  // callbacks, which a virtual clock waits for).
  void RenumberOrderSet(int64_t delay_ms = 0);
  // The same at once, on the calling thread, which must be the loop's own (a
  // host action that makes these calls in its own order).
  std::wstring SubmitParentNow(const FieldList& fields, bool in_order_set = true);
  void ReleaseParentNow(const std::wstring& parent_level_key);
  void CancelParentNow(const std::wstring& level_key, bool cancel_all);
  // One batch write into an order made here (child or parent).
  void WriteOrder(const std::wstring& level_key, const FieldList& fields, int64_t delay_ms = 0);
  // A fill of `qty` on a working child (ExecType 1, or 3 when it completes).
  void FillChild(const std::wstring& level_key, int64_t qty, int64_t delay_ms = 0);
  // The quote record named by `symbol` (made on first use): traded volume
  // at field id 6, written with kind 1 as VT_I8.
  void SetTradedVolume(const std::wstring& symbol, int64_t volume, int64_t delay_ms = 0);
  // FillChild and SetTradedVolume at once, on the loop's own thread.
  void FillChildNow(const std::wstring& level_key, int64_t qty);
  void SetTradedVolumeNow(const std::wstring& symbol, int64_t volume);
  // The host's "NordaSystemTime" record: "SystemDate", "SystemTime",
  // "TimeDiff".
  void SetSystemTime(int32_t date_yyyymmdd, int32_t time_hhmmss, int32_t time_diff_s, int64_t delay_ms = 0);

  // Books.
  std::optional<ParentAccount> Account(const std::wstring& slice_id) const;
  std::vector<ParentAccount> Accounts() const;  // in order of first appearance
  std::optional<ExchangeOrder> Order(const std::wstring& level_key) const;
  std::vector<ExchangeOrder> Orders() const;    // children and final portions, in arrival order
  // The record of an order made here (parent or child); the exchange keeps
  // its reference, the caller must not release it.
  IBaseData* OrderRecord(const std::wstring& level_key) const;
  int32_t OrderSetSize() const;
  // Children in a final state and children still working.
  int32_t DoneCount() const;
  int32_t WorkingCount() const;
  // Parents with an account, and those of them that have ended (final
  // portion filled or position transferred); cheaper than Accounts().
  int32_t AccountCount() const;
  int32_t EndedAccountCount() const;
  // New orders taken so far, over every account.
  int64_t ChildrenSent() const;

  // The SendTopic handler installed in `host.on_send` (public so a host that
  // chains several handlers can call it).
  void OnSend(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text, Variant* data);

 private:
  struct Entry;

  SymbolBehaviour BehaviourFor(const std::wstring& symbol) const;  // under lock_
  ParentAccount& AccountFor(const std::wstring& slice_id);          // under lock_
  ParentAccount& AccountOf(Entry* order);                           // under lock_: its slice id's
  void OnNewOrder(const std::wstring& command);
  void OnFailOrder(const std::wstring& command);
  // "TRADE.CANCELORDER" and "TRADE.REPLACEORDER": both end a working child
  // after a delay, differing in the delay, the ExecType and the event.
  enum class EndRequest { kCancel, kReplace };
  void OnEndRequest(const std::wstring& text, EndRequest request);
  void OnFinalPortion(const std::wstring& text, const Variant* data);
  void OnTransfer(const Variant* data);
  void OnParentCancel(const std::wstring& topic, const std::wstring& text, const Variant* data);
  // Steps of working an order, run on the loop. They name the order by its
  // entry, which stays in place (with its record's reference) for the
  // exchange's life, so that a posted step needs no look-up and no copy of
  // the level key.
  void Deliver(Entry* order);
  void Acknowledge(Entry* order);
  // The next of the behaviour's fills; re-posts itself while more are due.
  void ScheduledFill(Entry* order);
  // Fills `qty` (capped at what is left); true when scheduled fills go on.
  bool ApplyFill(Entry* order, int64_t qty);
  // The same for an order named by its level key (nothing when unknown).
  bool ApplyFill(const std::wstring& level_key, int64_t qty);
  void EndWith(const std::wstring& level_key, int32_t exec_type, const char* ev);
  void Record(const char* ev, const std::wstring& level_key, int32_t exec_type, const std::wstring& text);
  void PostTopic(const std::wstring& topic, int32_t param2, const std::wstring& text, Variant data,
                 int64_t delay_ms);
  // SetTopic to the manager (param1 0) on the calling thread.
  void SendTopicNow(const std::wstring& topic, int32_t param2, const std::wstring& text, Variant* data);
  // A parent entered by the host: booked at once, handed to the manager on
  // the loop.
  struct NewParent {
    std::wstring level_key;
    std::wstring slice_id;
    std::shared_ptr<IBaseData> record;
    bool lock_set = false;  // place it in the order set under "ORDERSET.LOCK"
    bool booked = false;    // false: a duplicate level key, ignored
  };
  NewParent BookParent(const FieldList& fields, int64_t delay_ms);  // not under lock_
  void HandOverParent(const NewParent& parent, bool in_order_set);   // on the loop
  uint32_t AddToOrderSet(IBaseData* record, int32_t* index);  // returns the cookie
  // AddToOrderSet between "ORDERSET.LOCK" and "ORDERSET.UNLOCK" sent to
  // `manager` when `lock_set` (and there is a manager); run on the loop.
  uint32_t PlaceInOrderSet(IBaseData* record, INordaManager* manager, bool lock_set, int32_t* index);

  // What the installed `on_send` handler reaches the exchange through.
  struct Gate {
    std::mutex lock;                  // guards exchange; held while a request is handled
    SimExchange* exchange = nullptr;  // null once the exchange is gone
  };

  SimHost& host_;
  HostLoop& loop_;
  [[maybe_unused]] IClock& clock_;  // not read: every delay goes through `loop_`
  std::shared_ptr<Gate> gate_;
  mutable std::mutex lock_;  // guards every member below
  INordaManager* manager_ = nullptr;
  SymbolBehaviour default_behaviour_;
  std::map<std::wstring, SymbolBehaviour> behaviours_;
  ExecTypeCodes codes_;
  std::wstring level_key_prefix_ = L"C";
  bool lock_order_set_on_add_ = false;
  int32_t next_child_ = 1;
  int32_t next_parent_ = 1;
  int32_t next_order_id_ = 1;
  int32_t order_set_size_ = 0;
  std::unordered_map<std::wstring, Entry*> orders_;  // level key -> order (owned), children and parents
  std::vector<Entry*> arrival_;                   // children and final portions, in order
  std::unordered_map<std::wstring, ParentAccount> accounts_;
  std::vector<std::wstring> account_order_;       // slice ids in order of first appearance
  std::map<std::wstring, std::wstring> parent_slice_;  // parent level key -> slice id
};

// The value of KEY in a comma-separated KEY=value line (first occurrence;
// empty when absent).
std::wstring CommandValue(const std::wstring& line, const std::wstring& key);

}  // namespace tsm::sim
