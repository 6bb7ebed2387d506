#include "slicehost/exchange.h"

#include <algorithm>
#include <cwchar>
#include <memory>

namespace tsm::sim {

namespace {

int32_t ToI4(const std::wstring& text) { return static_cast<int32_t>(std::wcstol(text.c_str(), nullptr, 10)); }
int64_t ToI8(const std::wstring& text) { return std::wcstoll(text.c_str(), nullptr, 10); }

std::wstring ReadText(IBaseData* record, const std::wstring& field) {
  Variant value = record->GetData(kKindFieldByName, Variant::Text(field));
  value.ChangeTypeToText();
  return value.text();
}

int32_t ReadI4(IBaseData* record, const std::wstring& field, int32_t fallback) {
  const Variant value = record->GetData(kKindFieldByName, Variant::Text(field));
  if (value.type() == VarType::I4) return value.i4();
  if (value.type() == VarType::I8) return static_cast<int32_t>(value.i8());
  if (value.type() == VarType::BStr) return ToI4(value.text());
  return fallback;
}

// The record behind a VT_I4 cookie, with a new reference; null otherwise.
IBaseData* FromCookie(const Variant* data) {
  if (data == nullptr || data->type() != VarType::I4 || data->i4() == 0) return nullptr;
  IBaseData* object = nullptr;
  if (TsmGetGlobalInterfaceTable()->GetInterfaceFromGlobal(static_cast<uint32_t>(data->i4()), &object) != kS_OK) {
    return nullptr;
  }
  return object;
}

// Keeps a reference alive inside a posted action, released also when the
// loop drops the action unrun.
std::shared_ptr<IBaseData> Hold(IBaseData* record) {
  record->AddRef();
  return std::shared_ptr<IBaseData>(record, [](IBaseData* r) { r->Release(); });
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
  int32_t fill_target = 0;      // quantity the scheduled fills reach
  int32_t fill_steps_left = 0;
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
  std::map<std::wstring, Entry*> orders;
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

void SimExchange::PostTopic(const std::wstring& topic, int32_t param2, const std::wstring& text, Variant data,
                            int64_t delay_ms) {
  loop_.Post(delay_ms, [this, topic, param2, text, data]() mutable {
    INordaManager* manager;
    {
      std::lock_guard<std::mutex> guard(lock_);
      manager = manager_;
    }
    if (manager != nullptr) manager->SetTopic(topic, 0, param2, text, &data);
  });
}

std::wstring SimExchange::SubmitParent(const FieldList& fields, int64_t delay_ms, bool in_order_set) {
  FieldList all = fields;
  std::wstring level_key;
  std::wstring slice_id;
  std::wstring symbol;
  for (const auto& [name, value] : fields) {
    Variant text = value;
    text.ChangeTypeToText();
    if (name == L"LevelKey") level_key = text.text();
    if (name == L"SliceID") slice_id = text.text();
    if (name == L"Symbol") symbol = text.text();
  }
  auto* order = new Entry;
  bool lock_set;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (level_key.empty()) {
      level_key = L"P" + std::to_wstring(next_parent_++);
      all.emplace_back(L"LevelKey", Variant::Text(level_key));
    }
    if (orders_.count(level_key) != 0) {
      delete order;
      Record("ExchangeIgnored", level_key, -1, L"Reason=duplicate parent level key");
      return level_key;
    }
    order->view.level_key = level_key;
    order->view.slice_id = slice_id;
    order->view.symbol = symbol;
    order->parent = true;
    order->behaviour = BehaviourFor(symbol);
    order->record = SimHost::NewRecord(L"order", all);
    orders_[level_key] = order;
    if (!slice_id.empty()) {
      ParentAccount& account = AccountFor(slice_id);
      account.parent_level_key = level_key;
      if (account.start_ms < 0) account.start_ms = host_.ElapsedMs() + std::max<int64_t>(0, delay_ms);
      parent_slice_[level_key] = slice_id;
    }
    lock_set = lock_order_set_on_add_;
  }
  auto record = Hold(order->record);
  loop_.Post(delay_ms, [this, record, level_key, slice_id, in_order_set, lock_set] {
    INordaManager* manager;
    {
      std::lock_guard<std::mutex> guard(lock_);
      manager = manager_;
    }
    int32_t index = -1;
    if (in_order_set && lock_set && manager != nullptr) {
      Variant none;
      manager->SetTopic(L"ORDERSET.LOCK", 0, 0, L"", &none);
    }
    const uint32_t cookie = in_order_set ? AddToOrderSet(record.get(), &index) : host_.Publish(record.get());
    if (in_order_set && lock_set && manager != nullptr) {
      Variant none;
      manager->SetTopic(L"ORDERSET.UNLOCK", 0, 0, L"", &none);
    }
    {
      std::lock_guard<std::mutex> guard(lock_);
      auto it = orders_.find(level_key);
      if (it != orders_.end()) {
        it->second->view.cookie = cookie;
        it->second->view.order_index = index;
      }
    }
    Record("ExchangeSubmit", level_key, -1, L"SliceID=" + slice_id + L",Index=" + std::to_wstring(index));
    Variant data = Variant::I4(static_cast<int32_t>(cookie));
    if (manager != nullptr) manager->SetTopic(L"TRADE.SLICE.MANAGER", 0, 0, std::to_wstring(index), &data);
  });
  return level_key;
}

void SimExchange::ReleaseParent(const std::wstring& parent_level_key, int64_t delay_ms) {
  IBaseData* record = OrderRecord(parent_level_key);
  if (record == nullptr) {
    Record("ExchangeIgnored", parent_level_key, -1, L"Reason=unknown parent");
    return;
  }
  PostTopic(L"TRADE.SLICE.ORDER", 0, L"", Variant::I4(static_cast<int32_t>(host_.Publish(record))), delay_ms);
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

void SimExchange::FillChild(const std::wstring& level_key, int32_t qty, int64_t delay_ms) {
  loop_.Post(delay_ms, [this, level_key, qty] { ApplyFill(level_key, qty); });
}

void SimExchange::SetTradedVolume(const std::wstring& symbol, int64_t volume, int64_t delay_ms) {
  auto quote = Hold(host_.Topic(symbol));
  loop_.Post(delay_ms, [quote, volume] {
    const int32_t update = quote->BeginUpdate();
    quote->SetData(update, kKindFieldById, Variant::I4(6), Variant::I8(volume));
    quote->EndUpdate(update);
  });
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
  if (topic == L"TRADE.NEWORDER") {
    OnNewOrder(text);
  } else if (topic == L"TRADE.FAILORDER") {
    OnFailOrder(text);
  } else if (topic == L"TRADE.CANCELORDER") {
    OnCancelOrder(text);
  } else if (topic == L"TRADE.REPLACEORDER") {
    OnReplaceOrder(text);
  } else if (topic == L"TRADE.HOT.MONTH") {
    OnFinalPortion(text, data);
  } else if (topic == L"TRADE.TRANSFER.POSITION") {
    OnTransfer(data);
  } else if (topic == L"TRADE.PRICE.TRIGGER.CANCEL" || topic == L"TRADE.CHASE.PRICE.CANCEL" ||
             topic == L"TRADE.SPREAD.MANAGER.CANCEL") {
    OnParentCancel(topic, text, data);
  }
}

void SimExchange::OnNewOrder(const std::wstring& command) {
  // The line is split once; the first occurrence of a key counts.
  std::map<std::wstring, std::wstring> values;
  for (size_t at = 0; at <= command.size();) {
    size_t end = command.find(L',', at);
    if (end == std::wstring::npos) end = command.size();
    const size_t equals = command.find(L'=', at);
    if (equals != std::wstring::npos && equals < end) {
      values.emplace(command.substr(at, equals - at), command.substr(equals + 1, end - equals - 1));
    }
    at = end + 1;
  }
  auto value = [&values](const wchar_t* key) {
    auto it = values.find(key);
    return it == values.end() ? std::wstring() : it->second;
  };
  const int32_t qty = ToI4(value(L"QTY"));
  const std::wstring slice_id = value(L"SlicedID");
  const std::wstring symbol = value(L"SYMBOL");
  auto* order = new Entry;
  std::wstring level_key;
  int64_t delivery_delay;
  {
    std::lock_guard<std::mutex> guard(lock_);
    level_key = level_key_prefix_ + std::to_wstring(next_child_++);
    order->behaviour = BehaviourFor(symbol);
    delivery_delay = order->behaviour.delivery_delay_ms;
  }
  FieldList fields = {
      {L"LevelKey", Variant::Text(level_key)},
      {L"Symbol", Variant::Text(symbol)},
      {L"Side", Variant::Text(value(L"SIDE"))},
      {L"Account", Variant::Text(value(L"ACCOUNT"))},
      {L"SecurityType", Variant::Text(value(L"TYPE"))},
      {L"BrokerID", Variant::Text(value(L"BROKERID"))},
      {L"Price", Variant::I8(ToI8(value(L"PRICE")))},
      {L"PriceString", Variant::Text(value(L"PRICESTRING"))},
      {L"OrderType", Variant::I4(ToI4(value(L"ORDERTYPE")))},
      {L"TimeInForce", Variant::I4(ToI4(value(L"TIMEINFORCE")))},
      {L"OriginalQty", Variant::I4(qty)},
      {L"OrderQty", Variant::I4(qty)},
      {L"LeavesQty", Variant::I4(qty)},
      {L"CumQty", Variant::I4(0)},
      {L"OrderID", Variant::Text(L"")},
      {L"SliceID", Variant::Text(slice_id)},
      {L"GroupID", Variant::Text(value(L"GROUPID"))},
      {L"GroupType", Variant::I4(ToI4(value(L"GROUPTYPE")))},
      {L"GroupPrefix", Variant::Text(value(L"GroupPrefix"))},
      {L"Consecutive", Variant::I4(ToI4(value(L"Consecutive")))},
      {L"NumberOfRetries", Variant::I4(ToI4(value(L"NumberOfRetries")))},
      {L"RetryInterval", Variant::I4(ToI4(value(L"RetryInterval")))},
      {L"SpreadID", Variant::Text(value(L"SpreadID"))},
  };
  const std::wstring sliced_type = value(L"SlicedType");
  if (!sliced_type.empty()) fields.emplace_back(L"SlicedType", Variant::I4(ToI4(sliced_type)));
  order->record = SimHost::NewRecord(L"order", fields);
  order->view.level_key = level_key;
  order->view.slice_id = slice_id;
  order->view.symbol = symbol;
  order->view.command = command;
  order->view.qty = qty;
  order->view.leaves_qty = qty;
  {
    std::lock_guard<std::mutex> guard(lock_);
    orders_[level_key] = order;
    arrival_.push_back(level_key);
    ParentAccount& account = AccountFor(slice_id);
    ++account.children_sent;
    account.qty_sent += qty;
    if (account.start_ms < 0) account.start_ms = host_.ElapsedMs();
    account.children.push_back(level_key);
    account.child_qtys.push_back(qty);
  }
  Record("ExchangeNew", level_key, -1, L"SliceID=" + slice_id + L",Symbol=" + symbol + L",Qty=" + std::to_wstring(qty));
  loop_.Post(delivery_delay, [this, level_key] { Deliver(level_key); });
}

void SimExchange::OnFailOrder(const std::wstring& command) {
  const std::wstring slice_id = CommandValue(command, L"SlicedID");
  {
    std::lock_guard<std::mutex> guard(lock_);
    ++AccountFor(slice_id).children_failed;
  }
  Record("ExchangeFail", L"", -1, L"SliceID=" + slice_id + L",Qty=" + CommandValue(command, L"QTY"));
}

void SimExchange::OnCancelOrder(const std::wstring& text) {
  const std::wstring level_key = CommandValue(text, L"REPORTID");
  int64_t delay = 0;
  int32_t exec_type = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end()) {
      delay = -1;
    } else {
      Entry* order = it->second;
      ++AccountFor(order->view.slice_id).cancel_requests;
      delay = order->behaviour.cancel_delay_ms;
      exec_type = codes_.cancelled;
    }
  }
  if (delay < 0) {
    Record("ExchangeIgnored", level_key, -1, L"Reason=cancel of an unknown order," + text);
    return;
  }
  loop_.Post(delay, [this, level_key, exec_type] { EndWith(level_key, exec_type, "ExchangeCancel"); });
}

void SimExchange::OnReplaceOrder(const std::wstring& text) {
  const std::wstring level_key = CommandValue(text, L"REPORTID");
  int64_t delay = -1;
  int32_t exec_type = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it != orders_.end()) {
      Entry* order = it->second;
      ++AccountFor(order->view.slice_id).replace_requests;
      delay = order->behaviour.replace_delay_ms;
      exec_type = order->behaviour.replace_exec_type;
    }
  }
  if (delay < 0) {
    Record("ExchangeIgnored", level_key, -1, L"Reason=replace of an unknown order," + text);
    return;
  }
  loop_.Post(delay, [this, level_key, exec_type] { EndWith(level_key, exec_type, "ExchangeReplace"); });
}

