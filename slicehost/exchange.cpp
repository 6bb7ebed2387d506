#include "slicehost/exchange.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cwchar>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

#include "data/text.h"

namespace tsm::sim {

namespace {

std::wstring Decimal(int64_t value) {
  wchar_t digits[kDecimalMax];
  wchar_t* const end = digits + kDecimalMax;
  return std::wstring(WriteDecimalBefore(end, value), end);
}

const std::wstring kOrderIdPrefix = L"X";
const std::wstring kParentKeyPrefix = L"P";

// `prefix` followed by the decimal text of `value`, made in one string.
std::wstring PrefixedDecimal(const std::wstring& prefix, int64_t value) {
  wchar_t digits[kDecimalMax];
  wchar_t* const end = digits + kDecimalMax;
  const wchar_t* const start = WriteDecimalBefore(end, value);
  std::wstring out;
  out.reserve(prefix.size() + static_cast<size_t>(end - start));
  out.append(prefix).append(start, static_cast<size_t>(end - start));
  return out;
}

// The keys of a new-order command that a child record is made from.
enum NewOrderKey {
  kType, kBrokerId, kAccount, kSymbol, kSide, kQty, kPrice, kPriceString, kOrderType, kTimeInForce, kGroupType,
  kGroupId, kSlicedId, kConsecutive, kNumberOfRetries, kRetryInterval, kSlicedType, kGroupPrefix, kSpreadId,
  kNewOrderKeys
};
constexpr std::wstring_view kNewOrderKeyNames[kNewOrderKeys] = {
    L"TYPE", L"BROKERID", L"ACCOUNT", L"SYMBOL", L"SIDE", L"QTY", L"PRICE", L"PRICESTRING", L"ORDERTYPE",
    L"TIMEINFORCE", L"GROUPTYPE", L"GROUPID", L"SlicedID", L"Consecutive", L"NumberOfRetries", L"RetryInterval",
    L"SlicedType", L"GroupPrefix", L"SpreadID"};
using CommandValues = std::array<std::wstring_view, kNewOrderKeys>;

// The keys above grouped by length (at most four share one), so that each
// of the forty or so keys of a command is compared with the few of its
// length only, and those first by their first and last letters.
constexpr size_t kLongestNewOrderKey = 15;
constexpr size_t kMostKeysOfOneLength = 4;
struct KeysOfLength {
  int count = 0;
  int keys[kMostKeysOfOneLength] = {};
};
using KeysByLength = std::array<KeysOfLength, kLongestNewOrderKey + 1>;

constexpr KeysByLength MakeKeysByLength() {
  KeysByLength made{};
  for (int k = 0; k < kNewOrderKeys; ++k) {
    KeysOfLength& same = made[kNewOrderKeyNames[k].size()];
    same.keys[same.count++] = k;
  }
  return made;
}
constexpr KeysByLength kKeysByLength = MakeKeysByLength();

// The index of a key above, or -1 for a key no child field comes from.
int NewOrderKeyIndex(std::wstring_view key) {
  const size_t size = key.size();
  if (size == 0 || size > kLongestNewOrderKey) return -1;
  const KeysOfLength& same = kKeysByLength[size];
  for (int i = 0; i < same.count; ++i) {
    const std::wstring_view name = kNewOrderKeyNames[same.keys[i]];
    if (name[0] == key[0] && name[size - 1] == key[size - 1] && name == key) return same.keys[i];
  }
  return -1;
}

// The values of those keys in a command line, split once: the first
// occurrence of a key counts, an absent key is empty. Views into `line`.
CommandValues SplitNewOrder(std::wstring_view line) {
  CommandValues values;
  std::array<bool, kNewOrderKeys> seen{};
  const wchar_t* at = line.data();
  const wchar_t* const stop = at + line.size();
  for (;;) {
    const wchar_t* end = std::wmemchr(at, L',', static_cast<size_t>(stop - at));
    if (end == nullptr) end = stop;
    // The first '=' of this pair only.
    const wchar_t* equals = std::wmemchr(at, L'=', static_cast<size_t>(end - at));
    if (equals != nullptr) {
      const int k = NewOrderKeyIndex(std::wstring_view(at, static_cast<size_t>(equals - at)));
      if (k >= 0 && !seen[k]) {
        seen[k] = true;
        values[k] = std::wstring_view(equals + 1, static_cast<size_t>(end - equals - 1));
      }
    }
    if (end == stop) break;
    at = end + 1;
  }
  return values;
}

// The fields of a child record, in the order they are written when it is
// made; ExecType comes with its first change.
enum class ChildField {
  kLevelKey, kSymbol, kSide, kAccount, kSecurityType, kBrokerId, kPrice, kPriceString, kOrderType, kTimeInForce,
  kOriginalQty, kOrderQty, kLeavesQty, kCumQty, kOrderId, kSliceId, kGroupId, kGroupType, kGroupPrefix,
  kConsecutive, kNumberOfRetries, kRetryInterval, kSpreadId, kSlicedType, kExecType, kCount
};

constexpr const wchar_t* kChildFieldTexts[static_cast<size_t>(ChildField::kCount)] = {
    L"LevelKey",    L"Symbol",        L"Side",        L"Account",     L"SecurityType", L"BrokerID",
    L"Price",       L"PriceString",   L"OrderType",   L"TimeInForce", L"OriginalQty",  L"OrderQty",
    L"LeavesQty",   L"CumQty",        L"OrderID",     L"SliceID",     L"GroupID",      L"GroupType",
    L"GroupPrefix", L"Consecutive",   L"NumberOfRetries", L"RetryInterval", L"SpreadID", L"SlicedType",
    L"ExecType"};

// Field names as the keys of SetData, made once.
const Variant& ChildFieldName(ChildField field) {
  static const std::array<Variant, static_cast<size_t>(ChildField::kCount)> names = [] {
    std::array<Variant, static_cast<size_t>(ChildField::kCount)> made;
    for (size_t i = 0; i < made.size(); ++i) made[i] = Variant::Text(kChildFieldTexts[i]);
    return made;
  }();
  return names[static_cast<size_t>(field)];
}

// One batch write into an order record, keyed by the names made once.
void WriteFields(IBaseData* record, std::initializer_list<std::pair<ChildField, Variant>> fields) {
  const int32_t update = record->BeginUpdate();
  for (const auto& [field, value] : fields) record->SetData(update, kKindFieldByName, ChildFieldName(field), value);
  record->EndUpdate(update);
}

// Keeps a reference alive inside a posted action, released also when the
// loop drops the action unrun.
std::shared_ptr<IBaseData> Hold(IBaseData* record) {
  record->AddRef();
  return std::shared_ptr<IBaseData>(record, [](IBaseData* r) { r->Release(); });
}

// A quantity as a record field: VT_I4 when it fits 32 bits (every quantity
// of the manager's own), else VT_I8.
Variant QuantityValue(int64_t qty) {
  return qty >= INT32_MIN && qty <= INT32_MAX ? Variant::I4(static_cast<int32_t>(qty)) : Variant::I8(qty);
}

// The traded volume (field id 6, VT_I8) of a quote record, in one batch write.
void WriteTradedVolume(IBaseData* quote, int64_t volume) {
  const int32_t update = quote->BeginUpdate();
  quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
  quote->EndUpdate(update);
}

// A parent's record holding `fields` (and "LevelKey" = `*level_key` after
// them when given), as one batch write into a new record would leave it.
// Nobody listens to it before it is handed over, so it is made with its
// fields in one step; a field written empty, which a batch write takes as
// "remove", makes it the long way.
IBaseData* NewParentRecord(const FieldList& fields, const std::wstring* level_key) {
  const bool any_empty =
      std::any_of(fields.begin(), fields.end(), [](const auto& field) { return field.second.IsEmpty(); });
  if (any_empty) {
    FieldList all = fields;
    if (level_key != nullptr) all.emplace_back(L"LevelKey", Variant::Text(*level_key));
    return SimHost::NewRecord(L"order", all);
  }
  std::vector<TsmField> made;
  made.reserve(fields.size() + 1);
  for (const auto& [name, value] : fields) made.push_back(TsmField{name.c_str(), value});
  if (level_key != nullptr) made.push_back(TsmField{L"LevelKey", Variant::Text(*level_key)});
  return TsmCreateBaseDataWithFields(L"order", made.data(), static_cast<int32_t>(made.size()));
}

}  // namespace

std::wstring CommandValue(const std::wstring& line, const std::wstring& key) {
  const std::wstring needle = key + L"=";
  size_t at = 0;
  for (;;) {
    at = line.find(needle, at);
    if (at == std::wstring::npos) return {};
    if (at == 0 || line[at - 1] == L',') break;
    at += needle.size();
  }
  const size_t start = at + needle.size();
  const size_t end = line.find(L',', start);
  return line.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start);
}

