#include "slicehost/sim_host.h"

#include <cstdio>

#include <rapidjson/document.h>

#include "data/text.h"
#include "slicehost/thread_cpu_ledger.h"

namespace tsm::sim {

std::string JsonString(const std::wstring& text) {
  const std::string utf8 = Utf8FromWide(text);
  std::string out = "\"";
  for (char c : utf8) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buffer[8];
          std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
          out += buffer;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

SimHost::SimHost(IClock& clock) : clock_(clock), start_ms_(clock.NowMs()) {}

SimHost::~SimHost() {
  IGlobalInterfaceTable* table = TsmGetGlobalInterfaceTable();
  for (auto& [object, cookie] : published_) table->RevokeInterfaceFromGlobal(cookie);
  for (auto& [name, object] : topics_) object->Release();
}

uint32_t SimHost::AddRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

uint32_t SimHost::Release() { return refs_.fetch_sub(1, std::memory_order_acq_rel) - 1; }

int64_t SimHost::ElapsedMs() const { return clock_.NowMs() - start_ms_; }

void SimHost::Record(HostEvent event) {
  if (!KeepsEvents()) return;
  event.t_ms = ElapsedMs();
  std::lock_guard<std::mutex> guard(lock_);
  events_.push_back(std::move(event));
}

void SimHost::RecordCall(HostEvent event) { Record(std::move(event)); }

void SimHost::RecordTopicCall(const char* ev, const std::wstring& topic, int32_t p1, int32_t p2,
                              const std::wstring& text, const Variant* data) {
  if (!KeepsEvents()) return;
  HostEvent e;
  e.ev = ev;
  e.topic = topic;
  e.p1 = p1;
  e.p2 = p2;
  e.text = text;
  e.data_json = DescribeData(topic, p1, p2, data);
  if (data != nullptr) e.data = *data;
  Record(std::move(e));
}

void SimHost::SetKeepEvents(bool keep) { keep_events_.store(keep, std::memory_order_relaxed); }

HResult SimHost::RegisterTopic(const std::wstring& topic, Variant* result) {
  HostEvent e;
  e.ev = "RegisterTopic";
  e.topic = topic;
  Record(std::move(e));
  if (result != nullptr) *result = Variant::I4(1);
  return kS_OK;
}

// The host loop, the event thread and the clock's driver have entered the
// ledger already; any other thread calling the host is one of the manager's
// own (a timer's, mostly).
void SimHost::NoteCaller() {
  // Once entered, a thread is not looked at again: the host is called on
  // every request.
  thread_local bool entered = false;
  if (!entered) entered = ThreadCpuLedger::Instance().Note(ThreadClass::kTimer);
}

HResult SimHost::GetTopicData(const std::wstring& topic, Variant* result) {
  NoteCaller();
  if (KeepsEvents()) {
    HostEvent e;
    e.ev = "GetTopicData";
    e.topic = topic;
    Record(std::move(e));
  }
  IBaseData* object = nullptr;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = topics_.find(topic);
    if (it != topics_.end()) object = it->second;
  }
  if (result != nullptr) *result = object != nullptr ? Variant::I4(static_cast<int32_t>(Publish(object))) : Variant();
  return kS_OK;
}

HResult SimHost::SendTopic(const std::wstring& topic, int32_t param1, int32_t param2, const std::wstring& text,
                           Variant* data, Variant* result) {
  NoteCaller();
  RecordTopicCall("SendTopic", topic, param1, param2, text, data);

  using namespace std::string_view_literals;  // compares lengths before letters
  if (data != nullptr && topic == L"MARZIPAN.REQUEST"sv) {
    if (text == L"STKINFO"sv && data->type() == VarType::BStr) {
      std::wstring security;
      {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = security_texts_.find(data->text());
        if (it != security_texts_.end()) security = it->second;
      }
      // One batch write of one field, keyed by the symbol text in hand.
      IBaseData* answers = Topic(L"MARZIPAN.REQUEST");
      const int32_t update = answers->BeginUpdate();
      answers->SetData(update, kKindFieldByName, *data, Variant::Text(std::move(security)));
      answers->EndUpdate(update);
    } else if (param2 == 64 && data->type() == VarType::I8) {
      std::string json;
      std::wstring answer;
      {
        std::lock_guard<std::mutex> guard(lock_);
        json = vault_json_;
        answer = vault_answer_;
      }
      auto* document = reinterpret_cast<rapidjson::Document*>(static_cast<intptr_t>(data->i8()));
      // Iterative, so that any text the scenario or a fuzzer gives parses
      // without deep recursion.
      if (document != nullptr && !json.empty()) document->Parse<rapidjson::kParseIterativeFlag>(json.c_str());
      if (result != nullptr) *result = Variant::Text(answer);
    }
  }
  if (on_send) on_send(topic, param1, param2, text, data, result);
  return kS_OK;
}

HResult SimHost::WriteLog(const std::wstring& line) {
  NoteCaller();
  if (!KeepsEvents()) return kS_OK;
  HostEvent e;
  e.ev = "WriteLog";
  e.text = line;
  Record(std::move(e));
  return kS_OK;
}

IBaseData* SimHost::NewRecord(const std::wstring& name, const FieldList& fields) {
  IBaseData* record = TsmCreateBaseData(name.c_str());
  if (!fields.empty()) Write(record, fields);
  return record;
}

void SimHost::Write(IBaseData* record, const FieldList& fields) {
  const int32_t update = record->BeginUpdate();
  for (const auto& [name, value] : fields) record->SetData(update, kKindFieldByName, Variant::Text(name), value);
  record->EndUpdate(update);
}

Variant SimHost::Read(IBaseData* record, const std::wstring& field) {
  return record->GetData(kKindFieldByName, Variant::Text(field));
}

std::wstring SimHost::ReadText(IBaseData* record, const std::wstring& field) {
  Variant value = Read(record, field);
  value.ChangeTypeToText();
  return value.text();
}

int32_t SimHost::ReadI4(IBaseData* record, const std::wstring& field, int32_t fallback) {
  return ToI4(Read(record, field), fallback);
}

int32_t SimHost::ToI4(const Variant& value, int32_t fallback) {
  if (value.type() == VarType::I4) return value.i4();
  if (value.type() == VarType::I8) return static_cast<int32_t>(value.i8());
  if (value.type() == VarType::BStr) return WToL(value.text());
  return fallback;
}

int64_t SimHost::ReadI8(IBaseData* record, const std::wstring& field, int64_t fallback) {
  return ToI8(Read(record, field), fallback);
}

int64_t SimHost::ToI8(const Variant& value, int64_t fallback) {
  if (value.type() == VarType::I4) return value.i4();
  if (value.type() == VarType::I8) return value.i8();
  if (value.type() == VarType::BStr) return WToI64(value.text());
  return fallback;
}

IBaseData* SimHost::FromCookie(const Variant* data) {
  if (data == nullptr || data->type() != VarType::I4 || data->i4() == 0) return nullptr;
  IBaseData* object = nullptr;
  if (TsmGetGlobalInterfaceTable()->GetInterfaceFromGlobal(static_cast<uint32_t>(data->i4()), &object) != kS_OK) {
    return nullptr;
  }
  return object;
}

uint32_t SimHost::Publish(IBaseData* record) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = published_.find(record);
  if (it != published_.end()) return it->second;
  uint32_t cookie = 0;
  TsmGetGlobalInterfaceTable()->RegisterInterfaceInGlobal(record, &cookie);
  published_[record] = cookie;
  return cookie;
}