void SimExchange::OnFinalPortion(const std::wstring& text, const Variant* data) {
  IBaseData* object = FromCookie(data);
  if (object == nullptr) {
    Record("ExchangeIgnored", L"", -1, L"Reason=final portion without a record,Index=" + text);
    return;
  }
  const std::wstring level_key = ReadText(object, L"LevelKey");
  const std::wstring slice_id = ReadText(object, L"SliceID");
  const std::wstring symbol = ReadText(object, L"Symbol");
  const int32_t qty = ReadI4(object, L"OrderQty", 0);
  const int32_t sliced_type = ReadI4(object, L"SlicedType", 0);
  bool work = false;
  int64_t ack_delay = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Entry* order;
    auto it = orders_.find(level_key);
    if (it != orders_.end()) {
      order = it->second;
      object->Release();
    } else {
      order = new Entry;
      order->record = object;
      order->parent = true;
      order->behaviour = BehaviourFor(symbol);
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
    order->view.order_index = ToI4(text);
    arrival_.push_back(level_key);
    ParentAccount& account = AccountFor(slice_id);
    account.parent_level_key = level_key;
    account.final_portion = true;
    account.final_portion_qty = qty;
    if (account.start_ms < 0) account.start_ms = host_.ElapsedMs();
    parent_slice_[level_key] = slice_id;
    work = order->behaviour.work_final_portion && sliced_type != 5;
    ack_delay = order->behaviour.ack_delay_ms;
  }
  Record("ExchangeFinal", level_key, -1,
         L"SliceID=" + slice_id + L",Qty=" + std::to_wstring(qty) + (work ? L"" : L",Held=1"));
  if (work) loop_.Post(ack_delay, [this, level_key] { Acknowledge(level_key); });
}