struct SimExchange::Entry {
  ExchangeOrder view;
  IBaseData* record = nullptr;  // one reference owned by the exchange
  bool parent = false;          // made by SubmitParent (or a final portion of a parent made elsewhere)
  SymbolBehaviour behaviour;
  int64_t fill_target = 0;      // quantity the scheduled fills reach
  int32_t fill_steps_left = 0;
  ParentAccount* account = nullptr;  // its slice id's account once looked up (accounts stay put)
};

SimExchange::SimExchange(SimHost& host, HostLoop& loop, IClock& clock, INordaManager* manager)
    : host_(host), loop_(loop), clock_(clock), gate_(std::make_shared<Gate>()), manager_(manager) {
  gate_->exchange = this;
  std::shared_ptr<Gate> gate = gate_;
  host_.on_send = [gate](const std::wstring& topic, int32_t p1, int32_t p2, const std::wstring& text, Variant* data,
                         Variant* /*result*/) {
    std::lock_guard<std::mutex> guard(gate->lock);
    if (gate->exchange != nullptr) gate->exchange->OnSend(topic, p1, p2, text, data);
  };
}

SimExchange::~SimExchange() {
  {
    // A manager thread still raising a request finds the gate closed.
    std::lock_guard<std::mutex> guard(gate_->lock);
    gate_->exchange = nullptr;
  }
  std::unordered_map<std::wstring, Entry*> orders;
  {
    std::lock_guard<std::mutex> guard(lock_);
    orders.swap(orders_);
  }
  for (auto& [key, order] : orders) {
    order->record->Release();
    delete order;
  }
}