IBaseData* SimHost::Topic(std::wstring_view topic) {
  std::lock_guard<std::mutex> guard(lock_);
  auto it = topics_.find(topic);
  if (it != topics_.end()) return it->second;
  std::wstring name(topic);
  IBaseData* object = TsmCreateBaseData(name.c_str());
  topics_.emplace(std::move(name), object);
  return object;
}

bool SimHost::HasTopic(const std::wstring& topic) const {
  std::lock_guard<std::mutex> guard(lock_);
  return topics_.count(topic) != 0;
}

void SimHost::RemoveTopic(const std::wstring& topic) {
  IBaseData* object = nullptr;
  uint32_t cookie = 0;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = topics_.find(topic);
    if (it == topics_.end()) return;
    object = it->second;
    topics_.erase(it);
    auto pub = published_.find(object);
    if (pub != published_.end()) {
      cookie = pub->second;
      published_.erase(pub);
    }
  }
  if (cookie != 0) TsmGetGlobalInterfaceTable()->RevokeInterfaceFromGlobal(cookie);
  object->Release();
}

void SimHost::SetTopicRecord(const std::wstring& topic, IBaseData* record) {
  RemoveTopic(topic);
  record->AddRef();
  std::lock_guard<std::mutex> guard(lock_);
  topics_[topic] = record;
}

void SimHost::SetSecurityText(const std::wstring& symbol, const std::wstring& text) {
  std::lock_guard<std::mutex> guard(lock_);
  security_texts_[symbol] = text;
}

void SimHost::SetVaultAnswer(const std::string& json_utf8, const std::wstring& answer) {
  std::lock_guard<std::mutex> guard(lock_);
  vault_json_ = json_utf8;
  vault_answer_ = answer;
}

std::string SimHost::DescribeData(const std::wstring& topic, int32_t p1, int32_t p2, const Variant* data) {
  if (data == nullptr) return "null";
  switch (data->type()) {
    case VarType::Empty:
      return "null";
    case VarType::I4: {
      // Records travel as cookies: name them by level key, topic or name.
      if (IBaseData* object = FromCookie(data)) {
        std::wstring name = ReadText(object, L"LevelKey");
        if (name.empty()) {
          Variant own = object->GetData(kKindName, Variant());
          name = own.text();
        }
        object->Release();
        return "{\"record\":" + JsonString(name) + "}";
      }
      return "{\"i4\":" + std::to_string(data->i4()) + "}";
    }
    case VarType::I8:
      if (topic == L"MARZIPAN.REQUEST" && p1 == 1 && p2 == 64) return "{\"address\":true}";
      return "{\"i8\":" + std::to_string(data->i8()) + "}";
    case VarType::BStr:
      return "{\"text\":" + JsonString(data->text()) + "}";
  }
  return "null";
}

std::vector<HostEvent> SimHost::Events() const {
  std::lock_guard<std::mutex> guard(lock_);
  return events_;
}

std::vector<HostEvent> SimHost::EventsFrom(size_t first) const {
  std::lock_guard<std::mutex> guard(lock_);
  if (first >= events_.size()) return {};
  return std::vector<HostEvent>(events_.begin() + static_cast<std::ptrdiff_t>(first), events_.end());
}

std::vector<HostEvent> SimHost::Sent(const std::wstring& topic) const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<HostEvent> sent;
  for (const HostEvent& e : events_) {
    if (e.ev == "SendTopic" && e.topic == topic) sent.push_back(e);
  }
  return sent;
}

std::vector<std::wstring> SimHost::Logs() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::wstring> lines;
  for (const HostEvent& e : events_) {
    if (e.ev == "WriteLog") lines.push_back(e.text);
  }
  return lines;
}

void SimHost::ClearEvents() {
  std::lock_guard<std::mutex> guard(lock_);
  events_.clear();
}

}  // namespace tsm::sim