void SimExchange::OnTransfer(const Variant* data) {
  IBaseData* object = FromCookie(data);
  if (object == nullptr) {
    Record("ExchangeIgnored", L"", -1, L"Reason=transfer without a record");
    return;
  }
  const std::wstring level_key = ReadText(object, L"LevelKey");
  const std::wstring slice_id = ReadText(object, L"SliceID");
  const int32_t qty = ReadI4(object, L"OrderQty", 0);
  object->Release();
  {
    std::lock_guard<std::mutex> guard(lock_);
    ParentAccount& account = AccountFor(slice_id);
    account.parent_level_key = level_key;
    account.transferred = true;
    account.end_ms = host_.ElapsedMs();
  }
  Record("ExchangeTransfer", level_key, -1, L"SliceID=" + slice_id + L",Qty=" + std::to_wstring(qty));
}

void SimExchange::OnParentCancel(const std::wstring& topic, const std::wstring& text, const Variant* data) {
  std::wstring level_key = CommandValue(text, L"LevelKey");
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = parent_slice_.find(level_key);
    if (it != parent_slice_.end()) {
      ++AccountFor(it->second).parent_cancel_requests;
    } else {
      auto order = orders_.find(level_key);
      if (order != orders_.end()) ++AccountFor(order->second->view.slice_id).parent_cancel_requests;
    }
  }
  const bool with_record = data != nullptr && data->type() == VarType::I4;
  Record("ExchangeParentCancel", level_key, -1, L"Topic=" + topic + (with_record ? L",Record=1" : L",Record=0"));
}