void SimExchange::SetManager(INordaManager* manager) {
  std::lock_guard<std::mutex> guard(lock_);
  manager_ = manager;
}

void SimExchange::SetDefaultBehaviour(const SymbolBehaviour& behaviour) {
  std::lock_guard<std::mutex> guard(lock_);
  default_behaviour_ = behaviour;
}

void SimExchange::SetBehaviour(const std::wstring& symbol, const SymbolBehaviour& behaviour) {
  std::lock_guard<std::mutex> guard(lock_);
  behaviours_[symbol] = behaviour;
}

void SimExchange::SetExecTypes(const ExecTypeCodes& codes) {
  std::lock_guard<std::mutex> guard(lock_);
  codes_ = codes;
}

void SimExchange::SetLevelKeyPrefix(const std::wstring& prefix) {
  std::lock_guard<std::mutex> guard(lock_);
  level_key_prefix_ = prefix;
}

void SimExchange::SetLockOrderSetOnAdd(bool lock) {
  std::lock_guard<std::mutex> guard(lock_);
  lock_order_set_on_add_ = lock;
}

SymbolBehaviour SimExchange::BehaviourFor(const std::wstring& symbol) const {
  auto it = behaviours_.find(symbol);
  return it != behaviours_.end() ? it->second : default_behaviour_;
}

ParentAccount& SimExchange::AccountFor(const std::wstring& slice_id) {
  auto it = accounts_.find(slice_id);
  if (it != accounts_.end()) return it->second;
  account_order_.push_back(slice_id);
  ParentAccount& account = accounts_[slice_id];
  account.slice_id = slice_id;
  return account;
}

ParentAccount& SimExchange::AccountOf(Entry* order) {
  if (order->account == nullptr) order->account = &AccountFor(order->view.slice_id);
  return *order->account;
}

void SimExchange::Record(const char* ev, const std::wstring& level_key, int32_t exec_type, const std::wstring& text) {
  HostEvent event;
  event.ev = ev;
  event.topic = level_key;
  event.p1 = exec_type;
  event.text = text;
  host_.RecordCall(std::move(event));
}

// ---- The host's order entry ----------------------------------------------

uint32_t SimExchange::AddToOrderSet(IBaseData* record, int32_t* index) {
  IBaseData* order_set = host_.Topic(L"TRADE.ORDERSET");
  TsmAppendChild(order_set, record);
  {
    std::lock_guard<std::mutex> guard(lock_);
    *index = order_set_size_++;
  }
  return host_.Publish(record);
}

uint32_t SimExchange::PlaceInOrderSet(IBaseData* record, INordaManager* manager, bool lock_set, int32_t* index) {
  const bool announce = lock_set && manager != nullptr;
  auto send = [manager](const wchar_t* topic) {
    Variant none;
    manager->SetTopic(topic, 0, 0, L"", &none);
  };
  if (announce) send(L"ORDERSET.LOCK");
  const uint32_t cookie = AddToOrderSet(record, index);
  if (announce) send(L"ORDERSET.UNLOCK");
  return cookie;
}

void SimExchange::PostTopic(const std::wstring& topic, int32_t param2, const std::wstring& text, Variant data,
                            int64_t delay_ms) {
  loop_.Post(delay_ms, [this, topic, param2, text, data]() mutable { SendTopicNow(topic, param2, text, &data); });
}

void SimExchange::SendTopicNow(const std::wstring& topic, int32_t param2, const std::wstring& text, Variant* data) {
  INordaManager* manager;
  {
    std::lock_guard<std::mutex> guard(lock_);
    manager = manager_;
  }
  if (manager != nullptr) manager->SetTopic(topic, 0, param2, text, data);
}

SimExchange::NewParent SimExchange::BookParent(const FieldList& fields, int64_t delay_ms) {
  std::wstring level_key;
  std::wstring slice_id;
  std::wstring symbol;
  auto as_text = [](const Variant& value) {
    if (value.type() == VarType::BStr) return value.text();
    Variant text = value;
    text.ChangeTypeToText();
    return text.text();
  };
  for (const auto& [name, value] : fields) {
    if (name == L"LevelKey") level_key = as_text(value);
    if (name == L"SliceID") slice_id = as_text(value);
    if (name == L"Symbol") symbol = as_text(value);
  }
  auto* order = new Entry;
  bool generated_key = false;
  std::lock_guard<std::mutex> guard(lock_);
  if (level_key.empty()) {
    level_key = PrefixedDecimal(kParentKeyPrefix, next_parent_++);
    generated_key = true;
  }
  if (orders_.count(level_key) != 0) {
    delete order;
    Record("ExchangeIgnored", level_key, -1, L"Reason=duplicate parent level key");
    return NewParent{level_key, slice_id, nullptr, false, false};
  }
  order->view.level_key = level_key;
  order->view.slice_id = slice_id;
  order->view.symbol = symbol;
  order->parent = true;
  order->behaviour = BehaviourFor(symbol);
  order->record = NewParentRecord(fields, generated_key ? &level_key : nullptr);
  orders_[level_key] = order;
  if (!slice_id.empty()) {
    ParentAccount& account = AccountFor(slice_id);
    account.parent_level_key = level_key;
    if (account.start_ms < 0) account.start_ms = host_.ElapsedMs() + std::max<int64_t>(0, delay_ms);
    parent_slice_[level_key] = slice_id;
  }
  return NewParent{level_key, slice_id, Hold(order->record), lock_order_set_on_add_, true};
}

void SimExchange::HandOverParent(const NewParent& parent, bool in_order_set) {
  INordaManager* manager;
  {
    std::lock_guard<std::mutex> guard(lock_);
    manager = manager_;
  }
  int32_t index = -1;
  const uint32_t cookie = in_order_set ? PlaceInOrderSet(parent.record.get(), manager, parent.lock_set, &index)
                                       : host_.Publish(parent.record.get());
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(parent.level_key);
    if (it != orders_.end()) {
      it->second->view.cookie = cookie;
      it->second->view.order_index = index;
    }
  }
  if (host_.KeepsEvents()) {
    Record("ExchangeSubmit", parent.level_key, -1, L"SliceID=" + parent.slice_id + L",Index=" + Decimal(index));
  }
  Variant data = Variant::I4(static_cast<int32_t>(cookie));
  if (manager != nullptr) manager->SetTopic(L"TRADE.SLICE.MANAGER", 0, 0, Decimal(index), &data);
}

std::wstring SimExchange::SubmitParent(const FieldList& fields, int64_t delay_ms, bool in_order_set) {
  const NewParent parent = BookParent(fields, delay_ms);
  if (parent.booked) loop_.Post(delay_ms, [this, parent, in_order_set] { HandOverParent(parent, in_order_set); });
  return parent.level_key;
}

std::wstring SimExchange::SubmitParentNow(const FieldList& fields, bool in_order_set) {
  const NewParent parent = BookParent(fields, 0);
  if (parent.booked) HandOverParent(parent, in_order_set);
  return parent.level_key;
}

void SimExchange::ReleaseParent(const std::wstring& parent_level_key, int64_t delay_ms) {
  IBaseData* record = OrderRecord(parent_level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", parent_level_key, -1, L"Reason=unknown parent");
    return;
  }
  PostTopic(L"TRADE.SLICE.ORDER", 0, L"", Variant::I4(static_cast<int32_t>(host_.Publish(record))), delay_ms);
}

void SimExchange::ReleaseParentNow(const std::wstring& parent_level_key) {
  IBaseData* record = OrderRecord(parent_level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", parent_level_key, -1, L"Reason=unknown parent");
    return;
  }
  Variant data = Variant::I4(static_cast<int32_t>(host_.Publish(record)));
  SendTopicNow(L"TRADE.SLICE.ORDER", 0, L"", &data);
}

void SimExchange::CancelParent(const std::wstring& level_key, bool cancel_all, int64_t delay_ms) {
  IBaseData* record = OrderRecord(level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", level_key, -1, L"Reason=unknown order");
    return;
  }
  PostTopic(L"TRADE.SLICE.MANAGER.CANCEL", cancel_all ? 2 : 1, level_key,
            Variant::I4(static_cast<int32_t>(host_.Publish(record))), delay_ms);
}

void SimExchange::CancelParentNow(const std::wstring& level_key, bool cancel_all) {
  IBaseData* record = OrderRecord(level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", level_key, -1, L"Reason=unknown order");
    return;
  }
  Variant data = Variant::I4(static_cast<int32_t>(host_.Publish(record)));
  SendTopicNow(L"TRADE.SLICE.MANAGER.CANCEL", cancel_all ? 2 : 1, level_key, &data);
}

void SimExchange::RenumberOrderSet(int64_t delay_ms) {
  PostTopic(L"ORDERSET.LOCK", 0, L"", Variant(), delay_ms);
  PostTopic(L"ORDERSET.UNLOCK", 0, L"", Variant(), delay_ms);
}

void SimExchange::WriteOrder(const std::wstring& level_key, const FieldList& fields, int64_t delay_ms) {
  IBaseData* record = OrderRecord(level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", level_key, -1, L"Reason=unknown order");
    return;
  }
  loop_.PostWrite(record, fields, delay_ms);
}

void SimExchange::FillChild(const std::wstring& level_key, int64_t qty, int64_t delay_ms) {
  loop_.Post(delay_ms, [this, level_key, qty] { ApplyFill(level_key, qty); });
}

void SimExchange::FillChildNow(const std::wstring& level_key, int64_t qty) { ApplyFill(level_key, qty); }