// ---- Working an order on the loop ----------------------------------------

void SimExchange::Deliver(const std::wstring& level_key) {
  std::shared_ptr<IBaseData> record;
  INordaManager* manager;
  bool lock_set;
  int64_t ack_delay;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end()) return;
    record = Hold(it->second->record);
    manager = manager_;
    lock_set = lock_order_set_on_add_;
    ack_delay = it->second->behaviour.ack_delay_ms;
  }
  if (lock_set && manager != nullptr) {
    Variant none;
    manager->SetTopic(L"ORDERSET.LOCK", 0, 0, L"", &none);
  }
  int32_t index = -1;
  const uint32_t cookie = AddToOrderSet(record.get(), &index);
  if (lock_set && manager != nullptr) {
    Variant none;
    manager->SetTopic(L"ORDERSET.UNLOCK", 0, 0, L"", &none);
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it != orders_.end()) {
      it->second->view.cookie = cookie;
      it->second->view.order_index = index;
      it->second->view.delivered = true;
    }
  }
  Variant data = Variant::I4(static_cast<int32_t>(cookie));
  if (manager != nullptr) manager->SetTopic(L"TRADE.HOT.MONTH", 0, 0, std::to_wstring(index), &data);
  loop_.Post(ack_delay, [this, level_key] { Acknowledge(level_key); });
}