void SimExchange::SetTradedVolume(const std::wstring& symbol, int64_t volume, int64_t delay_ms) {
  auto quote = Hold(host_.Topic(symbol));
  loop_.Post(delay_ms, [quote, volume] { WriteTradedVolume(quote.get(), volume); });
}

void SimExchange::SetTradedVolumeNow(const std::wstring& symbol, int64_t volume) {
  auto quote = Hold(host_.Topic(symbol));
  WriteTradedVolume(quote.get(), volume);
}

void SimExchange::SetSystemTime(int32_t date_yyyymmdd, int32_t time_hhmmss, int32_t time_diff_s, int64_t delay_ms) {
  loop_.PostWrite(host_.Topic(L"NordaSystemTime"),
                  {{L"SystemDate", Variant::I4(date_yyyymmdd)},
                   {L"SystemTime", Variant::I4(time_hhmmss)},
                   {L"TimeDiff", Variant::I4(time_diff_s)}},
                  delay_ms);
}

// ---- Requests from the manager -------------------------------------------

void SimExchange::OnSend(const std::wstring& topic, int32_t /*param1*/, int32_t /*param2*/, const std::wstring& text,
                         Variant* data) {
  using namespace std::string_view_literals;  // compares lengths before letters
  if (topic == L"TRADE.NEWORDER"sv) {
    OnNewOrder(text);
  } else if (topic == L"TRADE.FAILORDER"sv) {
    OnFailOrder(text);
  } else if (topic == L"TRADE.CANCELORDER"sv) {
    OnEndRequest(text, EndRequest::kCancel);
  } else if (topic == L"TRADE.REPLACEORDER"sv) {
    OnEndRequest(text, EndRequest::kReplace);
  } else if (topic == L"TRADE.HOT.MONTH"sv) {
    OnFinalPortion(text, data);
  } else if (topic == L"TRADE.TRANSFER.POSITION"sv) {
    OnTransfer(data);
  } else if (topic == L"TRADE.PRICE.TRIGGER.CANCEL"sv || topic == L"TRADE.CHASE.PRICE.CANCEL"sv ||
             topic == L"TRADE.SPREAD.MANAGER.CANCEL"sv) {
    OnParentCancel(topic, text, data);
  }
}

void SimExchange::OnNewOrder(const std::wstring& command) {
  const CommandValues values = SplitNewOrder(command);
  auto text = [&values](NewOrderKey key) { return Variant::Text(std::wstring(values[key])); };
  auto i4 = [&values](NewOrderKey key) { return Variant::I4(WToL(values[key])); };
  auto name = [](ChildField field) { return kChildFieldTexts[static_cast<size_t>(field)]; };
  const int64_t qty = WToI64(values[kQty]);
  auto* order = new Entry;
  ExchangeOrder& view = order->view;
  view.slice_id.assign(values[kSlicedId]);
  view.symbol.assign(values[kSymbol]);
  view.qty = qty;
  view.leaves_qty = qty;
  if (host_.KeepsEvents()) view.command = command;
  int64_t delivery_delay;
  {
    std::lock_guard<std::mutex> guard(lock_);
    view.level_key = PrefixedDecimal(level_key_prefix_, next_child_++);
    order->behaviour = BehaviourFor(view.symbol);
    delivery_delay = order->behaviour.delivery_delay_ms;
  }
  {
    // Made with its fields in one step, as the platform makes its order
    // records: the record is nobody's to listen to yet. The fields are made
    // in place, in the order of ChildField; "SlicedType" comes last and only
    // when the command carries one.
    TsmField fields[] = {
        {name(ChildField::kLevelKey), Variant::Text(view.level_key)},
        {name(ChildField::kSymbol), Variant::Text(view.symbol)},
        {name(ChildField::kSide), text(kSide)},
        {name(ChildField::kAccount), text(kAccount)},
        {name(ChildField::kSecurityType), text(kType)},
        {name(ChildField::kBrokerId), text(kBrokerId)},
        {name(ChildField::kPrice), Variant::I8(WToI64(values[kPrice]))},
        {name(ChildField::kPriceString), text(kPriceString)},
        {name(ChildField::kOrderType), i4(kOrderType)},
        {name(ChildField::kTimeInForce), i4(kTimeInForce)},
        {name(ChildField::kOriginalQty), QuantityValue(qty)},
        {name(ChildField::kOrderQty), QuantityValue(qty)},
        {name(ChildField::kLeavesQty), QuantityValue(qty)},
        {name(ChildField::kCumQty), Variant::I4(0)},
        {name(ChildField::kOrderId), Variant::Text(std::wstring())},
        {name(ChildField::kSliceId), Variant::Text(view.slice_id)},
        {name(ChildField::kGroupId), text(kGroupId)},
        {name(ChildField::kGroupType), i4(kGroupType)},
        {name(ChildField::kGroupPrefix), text(kGroupPrefix)},
        {name(ChildField::kConsecutive), i4(kConsecutive)},
        {name(ChildField::kNumberOfRetries), i4(kNumberOfRetries)},
        {name(ChildField::kRetryInterval), i4(kRetryInterval)},
        {name(ChildField::kSpreadId), text(kSpreadId)},
        {name(ChildField::kSlicedType), values[kSlicedType].empty() ? Variant() : i4(kSlicedType)},
    };
    static_assert(std::size(fields) == static_cast<size_t>(ChildField::kExecType));
    const size_t count = values[kSlicedType].empty() ? std::size(fields) - 1 : std::size(fields);
    order->record = TsmCreateBaseDataWithFields(L"order", fields, static_cast<int32_t>(count));
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    orders_[view.level_key] = order;
    arrival_.push_back(order);
    ParentAccount& account = AccountOf(order);
    ++account.children_sent;
    account.qty_sent += qty;
    if (account.start_ms < 0) account.start_ms = host_.ElapsedMs();
    account.children.push_back(view.level_key);
    account.child_qtys.push_back(qty);
  }
  if (host_.KeepsEvents()) {
    Record("ExchangeNew", view.level_key, -1,
           L"SliceID=" + view.slice_id + L",Symbol=" + view.symbol + L",Qty=" + Decimal(qty));
  }
  loop_.Post(delivery_delay, [this, order] { Deliver(order); });
}

void SimExchange::OnFailOrder(const std::wstring& command) {
  const std::wstring slice_id = CommandValue(command, L"SlicedID");
  {
    std::lock_guard<std::mutex> guard(lock_);
    ++AccountFor(slice_id).children_failed;
  }
  Record("ExchangeFail", L"", -1, L"SliceID=" + slice_id + L",Qty=" + CommandValue(command, L"QTY"));
}

void SimExchange::OnEndRequest(const std::wstring& text, EndRequest request) {
  const bool cancel = request == EndRequest::kCancel;
  const std::wstring level_key = CommandValue(text, L"REPORTID");
  int64_t delay = -1;
  int32_t exec_type = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it != orders_.end()) {
      Entry* order = it->second;
      // A request about an order opens its parent's account: a parent entered
      // without a slice id has none yet.
      AccountFor(order->view.slice_id);
      delay = cancel ? order->behaviour.cancel_delay_ms : order->behaviour.replace_delay_ms;
      exec_type = cancel ? codes_.cancelled : order->behaviour.replace_exec_type;
    }
  }
  if (delay < 0) {
    Record("ExchangeIgnored", level_key, -1,
           std::wstring(L"Reason=") + (cancel ? L"cancel" : L"replace") + L" of an unknown order," + text);
    return;
  }
  const char* ev = cancel ? "ExchangeCancel" : "ExchangeReplace";
  loop_.Post(delay, [this, level_key, exec_type, ev] { EndWith(level_key, exec_type, ev); });
}

void SimExchange::OnFinalPortion(const std::wstring& text, const Variant* data) {
  IBaseData* object = SimHost::FromCookie(data);
  if (object == nullptr) {
    Record("ExchangeIgnored", L"", -1, L"Reason=final portion without a record,Index=" + text);
    return;
  }
  const std::wstring level_key = SimHost::ReadText(object, L"LevelKey");
  const std::wstring slice_id = SimHost::ReadText(object, L"SliceID");
  const std::wstring symbol = SimHost::ReadText(object, L"Symbol");
  const int64_t qty = SimHost::ReadI8(object, L"OrderQty", 0);
  const int32_t sliced_type = SimHost::ReadI4(object, L"SlicedType", 0);
  bool work = false;
  int64_t ack_delay = 0;
  Entry* order;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it != orders_.end()) {
      order = it->second;
      object->Release();
    } else {
      order = new Entry;
      order->record = object;
      order->parent = true;
      order->view.level_key = level_key;
      order->view.slice_id = slice_id;
      order->view.symbol = symbol;
      orders_[level_key] = order;
    }
    // The final portion meets the market as it is now.
    order->behaviour = BehaviourFor(symbol);
    order->view.final_portion = true;
    order->view.qty = qty;
    order->view.cum_qty = 0;
    order->view.leaves_qty = qty;
    order->view.done = false;
    order->view.delivered = true;
    order->view.cookie = static_cast<uint32_t>(data->i4());
    order->view.order_index = WToL(text);
    arrival_.push_back(order);
    ParentAccount& account = AccountFor(slice_id);
    account.parent_level_key = level_key;
    account.final_portion = true;
    account.final_portion_qty = qty;
    if (account.start_ms < 0) account.start_ms = host_.ElapsedMs();
    parent_slice_[level_key] = slice_id;
    work = order->behaviour.work_final_portion && sliced_type != 5;
    ack_delay = order->behaviour.ack_delay_ms;
  }
  if (host_.KeepsEvents()) {
    Record("ExchangeFinal", level_key, -1,
           L"SliceID=" + slice_id + L",Qty=" + Decimal(qty) + (work ? L"" : L",Held=1"));
  }
  if (work) loop_.Post(ack_delay, [this, order] { Acknowledge(order); });
}