void SimExchange::Acknowledge(const std::wstring& level_key) {
  std::shared_ptr<IBaseData> record;
  std::wstring order_id;
  int32_t exec_type;
  int64_t fill_delay = 0;
  bool fill = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end() || it->second->view.done) return;
    Entry* order = it->second;
    if (order->behaviour.reject) {
      exec_type = codes_.rejected;
    } else {
      exec_type = codes_.acknowledged;
      order_id = L"X" + std::to_wstring(next_order_id_++);
      order->view.order_id = order_id;
      order->view.last_exec_type = exec_type;
      if (!order->view.final_portion) ++AccountFor(order->view.slice_id).children_acknowledged;
      const int32_t percent = std::clamp(order->behaviour.fill_percent, 0, 100);
      order->fill_target = static_cast<int32_t>(static_cast<int64_t>(order->view.qty) * percent / 100);
      order->fill_steps_left = std::max(1, order->behaviour.fill_steps);
      fill = order->fill_target > 0;
      fill_delay = order->behaviour.fill_delay_ms;
      record = Hold(order->record);
    }
  }
  if (!record) {
    EndWith(level_key, exec_type, "ExchangeReject");
    return;
  }
  // Announced before the write: the manager hears the write on another
  // thread at once, and a transcript must show cause before reaction.
  Record("ExchangeAck", level_key, exec_type, L"OrderID=" + order_id);
  SimHost::Write(record.get(), {{L"ExecType", Variant::I4(exec_type)}, {L"OrderID", Variant::Text(order_id)}});
  if (fill) loop_.Post(fill_delay, [this, level_key] { ScheduledFill(level_key); });
}

void SimExchange::ScheduledFill(const std::wstring& level_key) {
  int32_t chunk = 0;
  int64_t fill_delay = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end() || it->second->view.done) return;
    Entry* order = it->second;
    const int32_t remaining = order->fill_target - order->view.cum_qty;
    if (remaining <= 0 || order->fill_steps_left <= 0) return;
    chunk = order->fill_steps_left == 1 ? remaining : std::max(1, remaining / order->fill_steps_left);
    --order->fill_steps_left;
    fill_delay = order->behaviour.fill_delay_ms;
  }
  if (ApplyFill(level_key, chunk)) {
    loop_.Post(fill_delay, [this, level_key] { ScheduledFill(level_key); });
  }
}

bool SimExchange::ApplyFill(const std::wstring& level_key, int32_t qty) {
  std::shared_ptr<IBaseData> record;
  int32_t exec_type;
  int32_t cum;
  int32_t leaves;
  bool more;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = orders_.find(level_key);
    if (it == orders_.end() || it->second->view.done) return false;
    Entry* order = it->second;
    const int32_t fill = std::clamp(qty, 0, order->view.leaves_qty);
    if (fill <= 0) return false;
    order->view.cum_qty += fill;
    order->view.leaves_qty -= fill;
    cum = order->view.cum_qty;
    leaves = order->view.leaves_qty;
    exec_type = leaves == 0 ? codes_.filled : codes_.partially_filled;
    order->view.last_exec_type = exec_type;
    ParentAccount& account = AccountFor(order->view.slice_id);
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
    record = Hold(order->record);
  }
  Record("ExchangeFill", level_key, exec_type,
         L"Fill=" + std::to_wstring(qty) + L",CumQty=" + std::to_wstring(cum) + L",LeavesQty=" +
             std::to_wstring(leaves));
  SimHost::Write(record.get(), {{L"ExecType", Variant::I4(exec_type)},
                                {L"CumQty", Variant::I4(cum)},
                                {L"LeavesQty", Variant::I4(leaves)}});
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
      ParentAccount& account = AccountFor(order->view.slice_id);
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
    Record("ExchangeIgnored", level_key, exec_type, L"Reason=already final,Request=" + std::wstring(name.begin(), name.end()));
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
  for (const std::wstring& key : arrival_) orders.push_back(orders_.at(key)->view);
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

int32_t SimExchange::WorkingCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  int32_t count = 0;
  for (const auto& [key, order] : orders_) count += (!order->parent && !order->view.done) ? 1 : 0;
  return count;
}

}  // namespace tsm::sim