void SimExchange::OnTransfer(const Variant* data) {
  IBaseData* object = SimHost::FromCookie(data);
  if (object == nullptr) {
    Record("ExchangeIgnored", L"", -1, L"Reason=transfer without a record");
    return;
  }
  const std::wstring level_key = SimHost::ReadText(object, L"LevelKey");
  const std::wstring slice_id = SimHost::ReadText(object, L"SliceID");
  const int64_t qty = SimHost::ReadI8(object, L"OrderQty", 0);
  object->Release();
  {
    std::lock_guard<std::mutex> guard(lock_);
    ParentAccount& account = AccountFor(slice_id);
    account.parent_level_key = level_key;
    account.transferred = true;
    account.end_ms = host_.ElapsedMs();
  }
  Record("ExchangeTransfer", level_key, -1, L"SliceID=" + slice_id + L",Qty=" + Decimal(qty));
}

void SimExchange::OnParentCancel(const std::wstring& topic, const std::wstring& text, const Variant* data) {
  std::wstring level_key = CommandValue(text, L"LevelKey");
  {
    // As for a child's request, an order not yet known by a slice id opens
    // an account (a parent listed by slice id has one already).
    std::lock_guard<std::mutex> guard(lock_);
    auto order = orders_.find(level_key);
    if (parent_slice_.count(level_key) == 0 && order != orders_.end()) AccountFor(order->second->view.slice_id);
  }
  const bool with_record = data != nullptr && data->type() == VarType::I4;
  Record("ExchangeParentCancel", level_key, -1, L"Topic=" + topic + (with_record ? L",Record=1" : L",Record=0"));
}

// ---- Working an order on the loop ----------------------------------------

void SimExchange::Deliver(Entry* order) {
  IBaseData* record;
  INordaManager* manager;
  bool lock_set;
  int64_t ack_delay;
  {
    std::lock_guard<std::mutex> guard(lock_);
    record = order->record;
    manager = manager_;
    lock_set = lock_order_set_on_add_;
    ack_delay = order->behaviour.ack_delay_ms;
  }
  int32_t index = -1;
  const uint32_t cookie = PlaceInOrderSet(record, manager, lock_set, &index);
  {
    std::lock_guard<std::mutex> guard(lock_);
    order->view.cookie = cookie;
    order->view.order_index = index;
    order->view.delivered = true;
  }
  Variant data = Variant::I4(static_cast<int32_t>(cookie));
  static const std::wstring kDelivered = L"TRADE.HOT.MONTH";
  if (manager != nullptr) manager->SetTopic(kDelivered, 0, 0, Decimal(index), &data);
  loop_.Post(ack_delay, [this, order] { Acknowledge(order); });
}

void SimExchange::Acknowledge(Entry* order) {
  IBaseData* record = nullptr;
  std::wstring order_id;
  int32_t exec_type;
  int64_t fill_delay = 0;
  bool fill = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (order->view.done) return;
    if (order->behaviour.reject) {
      exec_type = codes_.rejected;
    } else {
      exec_type = codes_.acknowledged;
      order_id = PrefixedDecimal(kOrderIdPrefix, next_order_id_++);
      order->view.order_id = order_id;
      order->view.last_exec_type = exec_type;
      if (!order->view.final_portion) ++AccountOf(order).children_acknowledged;
      const int32_t percent = std::clamp(order->behaviour.fill_percent, 0, 100);
      order->fill_target = order->view.qty * percent / 100;
      order->fill_steps_left = std::max(1, order->behaviour.fill_steps);
      fill = order->fill_target > 0;
      fill_delay = order->behaviour.fill_delay_ms;
      record = order->record;
    }
  }
  if (record == nullptr) {
    EndWith(order->view.level_key, exec_type, "ExchangeReject");
    return;
  }
  // Announced before the write: the manager hears the write on another
  // thread at once, and a transcript must show cause before reaction.
  if (host_.KeepsEvents()) Record("ExchangeAck", order->view.level_key, exec_type, L"OrderID=" + order_id);
  WriteFields(record, {{ChildField::kExecType, Variant::I4(exec_type)},
                       {ChildField::kOrderId, Variant::Text(std::move(order_id))}});
  if (fill) loop_.Post(fill_delay, [this, order] { ScheduledFill(order); });
}

void SimExchange::ScheduledFill(Entry* order) {
  int64_t chunk = 0;
  int64_t fill_delay = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (order->view.done) return;
    const int64_t remaining = order->fill_target - order->view.cum_qty;
    if (remaining <= 0 || order->fill_steps_left <= 0) return;
    chunk = order->fill_steps_left == 1 ? remaining : std::max<int64_t>(1, remaining / order->fill_steps_left);
    --order->fill_steps_left;
    fill_delay = order->behaviour.fill_delay_ms;
  }
  if (ApplyFill(order, chunk)) {
    loop_.Post(fill_delay, [this, order] { ScheduledFill(order); });
  }
}

bool SimExchange::ApplyFill(const std::wstring& level_key, int64_t qty) {
  Entry* order;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end()) return false;
    order = it->second;
  }
  return ApplyFill(order, qty);
}

bool SimExchange::ApplyFill(Entry* order, int64_t qty) {
  IBaseData* record;
  int32_t exec_type;
  int64_t cum;
  int64_t leaves;
  bool more;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (order->view.done) return false;
    const int64_t fill = std::clamp<int64_t>(qty, 0, order->view.leaves_qty);
    if (fill <= 0) return false;
    order->view.cum_qty += fill;
    order->view.leaves_qty -= fill;
    cum = order->view.cum_qty;
    leaves = order->view.leaves_qty;
    exec_type = leaves == 0 ? codes_.filled : codes_.partially_filled;
    order->view.last_exec_type = exec_type;
    ParentAccount& account = AccountOf(order);
    account.qty_filled += fill;
    if (leaves == 0) {
      order->view.done = true;
      if (order->view.final_portion) {
        account.final_portion_filled = true;
        account.end_ms = host_.ElapsedMs();
      } else {
        ++account.children_filled;
      }
    }
    more = leaves > 0 && cum < order->fill_target && order->fill_steps_left > 0;
    record = order->record;
  }
  if (host_.KeepsEvents()) {
    Record("ExchangeFill", order->view.level_key, exec_type,
           L"Fill=" + Decimal(qty) + L",CumQty=" + Decimal(cum) + L",LeavesQty=" +
               Decimal(leaves));
  }
  WriteFields(record, {{ChildField::kExecType, Variant::I4(exec_type)},
                       {ChildField::kCumQty, QuantityValue(cum)},
                       {ChildField::kLeavesQty, QuantityValue(leaves)}});
  return more;
}

void SimExchange::EndWith(const std::wstring& level_key, int32_t exec_type, const char* ev) {
  const std::string name = ev;
  std::shared_ptr<IBaseData> record;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end()) return;
    Entry* order = it->second;
    if (!order->view.done) {
      order->view.done = true;
      order->view.leaves_qty = 0;
      order->view.last_exec_type = exec_type;
      ParentAccount& account = AccountOf(order);
      if (name == "ExchangeCancel") {
        ++account.children_cancelled;
      } else if (name == "ExchangeReplace") {
        ++account.children_replaced;
      } else {
        ++account.children_rejected;
      }
      record = Hold(order->record);
    }
  }
  if (!record) {
    // A request that crossed the order's final state is refused, as a market
    // refuses to cancel a filled order.
    Record("ExchangeIgnored", level_key, exec_type, L"Reason=already final,Request=" + WideFromUtf8(name));
    return;
  }
  FieldList fields = {{L"ExecType", Variant::I4(exec_type)}, {L"LeavesQty", Variant::I4(0)}};
  if (name == "ExchangeReplace") fields.emplace_back(L"TimeInForce", Variant::I4(1));
  Record(ev, level_key, exec_type, L"LeavesQty=0");
  SimHost::Write(record.get(), fields);
}

// ---- Books -----------------------------------------------------------------

std::optional<ParentAccount> SimExchange::Account(const std::wstring& slice_id) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = accounts_.find(slice_id);
  if (it == accounts_.end()) return std::nullopt;
  return it->second;
}

std::vector<ParentAccount> SimExchange::Accounts() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<ParentAccount> accounts;
  for (const std::wstring& slice_id : account_order_) accounts.push_back(accounts_.at(slice_id));
  return accounts;
}

std::optional<ExchangeOrder> SimExchange::Order(const std::wstring& level_key) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = orders_.find(level_key);
  if (it == orders_.end()) return std::nullopt;
  return it->second->view;
}

std::vector<ExchangeOrder> SimExchange::Orders() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<ExchangeOrder> orders;
  orders.reserve(arrival_.size());
  for (const Entry* order : arrival_) orders.push_back(order->view);
  return orders;
}

IBaseData* SimExchange::OrderRecord(const std::wstring& level_key) const {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = orders_.find(level_key);
  return it == orders_.end() ? nullptr : it->second->record;
}

int32_t SimExchange::OrderSetSize() const {
  std::lock_guard<std::mutex> guard(lock_);
  return order_set_size_;
}

int32_t SimExchange::DoneCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  int32_t count = 0;
  for (const auto& [key, order] : orders_) count += (!order->parent && order->view.done) ? 1 : 0;
  return count;
}

int32_t SimExchange::AccountCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int32_t>(account_order_.size());
}

int64_t SimExchange::ChildrenSent() const {
  std::lock_guard<std::mutex> guard(lock_);
  int64_t count = 0;
  for (const auto& [slice_id, account] : accounts_) count += account.children_sent;
  return count;
}

int32_t SimExchange::EndedAccountCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  int32_t count = 0;
  for (const auto& [slice_id, account] : accounts_) count += account.end_ms >= 0 ? 1 : 0;
  return count;
}

int32_t SimExchange::WorkingCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  int32_t count = 0;
  for (const auto& [key, order] : orders_) count += (!order->parent && !order->view.done) ? 1 : 0;
  return count;
}

}  // namespace tsm::sim
